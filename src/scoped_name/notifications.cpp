#include "scoped_name/notifications.h"

#include <algorithm>
#include <new>

#include "platform/process_copy.h"

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

void ScopedThreadNotifications::invokeCallbacks(void (IScopedThreadCallback::*operation)()) {
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

void ScopedThreadNotifications::releaseAtUnload() noexcept {
    if (callbacksMutex.try_lock()) {
        callbacks.clear();
        callbacksMutex.unlock();
    }
}

// Readers of the list leave it as it is, so it is whole unless some thread was changing it. Then,
// and only then, the copy begins with an empty one; what the old one held is lost to it.
void ScopedThreadNotifications::restartInCopy() noexcept {
    new (&callbacksMutex) std::mutex;
    if (isChanging.exchange(false)) {
        new (&callbacks) std::vector<std::weak_ptr<IScopedThreadCallback>>;
    }
}

namespace {

// Never destroyed: threads that outlive the end of `main` still begin and end their scopes while
// static objects are destroyed.
union Everlasting {
    Everlasting() noexcept : notifications() {}
    ~Everlasting() {}

    ScopedThreadNotifications notifications;
};

// Made at first use, since static objects of the host may name threads before those of this file
// exist; and at load at the latest, before there are threads that could be copied midway.
ScopedThreadNotifications& everlasting() noexcept {
    static Everlasting instance;
    return instance.notifications;
}

struct LoadAndUnload {
    LoadAndUnload() { everlasting(); }
    ~LoadAndUnload() { everlasting().releaseAtUnload(); }
} loadAndUnload;

platform::RestartInCopy restartNotifications([] { everlasting().restartInCopy(); });

}  // namespace

ScopedThreadNotifications& ScopedThreadName::notifier() noexcept {
    return everlasting();
}

}  // namespace ThreadUtilities
