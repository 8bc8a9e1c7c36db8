// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/process_records.h"

#include <memory>
#include <new>

#include "foundation/checked_bytes.h"

namespace ThreadUtilities::platform {
namespace {

constexpr std::uint32_t systemProcessInformation = 5;
constexpr auto statusInfoLengthMismatch = static_cast<std::int32_t>(0xC0000004);
constexpr std::uint32_t firstBufferSize = 1 << 20;

// A process record begins with NextEntryOffset and NumberOfThreads; its array of thread records
// follows it.
constexpr std::size_t uniqueProcessIdOffset = 80;
constexpr std::size_t threadArrayOffset = 256;
constexpr std::size_t threadRecordSize = 80;
constexpr std::size_t uniqueThreadOffset = 48;

std::vector<unsigned int> threadIds(ByteCursor processRecord, std::uint32_t count) {
    std::vector<unsigned int> ids;
    processRecord.skip(threadArrayOffset);
    for (std::uint32_t index = 0; index < count; ++index) {
        ByteCursor thread = processRecord.sub(threadRecordSize);
        thread.skip(uniqueThreadOffset);
        const auto id = thread.read<std::uint64_t>();
        if (!thread.ok()) {
            break;
        }
        ids.push_back(static_cast<unsigned int>(id));
    }
    return ids;
}

/// The bytes of an answer, or nothing; freed before the next, larger ones are asked for.
struct Answer {
    explicit Answer(std::uint32_t length)
        : bytes(new(std::nothrow) std::uint8_t[length]), size(length) {}

    std::unique_ptr<std::uint8_t[]> bytes;
    std::uint32_t size;
};

}  // namespace

// Every step goes at least one byte forward, because an offset is unsigned and 0 ends the chain.
std::vector<unsigned int> threadsFromProcessRecords(const void* records, std::size_t size,
                                                    unsigned int processId) {
    ByteCursor rest(records, size);
    for (;;) {
        ByteCursor record = rest;
        const auto nextEntryOffset = record.read<std::uint32_t>();
        const auto numberOfThreads = record.read<std::uint32_t>();
        record.seek(rest.position() + uniqueProcessIdOffset);
        const auto uniqueProcessId = record.read<std::uint64_t>();
        if (!record.ok()) {
            return {};
        }
        if (uniqueProcessId == processId) {
            return threadIds(rest, numberOfThreads);
        }
        if (nextEntryOffset == 0) {
            return {};
        }
        rest.skip(nextEntryOffset);
    }
}

std::vector<unsigned int> enumerateThreadsFromSystemInformation(
    unsigned int processId, const SystemInformationQuery& query) {
    std::uint32_t needed = 0;
    Answer answer(firstBufferSize);
    std::int32_t status = statusInfoLengthMismatch;
    while (answer.bytes != nullptr) {
        status = query(systemProcessInformation, answer.bytes.get(), answer.size, &needed);
        if (status != statusInfoLengthMismatch) {
            break;
        }
        answer.bytes.reset();
        answer = Answer(needed);
    }
    if (answer.bytes == nullptr || status < 0) {
        return {};
    }
    return threadsFromProcessRecords(answer.bytes.get(), answer.size, processId);
}

}  // namespace ThreadUtilities::platform
