// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Who may stop whom.

#include <windows.h>

#include <mutex>

namespace ThreadUtilities::platform {

/// Neither allocates nor needs a constructor.
class SlimLock {
 public:
    void lock() noexcept { AcquireSRWLockExclusive(&systemLock); }
    void unlock() noexcept { ReleaseSRWLockExclusive(&systemLock); }

 private:
    SRWLOCK systemLock = SRWLOCK_INIT;
};

/// Keeps threads that visit each other from stopping one another for good.
///
/// The rule: a thread that is visiting another one is not stopped. It is enough, because threads
/// could wait for each other only in a circle of visits, and in a circle the visit that begins
/// last has a target that is visiting already, therefore it has not begun.
///
/// The lock is held for a few instructions, never while a thread is stopped. Its holder may itself
/// be stopped by a visit that began before; whoever waits for the lock then waits for the end of
/// that visit, which needs no lock to let its target run again.
class VisitOrder {
 public:
    /// One visit, on the stack of the visitor.
    class Visit {
     public:
        Visit(VisitOrder& all, unsigned int visitorId) noexcept : order(all), visitor(visitorId) {}
        ~Visit() {
            if (hasBegun) {
                order.remove(*this);
            }
        }

        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        /// False while `target` is visiting; ask again later.
        bool tryBegin(unsigned int target) noexcept {
            hasBegun = order.addUnlessVisiting(*this, target);
            return hasBegun;
        }

     private:
        friend class VisitOrder;
        VisitOrder& order;
        unsigned int visitor;
        bool hasBegun = false;
        Visit* next = nullptr;
    };

 private:
    bool addUnlessVisiting(Visit& visit, unsigned int target) noexcept {
        const std::lock_guard guard(lock);
        for (const Visit* other = first; other != nullptr; other = other->next) {
            if (other->visitor == target) {
                return false;
            }
        }
        visit.next = first;
        first = &visit;
        return true;
    }

    void remove(Visit& visit) noexcept {
        const std::lock_guard guard(lock);
        Visit** link = &first;
        while (*link != &visit) {
            link = &(*link)->next;
        }
        *link = visit.next;
    }

    SlimLock lock;
    Visit* first = nullptr;
};

}  // namespace ThreadUtilities::platform
