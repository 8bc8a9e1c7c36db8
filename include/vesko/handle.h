// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A handle to an interface of the host framework: it knows the interface, but does not keep the
/// object behind it alive, only the block that counts the object's owners.
///
/// Handles may be copied, moved and destroyed on any thread; one handle object is used by one
/// thread at a time.

#include <atomic>
#include <cstdint>
#include <utility>

/// The host framework's core interface. It is passed through and never called.
class ICoreFramework;

namespace vesko {

/// Counts the owners of one shared object. The object ends with the last strong owner, the block
/// with the last weak one; the strong owners together hold one weak count, as `std::shared_ptr`
/// and `std::weak_ptr` do it.
class count_block {
 public:
    count_block(const count_block&) = delete;
    count_block& operator=(const count_block&) = delete;

    /// The caller holds a count of either kind.
    void add_strong() noexcept { strongCount.fetch_add(1, std::memory_order_relaxed); }
    void add_weak() noexcept { weakCount.fetch_add(1, std::memory_order_relaxed); }

    void release_strong() noexcept {
        if (is_last(strongCount)) {
            destroy_object();
            release_weak();
        }
    }

    void release_weak() noexcept {
        if (is_last(weakCount)) {
            delete_block();
        }
    }

 protected:
    /// Born with one strong owner.
    count_block() noexcept = default;
    virtual ~count_block() = default;

 private:
    virtual void destroy_object() noexcept = 0;
    /// Frees this block the way it was made.
    virtual void delete_block() noexcept = 0;

    // Release by every owner, acquire by the last: what the others did with the object or the
    // block happens before its end.
    static bool is_last(std::atomic<std::uint32_t>& count) noexcept {
        return count.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }

    std::atomic<std::uint32_t> strongCount{1};
    std::atomic<std::uint32_t> weakCount{1};
};

/// A pointer to an `Interface` with one weak count of the block that counts its owners. Empty by
/// default, which is what a program without the framework passes:
///
/// \code
/// const std::string stack = ThreadUtilities::getStackTrace({}, threadId);
/// \endcode
template <typename Interface>
class handle {
 public:
    handle() noexcept = default;

    /// Takes one weak count of its own of `block`, which may be null.
    handle(Interface* object, count_block* block) noexcept : target(object), counts(block) {
        if (counts != nullptr) {
            counts->add_weak();
        }
    }

    handle(const handle& other) noexcept : handle(other.target, other.counts) {}

    handle(handle&& other) noexcept
        : target(std::exchange(other.target, nullptr)),
          counts(std::exchange(other.counts, nullptr)) {}

    handle& operator=(handle other) noexcept {
        std::swap(target, other.target);
        std::swap(counts, other.counts);
        return *this;
    }

    ~handle() {
        if (counts != nullptr) {
            counts->release_weak();
        }
    }

 private:
    Interface* target = nullptr;
    count_block* counts = nullptr;
};

}  // namespace vesko
