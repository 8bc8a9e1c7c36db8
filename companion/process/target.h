// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A running process as /proc and its memory show it.

#include <ThreadUtilities/ProcessCapture.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ThreadUtilities::companion {

struct TargetThread {
    unsigned int id = 0;
    /// What the process itself calls it: another number where it has a pid namespace of its own.
    unsigned int idInside = 0;
    std::string name;
    /// Is in the kernel's list only because nobody has taken note of its end.
    bool hasEnded = false;
    /// In the kernel's ticks since its start. An id may be used again, a time is not.
    std::uint64_t startTime = 0;

    bool operator==(const TargetThread&) const = default;
};

/// The whole of a file of /proc; empty where it cannot be read.
std::string procText(const std::filesystem::path& file);

/// Where a link of /proc leads; empty where it cannot be read.
std::string procLink(const std::filesystem::path& link);

/// What its program is called; empty where there is no such process.
std::string processName(unsigned int processId);

class Target {
 public:
    explicit Target(ProcessCapture processCapture);

    unsigned int processId() const { return capture.processId(); }
    const ProcessCapture& looks() const { return capture; }
    std::filesystem::path procFolder() const;

    /// Takes the list of threads anew. False when there are none: the process has ended.
    bool listThreads();
    const std::vector<TargetThread>& threads() const { return list; }
    /// Null where there is none that lives.
    const TargetThread* thread(unsigned int id) const;
    const TargetThread* threadInside(unsigned int idInside) const;

    /// The name, with the id where several threads have it.
    std::string label(unsigned int threadId) const;

    /// Whether ids and clocks in its memory mean the same as those of this program.
    bool sharesIds() const { return hasOurIds; }
    bool sharesClocks() const { return hasOurClocks; }

    template <typename Value>
    bool read(std::uint64_t address, Value& value) const {
        return capture.readMemory(address, &value, sizeof(value)) == sizeof(value);
    }
    /// As many as can be read, at most `most`.
    template <typename Value>
    std::vector<Value> readArray(std::uint64_t address, std::size_t most) const {
        std::vector<Value> values(most);
        values.resize(capture.readMemory(address, values.data(), most * sizeof(Value)) /
                      sizeof(Value));
        return values;
    }

 private:
    ProcessCapture capture;
    bool hasOurIds = true;
    bool hasOurClocks = true;
    std::vector<TargetThread> list;
    std::unordered_map<unsigned int, std::size_t> byId;
    std::unordered_map<unsigned int, std::size_t> byIdInside;
    std::map<std::string, std::size_t, std::less<>> nameCounts;
};

}  // namespace ThreadUtilities::companion
