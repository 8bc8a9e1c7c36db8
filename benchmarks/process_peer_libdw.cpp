// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// libdw's stacks of another process, as its eu-stack takes them. The modules are read once.

#include <dwarf.h>
#include <elfutils/libdwfl.h>

#include "process_target.h"

namespace {

int countFrame(Dwfl_Frame* frame, void* count) {
    Dwarf_Addr address = 0;
    bool isActivation = false;
    if (dwfl_frame_pc(frame, &address, &isActivation)) {
        ++*static_cast<std::size_t*>(count);
    }
    return DWARF_CB_OK;
}

class Libdw : public Looker {
 public:
    explicit Libdw(pid_t process) : session(dwfl_begin(&callbacks)) {
        dwfl_linux_proc_report(session, process);
        dwfl_report_end(session, nullptr, nullptr);
        dwfl_linux_proc_attach(session, process, false);
    }
    ~Libdw() override { dwfl_end(session); }

    std::size_t look(const std::vector<pid_t>& threads) override {
        std::size_t count = 0;
        for (const pid_t thread : threads) {
            dwfl_getthread_frames(session, thread, countFrame, &count);
        }
        return count;
    }

 private:
    static inline char* noPath = nullptr;
    static inline const Dwfl_Callbacks callbacks{dwfl_linux_proc_find_elf,
                                                 dwfl_standard_find_debuginfo, nullptr, &noPath};
    Dwfl* session;
};

}  // namespace

std::unique_ptr<Looker> makeLibdw(pid_t process) {
    return std::make_unique<Libdw>(process);
}
