// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/task_files.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "linux/descriptor.h"
#include "linux/kernel_calls.h"
#include "linux/proc_file.h"
#include "linux/task_texts.h"
#include "platform/run_witness.h"

namespace ThreadUtilities::process {

using platform::argument;
using platform::Descriptor;
using platform::kernelCall;

namespace {

constexpr int filesPerThread = 2;

// A quarter of what the host may open, for it opens files of its own; and no more than for the
// threads that one usually looks at.
int mostDescriptors() {
    constexpr rlim_t most = 2048;
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0
               ? static_cast<int>(std::min(limit.rlim_cur / 4, most))
               : 0;
}

// An ended thread's file says so, or is empty.
bool isMissing(long error) {
    return error == -ENOENT || error == -ESRCH || error == 0;
}

}  // namespace

ProcessFolder::ProcessFolder(unsigned int processId)
    : folder(platform::openFile(platform::ProcPath("/proc/", processId, "").text(),
                                O_PATH | O_DIRECTORY)),
      pages(open("pagemap")),
      mostLent(mostDescriptors()) {}

int ProcessFolder::open(const std::string& path) const noexcept {
    return static_cast<int>(kernelCall(SYS_openat, folder.get(), argument(path.c_str()),
                                       O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

std::string ProcessFolder::read(const std::string& path, std::size_t most) const {
    const Descriptor file(open(path));
    std::string text(file.isOpen() ? most : 0, '\0');
    const long got =
        kernelCall(SYS_pread64, file.get(), argument(text.data()), static_cast<long>(text.size()));
    text.resize(static_cast<std::size_t>(std::max(got, 0L)));
    return text;
}

std::optional<unsigned int> ProcessFolder::owner() const noexcept {
    struct stat status{};
    const long error =
        kernelCall(SYS_newfstatat, folder.get(), argument("status"), argument(&status), 0);
    return error == 0 ? std::optional(status.st_uid) : std::nullopt;
}

bool ProcessFolder::borrowDescriptors(int count) noexcept {
    if (lent.fetch_add(count) + count <= mostLent) {
        return true;
    }
    returnDescriptors(count);
    return false;
}

TaskFiles::TaskFiles(std::shared_ptr<ProcessFolder> processFolder, unsigned int threadId)
    : process(std::move(processFolder)),
      folder("task/" + std::to_string(threadId) + '/'),
      keepsOpen(process->borrowDescriptors(filesPerThread)) {
    if (keepsOpen) {
        runsFile = Descriptor(process->open(folder + "schedstat"));
        callFile = Descriptor(process->open(folder + "syscall"));
    }
}

TaskFiles::~TaskFiles() {
    if (keepsOpen) {
        process->returnDescriptors(filesPerThread);
    }
}

long TaskFiles::readFile(const Descriptor& kept, std::string_view name, char* out,
                         std::size_t size) const noexcept {
    const auto read = [&](int file) {
        return kernelCall(SYS_pread64, file, argument(out), static_cast<long>(size));
    };
    if (kept.isOpen()) {
        return read(kept.get());
    }
    std::array<char, 64> path;
    *std::copy(name.begin(), name.end(), std::copy(folder.begin(), folder.end(), path.begin())) = 0;
    const Descriptor file(process->open(path.data()));
    return file.isOpen() ? read(file.get()) : file.get();
}

std::optional<platform::ThreadRuns> TaskFiles::runs() const noexcept {
    std::array<char, 80> buffer;
    const long got = readFile(runsFile, "schedstat", buffer.data(), buffer.size());
    return got > 0 ? platform::parseRunsText({buffer.data(), static_cast<std::size_t>(got)})
                   : std::nullopt;
}

Glance TaskFiles::glance() const noexcept {
    std::array<char, 256> buffer;
    const long got = readFile(callFile, "syscall", buffer.data(), buffer.size());
    Glance glance;
    if (got <= 0) {
        glance.sight = isMissing(got) ? Glance::Sight::Missing : Glance::Sight::Denied;
        return glance;
    }
    const auto at = platform::parseCallText({buffer.data(), static_cast<std::size_t>(got)});
    glance.sight = at ? Glance::Sight::OffProcessor : Glance::Sight::OnProcessor;
    glance.at = at.value_or(platform::BlockedAt());
    return glance;
}

char TaskFiles::state() const {
    // "<id> (<name>) <state> ...", where the name may be anything.
    const std::string text = process->read(folder + "stat", 256);
    const std::size_t end = text.rfind(") ");
    return end != std::string::npos && end + 2 < text.size() ? text[end + 2] : '\0';
}

unsigned int TaskFiles::tracer() const {
    const auto tracing = static_cast<unsigned int>(
        numberInLines(process->read(folder + "status"), "TracerPid:").value_or(0));
    // The kernel names the thread that traces.
    return tracing != 0 ? static_cast<unsigned int>(
                              numberInLines(ProcessFolder(tracing).read("status"), "Tgid:")
                                  .value_or(tracing))
                        : 0;
}

std::optional<unsigned long> numberInLines(std::string_view text, std::string_view name) {
    while (!text.empty()) {
        unsigned long number = 0;
        if (platform::parseField(text, name, 10, number)) {
            return number;
        }
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    }
    return std::nullopt;
}

}  // namespace ThreadUtilities::process
