// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The sampling profiler: stacks taken at a set interval, merged into one call tree per thread
/// and printed as indented text.
///
/// The three sampling functions block the calling thread for the given duration, and then for the
/// captures under way and the making of the report; they may be called from any thread, several at
/// a time. They start their own worker threads and join them before
/// they return or throw. None is async-signal-safe. The reports are the same in every locale.

#include <chrono>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include <ThreadUtilities/Export.h>

namespace ThreadUtilities {

/// One node of a call tree: the root, below it one node for each sampled thread, below each
/// thread its frames from the outermost inward.
///
/// Any number of threads may add to one tree at once. `dump` wants all of them to have ended.
struct THREAD_UTILITIES_API Tree {
    /// Walks one stack from its outermost frame to its innermost. A stack is stored innermost
    /// first, therefore the reverse iterator.
    using FrameIterator = std::reverse_iterator<std::vector<unsigned long long>::const_iterator>;

    explicit Tree(unsigned int processId = 0, unsigned long long address = 0,
                  unsigned long long count = 0);
    ~Tree();

    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    /// Counts one sample on this node and on every node along its frames, creating those that
    /// are missing. The nodes below this one are held meanwhile, whoever takes them off the tree.
    void add(const FrameIterator& first, const FrameIterator& last);

    /// Adds one sample below the child `key` (a thread id, at the root); this node is not counted.
    void add(unsigned long long key, const FrameIterator& first, const FrameIterator& last);

    /// The child with this key, made if it is missing.
    std::shared_ptr<Tree> findOrCreateChild(unsigned long long key);

    /// Prints this node and all below it: `depth` 0 for a root, 1 for a thread node, more for
    /// frames. The main thread comes first. A root whose process has no threads prints nothing.
    void dump(std::ostream& os, unsigned long long depth);

    /// Key within the parent: 0 for the root, a thread id, or a return address.
    unsigned long long address;
    /// Samples that passed through this node.
    unsigned long long count;
    /// Children by their `address`.
    std::unordered_map<unsigned long long, std::shared_ptr<Tree>> children;
    /// Guards `count` and `children` of this node alone. Parent before child.
    std::mutex mutex;
    /// The process that the addresses belong to; 0 means the calling one.
    unsigned int processId;
};

/// Captures one stack of a thread of any process.
///
/// Called with process id, thread id, the caller's frame vector and the most frames wanted (256).
/// Stores return addresses innermost first in the first n entries of the vector, growing it where
/// it is shorter, and returns n; 0 when nothing was captured. Runs on several threads at once.
/// What it returns beyond the vector's size or the limit is not read. An exception ends the
/// sampling run: all workers are joined, then it reaches the caller of the sampling function. A
/// callback that ends its thread (`pthread_exit`, a cancellation) ends the run too; the caller gets
/// the report of what was sampled by then.
using StackCaptureCallback = std::function<unsigned long long(
    unsigned int, const unsigned int&, std::vector<unsigned long long>&, unsigned long long)>;

/// Samples every thread of the calling process for `duration`, each at most once per `interval`,
/// and returns the report. The sampler's own workers are left out; the calling thread is not.
/// A duration of zero or less gives an empty profile.
///
/// While no thread is due the workers sleep: one of them wakes when the next thread is due, or a
/// thread starts; where starts go unnoticed, it looks for new threads every millisecond. A
/// thread is sampled some ten microseconds after it is due, and its interval counts from then, so
/// a short interval gives a few samples less than the duration divided by it. With an interval of
/// 0 the workers never sleep.
///
/// \code
/// using namespace std::chrono_literals;
/// std::cout << ThreadUtilities::sampleAllThreads(10s, 5ms);
/// \endcode
THREAD_UTILITIES_API std::string sampleAllThreads(const std::chrono::seconds& duration,
                                                  const std::chrono::milliseconds& interval);

/// Samples one thread of any process through `capture`, which is also called once before the first
/// sample. Empty when `capture` has no target. May return up to one interval later than asked for.
THREAD_UTILITIES_API std::string sampleProcessThread(const unsigned int& processId,
                                                     const unsigned int& threadId,
                                                     const std::chrono::seconds& duration,
                                                     const std::chrono::milliseconds& interval,
                                                     StackCaptureCallback capture);

/// Samples one focus thread of any process at one interval and its other threads at another, all
/// through `capture`. The other threads are sampled where the machine has at least 8 hardware
/// threads. Empty when `capture` has no target.
THREAD_UTILITIES_API std::string sampleProcessAllThread(
    const unsigned int& processId, const unsigned int& threadId,
    const std::chrono::seconds& duration, const std::chrono::milliseconds& focusInterval,
    const std::chrono::milliseconds& listInterval, StackCaptureCallback capture);

}  // namespace ThreadUtilities
