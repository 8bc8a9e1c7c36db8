// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <array>
#include <charconv>
#include <string>
#include <vector>

#include <ThreadUtilities/Threads.h>

#include "platform/current.h"
#include "threads/thread_list.h"

namespace ThreadIds {

unsigned int getMainThreadId() {
    return ThreadUtilities::mainThread();
}

unsigned int getThreadId() {
    return ThreadUtilities::platform::currentThreadId();
}

std::vector<unsigned int> getThreadIds() {
    return ThreadUtilities::ownThreads();
}

std::vector<unsigned int> getThreadIds(unsigned int processId) {
    return ThreadUtilities::enumerateProcessThreads(processId);
}

}  // namespace ThreadIds

namespace ThreadUtilities {
namespace {

std::string digits(unsigned int number, int base) {
    std::array<char, 10> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number, base).ptr;
    return std::string(text.data(), end);
}

}  // namespace

unsigned int getMainThreadId() {
    return ThreadIds::getMainThreadId();
}

unsigned int getThreadId() {
    return ThreadIds::getThreadId();
}

std::vector<unsigned int> getThreadIds() {
    return ThreadIds::getThreadIds();
}

std::vector<unsigned int> getThreadIds(unsigned int processId) {
    return ThreadIds::getThreadIds(processId);
}

unsigned int getPrimaryThreadId(const unsigned int& threadId) {
    return threadId;
}

unsigned int getPrimaryThreadId() {
    return getThreadId();
}

std::string getThreadIdString(const unsigned int& threadId) {
    return digits(threadId, 10);
}

std::string getThreadIdString() {
    return getThreadIdString(getThreadId());
}

std::string getThreadIdHexString(const unsigned int& threadId) {
    return "0x" + digits(threadId, 16);
}

std::string getThreadIdHexString() {
    return getThreadIdHexString(getThreadId());
}

}  // namespace ThreadUtilities
