// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the kernel writes about the threads of one other process, below its folder in /proc.

#include <ThreadUtilities/ProcessCapture.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "linux/descriptor.h"
#include "linux/task_texts.h"

namespace ThreadUtilities::process {

/// The folder of one process, kept open: when the process has ended, everything below it is missing
/// for good, whoever gets its id. It also lends the descriptors that files of threads may be kept
/// open in, so that they never take the host's last ones.
class ProcessFolder {
 public:
    explicit ProcessFolder(unsigned int processId);

    /// A descriptor, or a negative error number. `path` is relative to the folder.
    int open(const std::string& path) const noexcept;
    /// The file's text, or as much of it as fits; empty where it cannot be read.
    std::string read(const std::string& path, std::size_t most = 4096) const;
    bool isOpen() const noexcept { return folder.isOpen(); }
    /// The user id that its files belong to; none once the process has ended.
    std::optional<unsigned int> owner() const noexcept;
    /// The descriptor of the file "pagemap", or negative.
    int pageMap() const noexcept { return pages.get(); }

    bool borrowDescriptors(int count) noexcept;
    void returnDescriptors(int count) noexcept { lent.fetch_sub(count); }

 private:
    platform::Descriptor folder;
    platform::Descriptor pages;
    std::atomic<int> lent{0};
    int mostLent;
};

/// One glance at a thread.
struct Glance {
    enum class Sight {
        OffProcessor,
        OnProcessor,  ///< or waiting for one
        Missing,      ///< there is no such thread in the process (any more)
        Denied,       ///< the system does not tell
    };
    Sight sight = Sight::Missing;
    platform::BlockedAt at;  ///< with `OffProcessor`
};

/// The files of one thread.
class TaskFiles {
 public:
    TaskFiles(std::shared_ptr<ProcessFolder> processFolder, unsigned int threadId);
    ~TaskFiles();
    TaskFiles(const TaskFiles&) = delete;
    TaskFiles& operator=(const TaskFiles&) = delete;

    /// None when the thread has ended, also when another has taken its id meanwhile, or the system
    /// does not tell.
    std::optional<platform::ThreadRuns> runs() const noexcept;
    Glance glance() const noexcept;
    /// The letter in the file "stat"; 0 where unknown. Dearer than all others together.
    char state() const;
    /// The process id of the debugger that has the thread; 0 for none.
    unsigned int tracer() const;
    int pageMap() const noexcept { return process->pageMap(); }

 private:
    long readFile(const platform::Descriptor& kept, std::string_view name, char* out,
                  std::size_t size) const noexcept;

    std::shared_ptr<ProcessFolder> process;
    std::string folder;
    bool keepsOpen;
    platform::Descriptor runsFile;
    platform::Descriptor callFile;
};

/// The number behind `name` in a text of lines like those of the file "status"; none where it is
/// missing.
std::optional<unsigned long> numberInLines(std::string_view text, std::string_view name);

}  // namespace ThreadUtilities::process
