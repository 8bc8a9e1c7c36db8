// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "scoped_name/notifications.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "foundation/never_destroyed.h"
#include "platform/fork_child.h"

namespace ThreadUtilities {

/// Holds the lock for a change of the list and marks the time that the change takes.
class ScopedThreadNotifications::Change {
 public:
    explicit Change(ScopedThreadNotifications& changed)
        : notifications(changed), lock(changed.callbacksMutex) {
        notifications.isChanging = true;
    }
    ~Change() { notifications.isChanging = false; }

    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

 private:
    ScopedThreadNotifications& notifications;
    std::lock_guard<std::mutex> lock;
};

void ScopedThreadNotifications::addCallback(std::shared_ptr<IScopedThreadCallback> callback) {
    if (callback == nullptr || !enabled) {
        return;
    }
    Change change(*this);
    callbacks.push_back(callback);
}

void ScopedThreadNotifications::removeCallback(std::shared_ptr<IScopedThreadCallback> callback) {
    if (callback == nullptr || !enabled) {
        return;
    }
    // Kept until the lock is free: an observer whose other owners let go meanwhile ends with these,
    // and its destructor may well come back here.
    std::vector<std::shared_ptr<IScopedThreadCallback>> looked;
    Change change(*this);
    const auto found = std::find_if(callbacks.begin(), callbacks.end(), [&](const auto& entry) {
        return looked.emplace_back(entry.lock()) == callback;
    });
    if (found != callbacks.end()) {
        callbacks.erase(found);
    }
}

namespace {

// An observer's call may begin a scope that is announced in its turn, and so on without end.
constexpr int deepestAnnouncement = 4;

/// Announcements under way on this thread, each within a call of the one before.
constinit thread_local int announcementDepth = 0;

/// Ends also when an observer throws or ends its thread.
class Announcement {
 public:
    Announcement() { ++announcementDepth; }
    ~Announcement() { --announcementDepth; }

    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;
};

}  // namespace

void ScopedThreadNotifications::invokeCallbacks(void (IScopedThreadCallback::*operation)()) {
    if (announcementDepth == deepestAnnouncement) {
        return;
    }
    const Announcement announcement;
    std::vector<std::weak_ptr<IScopedThreadCallback>> called;
    {
        std::lock_guard<std::mutex> lock(callbacksMutex);
        called = callbacks;
    }
    for (const auto& entry : called) {
        if (const std::shared_ptr<IScopedThreadCallback> callback = entry.lock()) {
            (callback.get()->*operation)();
        }
    }
}

void ScopedThreadNotifications::shutdown() {
    enabled = false;
    std::vector<std::weak_ptr<IScopedThreadCallback>> released;
    Change change(*this);
    callbacks.swap(released);
}

// Readers of the list leave it as it is, so it is whole unless some thread was changing it. Then,
// and only then, the fork child begins with an empty one; what the old one held is lost to it.
void ScopedThreadNotifications::restartInForkChild() noexcept {
    new (&callbacksMutex) std::mutex;
    if (isChanging.exchange(false)) {
        new (&callbacks) std::vector<std::weak_ptr<IScopedThreadCallback>>;
    }
}

namespace {

// Never destroyed: threads that outlive the end of `main` still begin and end their scopes while
// static objects are destroyed, and what is left in the list may be observers whose code is gone.
// Made before the static objects of a host that may name threads.
[[gnu::init_priority(101)]] NeverDestroyed<ScopedThreadNotifications> notifications;

platform::RestartInForkChild restartNotifications([] { notifications.value.restartInForkChild(); });

}  // namespace

ScopedThreadNotifications& ScopedThreadName::notifier() noexcept {
    return notifications.value;
}

}  // namespace ThreadUtilities
