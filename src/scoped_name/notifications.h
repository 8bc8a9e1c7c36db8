// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The observers of scoped thread names.

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include <ThreadUtilities/ScopedThreadName.h>

namespace ThreadUtilities {

/// The list of observers, and whether they are heard. Observers are held weakly; those that have
/// ended are skipped.
class ScopedThreadNotifications {
 public:
    ScopedThreadNotifications() noexcept = default;

    ScopedThreadNotifications(const ScopedThreadNotifications&) = delete;
    ScopedThreadNotifications& operator=(const ScopedThreadNotifications&) = delete;

    /// Both do nothing for a null observer and while disabled.
    void addCallback(std::shared_ptr<IScopedThreadCallback> callback);
    void removeCallback(std::shared_ptr<IScopedThreadCallback> callback);

    bool isEnabled() const noexcept { return enabled; }
    void enable() noexcept { enabled = true; }

    /// Calls every live observer that is in the list now, in its order; what they add or remove
    /// meanwhile counts from the next time on. An observer's exception ends the round. Nobody is
    /// called any more from within the fourth of calls that lie one within the other.
    void invokeCallbacks(void (IScopedThreadCallback::*operation)());

    /// Disables, then empties the list.
    void shutdown();

    /// In a fork child; see `platform/fork_child.h`.
    void restartInForkChild() noexcept;

 private:
    class Change;

    std::vector<std::weak_ptr<IScopedThreadCallback>> callbacks;
    std::mutex callbacksMutex;
    std::atomic<bool> enabled{true};
    /// Whether the list is possibly half changed; written under the lock.
    std::atomic<bool> isChanging{false};
};

}  // namespace ThreadUtilities
