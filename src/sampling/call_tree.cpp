// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sampling/call_tree.h"

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/Threads.h>

#include <ios>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "platform/text.h"
#include "stack/frame_details.h"

namespace ThreadUtilities {
namespace {

constexpr unsigned long long rootDepth = 0;
constexpr unsigned long long threadDepth = 1;

/// Writes one line and flushes it. As a block of characters: the stream's own formatting (base,
/// width, digit grouping) says nothing here.
void writeLine(std::ostream& os, std::string line) {
    line += '\n';
    os.write(line.data(), static_cast<std::streamsize>(line.size()));
    os.flush();
}

void appendTail(std::string& line, unsigned long long count, std::string_view text) {
    line += '[';
    line += std::to_string(count);
    line += "]: ";
    line += text;
}

/// The child with this key, made if it is missing. Caller holds the node's mutex.
const std::shared_ptr<Tree>& childOf(Tree& node, unsigned long long key) {
    const auto known = node.children.find(key);
    if (known != node.children.end()) {
        return known->second;
    }
    auto child = std::make_shared<Tree>(node.processId, key);
    return node.children.emplace(key, std::move(child)).first->second;
}

bool hasThreads(unsigned int processId) {
    return processId != 0 ? !getThreadIds(processId).empty() : !getThreadIds().empty();
}

/// Precondition: the caller holds the root's mutex.
void dumpThreads(const Tree& root, std::ostream& os) {
    if (!hasThreads(root.processId)) {
        return;
    }
    const auto mainThread = root.children.find(getMainThreadId());
    if (mainThread != root.children.end()) {
        mainThread->second->dump(os, threadDepth);
    }
    for (auto child = root.children.begin(); child != root.children.end(); ++child) {
        if (child != mainThread) {
            child->second->dump(os, threadDepth);
        }
    }
}

}  // namespace

Tree::Tree(unsigned int nodeProcessId, unsigned long long nodeAddress, unsigned long long nodeCount)
    : address(nodeAddress), count(nodeCount), processId(nodeProcessId) {}

Tree::~Tree() = default;

// Only one node is locked at a time. Below the first one, `held` keeps the node alive without its
// parent's lock: others may clear the children meanwhile.
void addSamples(Tree& top, const Tree::FrameIterator& first, const Tree::FrameIterator& last,
                unsigned long long times) {
    std::shared_ptr<Tree> held;
    Tree* node = &top;
    for (Tree::FrameIterator frame = first;; ++frame) {
        std::shared_ptr<Tree> child;
        {
            const std::lock_guard lock(node->mutex);
            node->count += times;
            if (frame == last) {
                return;
            }
            child = childOf(*node, *frame);
        }
        held = std::move(child);
        node = held.get();
    }
}

void Tree::add(const FrameIterator& first, const FrameIterator& last) {
    addSamples(*this, first, last, 1);
}

void Tree::add(unsigned long long key, const FrameIterator& first, const FrameIterator& last) {
    findOrCreateChild(key)->add(first, last);
}

std::shared_ptr<Tree> Tree::findOrCreateChild(unsigned long long key) {
    const std::lock_guard lock(mutex);
    return childOf(*this, key);
}

void Tree::dump(std::ostream& os, unsigned long long depth) {
    const std::lock_guard lock(mutex);
    if (depth == rootDepth) {
        dumpThreads(*this, os);
        return;
    }
    std::string line;
    if (depth == threadDepth) {
        line = "Thread ";
        line += std::to_string(address);
        line += ' ';
        appendTail(line, count, getThreadName(static_cast<unsigned int>(address)));
    } else {
        line.assign(depth, ' ');
        appendTail(line, count, wideToUtf8(describeFrame(processId, address)));
    }
    writeLine(os, std::move(line));
    for (const auto& [key, child] : children) {
        child->dump(os, depth + 1);
    }
    if (depth == threadDepth) {
        writeLine(os, {});
    }
}

}  // namespace ThreadUtilities
