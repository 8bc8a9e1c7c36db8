// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/refusal.h"

#include <ThreadUtilities/ProcessCapture.h>
#include <pwd.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "linux/kernel_calls.h"
#include "linux/proc_file.h"
#include "linux/task_texts.h"
#include "process/task_files.h"

namespace ThreadUtilities::process {

using platform::argument;
using platform::kernelCall;

namespace {

[[noreturn]] void refuse(std::initializer_list<std::string_view> parts) {
    std::string why;
    for (const std::string_view part : parts) {
        why += part;
    }
    throw ProcessCaptureError(why);
}

std::string withoutLineEnds(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::erase_if(text, [](char character) { return static_cast<unsigned char>(character) < ' '; });
    return text;
}

/// "process 17 (name)"
std::string processWithName(unsigned int processId, const ProcessFolder& folder) {
    const std::string name = withoutLineEnds(folder.read("comm", 64));
    return "process " + std::to_string(processId) + (name.empty() ? "" : " (" + name + ')');
}

std::string userWithName(unsigned long userId) {
    std::array<char, 1024> room;
    passwd entry{};
    passwd* found = nullptr;
    const std::string number = std::to_string(userId);
    if (getpwuid_r(static_cast<uid_t>(userId), &entry, room.data(), room.size(), &found) != 0 ||
        found == nullptr) {
        return "user " + number;
    }
    return "user " + number + " (" + entry.pw_name + ')';
}

void requireOwnNumbers() {
    std::error_code error;
    const std::string self = std::filesystem::read_symlink("/proc/self", error).string();
    if (error) {
        refuse({"/proc does not show this process: mount it (mount -t proc proc /proc)"});
    }
    if (self != std::to_string(platform::kernelProcessId())) {
        refuse({"/proc is that of another pid namespace, where this process is number ", self,
                ": mount the own one, or look from that namespace"});
    }
}

[[noreturn]] void refuseMissing(unsigned int processId) {
    const std::string process = "process " + std::to_string(processId);
    const bool exists = processId != 0 && processId <= 0x7fffffff &&
                        kernelCall(SYS_kill, static_cast<long>(processId), 0) != -ESRCH;
    if (exists) {
        refuse({process,
                " is hidden from this user: /proc is mounted with hidepid; look as its owner or as "
                "root, or remount /proc with gid= of a group that may see all"});
    }
    refuse({"there is no ", process});
}

char stateLetter(std::string_view status) {
    constexpr std::string_view name = "\nState:\t";
    const std::size_t position = status.find(name);
    return position < status.size() - name.size() ? status[position + name.size()] : '\0';
}

// The ninth field of "stat", behind the name, which may be anything.
bool isKernelThread(const ProcessFolder& folder) {
    constexpr unsigned long isKernels = 0x00200000;  // PF_KTHREAD
    const std::string text = folder.read("stat", 512);
    std::size_t position = text.rfind(") ");
    for (int field = 2; field < 9 && position != std::string::npos; ++field) {
        position = text.find(' ', position + 1);
    }
    return position != std::string::npos &&
           (std::strtoul(text.c_str() + position, nullptr, 10) & isKernels) != 0;
}

void requireProcess(unsigned int processId, const ProcessFolder& folder, std::string_view status) {
    const std::string process = processWithName(processId, folder);
    const unsigned long leader = numberInLines(status, "Tgid:").value_or(processId);
    if (leader != processId) {
        const auto leaderId = static_cast<unsigned int>(leader);
        refuse({std::to_string(processId), " is a thread of ",
                processWithName(leaderId, ProcessFolder(leaderId)), ", not a process"});
    }
    if (processId == static_cast<unsigned int>(platform::kernelProcessId())) {
        refuse({process, " is this one, which cannot look at itself from outside"});
    }
    if (isKernelThread(folder)) {
        refuse({process, " is a thread of the kernel, which has no stack of a program"});
    }
    const char state = stateLetter(status);
    const bool hasThreads = numberInLines(status, "Threads:").value_or(0) > 1;
    if (state == 'X' || (state == 'Z' && !hasThreads)) {
        refuse({process, " has ended; its parent, process ",
                std::to_string(numberInLines(status, "PPid:").value_or(0)),
                ", has not asked for its result yet"});
    }
}

std::string yamaHint() {
    const std::string text =
        withoutLineEnds(ProcessFolder(static_cast<unsigned int>(platform::kernelProcessId()))
                            .read("../sys/kernel/yama/ptrace_scope", 16));
    if (text.empty() || text == "0") {
        return {};
    }
    const std::string scope = "kernel.yama.ptrace_scope is " + text;
    if (text == "1") {
        return scope +
               ", so that only its parents and root may look: sysctl kernel.yama.ptrace_scope=0, "
               "or look as root";
    }
    if (text == "2") {
        return scope + ", so that CAP_SYS_PTRACE is needed: look as root";
    }
    return scope + ", which lets nobody look until the machine is started anew";
}

bool hasCapability(std::string_view ownStatus) {
    constexpr int mayTrace = 19;  // CAP_SYS_PTRACE
    std::uint64_t effective = 0;
    const std::size_t position = ownStatus.find("\nCapEff:");
    return position != std::string_view::npos &&
           platform::parseField(ownStatus.substr(position + 1), "CapEff:", 16, effective) &&
           (effective >> mayTrace & 1) != 0;
}

std::uint64_t permittedCapabilities(std::string_view status) {
    std::uint64_t permitted = 0;
    const std::size_t position = status.find("\nCapPrm:");
    if (position != std::string_view::npos) {
        platform::parseField(status.substr(position + 1), "CapPrm:", 16, permitted);
    }
    return permitted;
}

/// The four ids, real to file system, behind `name`, each once.
std::vector<unsigned long> idsInLines(std::string_view status, std::string_view name) {
    std::vector<unsigned long> ids;
    std::size_t position = status.find(name);
    if (position == std::string_view::npos) {
        return ids;
    }
    position += name.size();
    for (int count = 0; count < 4; ++count) {
        unsigned long id = 0;
        platform::parseField(status.substr(position), "", 10, id);
        if (ids.empty() || ids.back() != id) {
            ids.push_back(id);
        }
        position = std::min(status.find('\t', position + 1), status.size());
    }
    return ids;
}

// In the order in which the kernel asks. A process whose folder belongs to root although the
// process is the caller's own is one that may not be dumped.
std::string whyDenied(const ProcessFolder& folder, std::string_view status) {
    const ProcessFolder self(static_cast<unsigned int>(platform::kernelProcessId()));
    const std::string ownStatus = self.read("status");
    if (hasCapability(ownStatus)) {
        const std::string yama = yamaHint();
        return yama.starts_with("kernel.yama.ptrace_scope is 3")
                   ? yama
                   : "although CAP_SYS_PTRACE is there: it belongs to another user namespace or "
                     "container, or a security module protects it; look from outside of the "
                     "container, as the host's root";
    }
    const auto users = idsInLines(status, "\nUid:\t");
    const auto groups = idsInLines(status, "\nGid:\t");
    const unsigned long ownUser = geteuid();
    const unsigned long ownGroup = getegid();
    if (users != std::vector{ownUser}) {
        std::string owner;
        for (const unsigned long user : users) {
            owner += (owner.empty() ? "" : ", ") + userWithName(user);
        }
        return "it belongs to " + owner + ", and this is " + userWithName(ownUser) +
               ": look as that user or as root (CAP_SYS_PTRACE is missing)";
    }
    if (groups != std::vector{ownGroup}) {
        return "its group is another one than this process's: look as root (CAP_SYS_PTRACE is "
               "missing)";
    }
    if (folder.owner() != ownUser) {
        return "it is not dumpable, because its program may not be read, or changed its user, or "
               "called prctl(PR_SET_DUMPABLE, 0): look as root (CAP_SYS_PTRACE is missing)";
    }
    if ((permittedCapabilities(status) & ~permittedCapabilities(ownStatus)) != 0) {
        return "it has capabilities that this process lacks: look as root (CAP_SYS_PTRACE is "
               "missing)";
    }
    const std::string yama = yamaHint();
    return !yama.empty() ? yama
                         : "it belongs to another user namespace or container, or a security "
                           "module protects it: look as root, from outside of the container";
}

void requireAccess(unsigned int processId, const ProcessFolder& folder, std::string_view status) {
    unsigned char here = 0;
    const iovec to[] = {{&here, 1}};
    const iovec from[] = {{reinterpret_cast<void*>(platform::memoryPageSize), 1}};
    const long copied = kernelCall(SYS_process_vm_readv, static_cast<long>(processId), argument(to),
                                   1, argument(from), 1, 0);
    if (copied == -ENOSYS ||
        ((copied == -EPERM || copied == -EACCES) && !platform::canCopyOwnMemory())) {
        refuse(
            {"this container lets nobody read another process's memory (process_vm_readv): start "
             "it with --cap-add SYS_PTRACE, or look from outside"});
    }
    if (copied == -EPERM || copied == -EACCES) {
        refuse({"not permitted to look at ", processWithName(processId, folder), ": ",
                whyDenied(folder, status)});
    }
}

void requireKnownProgram(unsigned int processId, const ProcessFolder& folder) {
    constexpr std::string_view elf64("\177ELF\002", 5);
    const std::string header = folder.read("exe", elf64.size());
    if (header.size() == elf64.size() && header != elf64) {
        refuse({processWithName(processId, folder), " is a 32-bit program"});
    }
}

// Asked of the calling process, which has run; another one may be about to do so for the first
// time.
void requireCounts() {
    const ProcessFolder self(static_cast<unsigned int>(platform::kernelProcessId()));
    if (!platform::parseRunsText(self.read("schedstat", 128))) {
        refuse({"this kernel does not count the runs of threads (CONFIG_SCHED_INFO)"});
    }
}

}  // namespace

void requireLookable(unsigned int processId, const ProcessFolder& folder) {
    requireOwnNumbers();
    const std::string status = folder.read("status");
    if (!folder.isOpen() || status.empty()) {
        refuseMissing(processId);
    }
    requireProcess(processId, folder, status);
    requireAccess(processId, folder, status);
    requireKnownProgram(processId, folder);
    requireCounts();
}

}  // namespace ThreadUtilities::process
