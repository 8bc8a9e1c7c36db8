// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// libunwind's stacks of another process, with its cache of all threads. It leaves stopping to us.

#include <libunwind-ptrace.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include "process_target.h"

namespace {

class Libunwind : public Looker {
 public:
    explicit Libunwind(pid_t) : space(unw_create_addr_space(&_UPT_accessors, 0)) {
        unw_set_caching_policy(space, UNW_CACHE_GLOBAL);
    }
    ~Libunwind() override { unw_destroy_addr_space(space); }

    std::size_t look(const std::vector<pid_t>& threads) override {
        std::size_t count = 0;
        for (const pid_t thread : threads) {
            if (ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == 0) {
                ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
                waitpid(thread, nullptr, __WALL);
                count += walk(thread);
                ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
            }
        }
        return count;
    }

 private:
    std::size_t walk(pid_t thread) const {
        std::size_t count = 0;
        void* const access = _UPT_create(thread);
        unw_cursor_t cursor;
        if (unw_init_remote(&cursor, space, access) == 0) {
            do {
                ++count;
            } while (unw_step(&cursor) > 0);
        }
        _UPT_destroy(access);
        return count;
    }

    unw_addr_space_t space;
};

}  // namespace

std::unique_ptr<Looker> makeLibunwind(pid_t process) {
    return std::make_unique<Libunwind>(process);
}
