#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/Threads.h>

#include <string>
#include <string_view>
#include <utility>

#include "foundation/text_conversion.h"
#include "stack/frame_details.h"

namespace ThreadUtilities {
namespace {

constexpr unsigned long long rootDepth = 0;
constexpr unsigned long long threadDepth = 1;

/// Writes one line and flushes it. As a block of characters: the stream's own formatting (base,
/// width, digit grouping) says nothing here.
void writeLine(std::ostream& os, const std::string& line) {
    os.write(line.data(), static_cast<std::streamsize>(line.size()));
    os.put('\n');
    os.flush();
}

std::string lineTail(unsigned long long count, std::string_view text) {
    return "[" + std::to_string(count) + "]: " + std::string(text);
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

void Tree::add(const FrameIterator& first, const FrameIterator& last) {
    // No lock is held on the way down: a node's shared pointer keeps it alive, and nodes are never
    // taken out.
    Tree* node = this;
    std::shared_ptr<Tree> child;
    for (FrameIterator frame = first;; ++frame) {
        {
            const std::lock_guard lock(node->mutex);
            ++node->count;
        }
        if (frame == last) {
            return;
        }
        child = node->findOrCreateChild(*frame);
        node = child.get();
    }
}

void Tree::add(unsigned long long key, const FrameIterator& first, const FrameIterator& last) {
    findOrCreateChild(key)->add(first, last);
}

std::shared_ptr<Tree> Tree::findOrCreateChild(unsigned long long key) {
    const std::lock_guard lock(mutex);
    const auto known = children.find(key);
    if (known != children.end()) {
        return known->second;
    }
    auto child = std::make_shared<Tree>(processId, key);
    children.emplace(key, child);
    return child;
}

void Tree::dump(std::ostream& os, unsigned long long depth) {
    const std::lock_guard lock(mutex);
    if (depth == rootDepth) {
        dumpThreads(*this, os);
        return;
    }
    if (depth == threadDepth) {
        const std::string name = getThreadName(static_cast<unsigned int>(address));
        writeLine(os, "Thread " + std::to_string(address) + " " + lineTail(count, name));
    } else {
        const std::string frame = wideToUtf8(describeFrame(processId, address));
        writeLine(os, std::string(depth, ' ') + lineTail(count, frame));
    }
    for (const auto& [key, child] : children) {
        child->dump(os, depth + 1);
    }
    if (depth == threadDepth) {
        writeLine(os, {});
    }
}

}  // namespace ThreadUtilities
