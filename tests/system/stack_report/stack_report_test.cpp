#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <latch>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using ThreadUtilities::getAllThreadStackTrace;
using ThreadUtilities::getStackTrace;
using ThreadUtilities::getThreadId;
using ThreadUtilities::getThreadIds;

struct Line {
    std::string name;
    std::string trace;
};

/// The lines of an all-threads report by thread id. Every line has to have its form.
std::map<unsigned int, Line> linesOf(const std::string& report) {
    std::map<unsigned int, Line> lines;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) {
        const std::size_t idEnd = line.find("][");
        const std::size_t nameEnd = line.find(']', idEnd + 2);
        EXPECT_EQ(line.front(), '[');
        if (nameEnd == std::string::npos) {
            ADD_FAILURE() << line;
            continue;
        }
        const auto id = static_cast<unsigned int>(std::stoul(line.substr(1, idEnd - 1)));
        lines[id] = {line.substr(idEnd + 2, nameEnd - idEnd - 2), line.substr(nameEnd + 1)};
        EXPECT_THAT(lines[id].trace, testing::EndsWith("};")) << line;
    }
    return lines;
}

/// Threads that wait until the object ends; the first `named` of them bear "w" and their number.
class WaitingThreads {
 public:
    WaitingThreads(int count, int named) : ready(count + 1), ids(count) {
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([this, i, named] {
                if (i < named) {
                    ThreadUtilities::setThreadName("w" + std::to_string(i));
                }
                ids[i] = getThreadId();
                ready.arrive_and_wait();
                isOver.wait(false);
            });
        }
        ready.arrive_and_wait();
    }
    ~WaitingThreads() {
        isOver = true;
        isOver.notify_all();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    WaitingThreads(const WaitingThreads&) = delete;
    WaitingThreads& operator=(const WaitingThreads&) = delete;

    unsigned int id(int number) const { return ids[number]; }

 private:
    std::latch ready;
    std::vector<unsigned int> ids;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
};

TEST(StackReportTest, TellsNamedAndUnnamedThreadsAndTheCaller) {
    const WaitingThreads waiting(3, 2);
    const auto [report, error] = getAllThreadStackTrace({});
    EXPECT_EQ(error, "");
    auto lines = linesOf(report);
    EXPECT_EQ(lines[waiting.id(0)].name, "w0");
    EXPECT_EQ(lines[waiting.id(1)].name, "w1");
    EXPECT_EQ(lines[waiting.id(2)].name, "");
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(lines[waiting.id(i)].trace, HasSubstr("stack_report_system_test+0x"));
        EXPECT_THAT(getStackTrace({}, waiting.id(i)), HasSubstr("stack_report_system_test+0x"));
    }
    EXPECT_THAT(lines[getThreadId()].trace, StartsWith("libThreadUtilities.so"));
    EXPECT_THAT(getStackTrace({}, getThreadId()), HasSubstr("stack_report_system_test+0x"));
}

TEST(StackReportTest, HasNoLineForEndedThreads) {
    unsigned int ended = 0;
    std::thread([&] { ended = getThreadId(); }).join();
    EXPECT_EQ(getStackTrace({}, ended), "");
    EXPECT_EQ(getStackTrace({}, 0), "");
    EXPECT_EQ(getStackTrace({}, static_cast<unsigned int>(getpid()) + 1000000), "");
    EXPECT_EQ(linesOf(getAllThreadStackTrace({}).first).count(ended), 0u);
}

// Threads that hold the heap's and the module list's locks most of the time: a report that
// described a frame while one of them stood still would wait for itself.
TEST(StackReportTest, NeverWaitsForAThreadThatItStopped) {
    std::atomic<bool> isOver{false};
    std::vector<std::thread> busy;
    for (int i = 0; i < 2; ++i) {
        busy.emplace_back([&] {
            while (!isOver) {
                delete[] new char[100000];
                ThreadUtilities::getFrameDetails(0, 1);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        linesOf(getAllThreadStackTrace({}).first);
    }
    isOver = true;
    for (std::thread& thread : busy) {
        thread.join();
    }
}

TEST(StackReportTest, TellsAThousandThreads) {
    constexpr int count = 1000;
    const WaitingThreads waiting(count, count);
    auto lines = linesOf(getAllThreadStackTrace({}).first);
    EXPECT_EQ(lines.size(), getThreadIds().size());
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(lines[waiting.id(i)].name, "w" + std::to_string(i));
    }
}

/// A process of its own with a second thread, which reports about itself whenever it is asked to.
class ReportingChild {
 public:
    ReportingChild() {
        EXPECT_EQ(pipe(toChild), 0);
        EXPECT_EQ(pipe(fromChild), 0);
        id = fork();
        if (id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(toChild[1]);
            serve();
            _exit(0);
        }
    }
    ~ReportingChild() {
        close(toChild[1]);
        waitpid(id, nullptr, 0);
        close(toChild[0]);
        close(fromChild[0]);
        close(fromChild[1]);
    }

    ReportingChild(const ReportingChild&) = delete;
    ReportingChild& operator=(const ReportingChild&) = delete;

    pid_t processId() const { return id; }

    struct Reports {
        std::string one;
        std::string all;
        std::string error;
    };

    Reports report() {
        EXPECT_EQ(write(toChild[1], "?", 1), 1);
        Reports reports;
        for (std::string* text : {&reports.one, &reports.all, &reports.error}) {
            std::size_t size = 0;
            EXPECT_TRUE(receive(&size, sizeof(size)));
            text->resize(size);
            EXPECT_TRUE(receive(text->data(), size));
        }
        return reports;
    }

 private:
    void serve() {
        const WaitingThreads waiting(1, 1);
        for (char asked; read(toChild[0], &asked, 1) == 1;) {
            const auto [all, error] = getAllThreadStackTrace({});
            for (const std::string& text : {getStackTrace({}, waiting.id(0)), all, error}) {
                const std::size_t size = text.size();
                if (write(fromChild[1], &size, sizeof(size)) < 0 ||
                    write(fromChild[1], text.data(), size) < 0) {
                    return;
                }
            }
        }
    }

    bool receive(void* out, std::size_t size) const {
        for (std::size_t received = 0; received < size;) {
            const ssize_t got =
                read(fromChild[0], static_cast<char*>(out) + received, size - received);
            if (got <= 0) {
                return false;
            }
            received += static_cast<std::size_t>(got);
        }
        return true;
    }

    int toChild[2] = {};
    int fromChild[2] = {};
    pid_t id = 0;
};

TEST(StackReportTest, LeavesDebuggedThreadsAlone) {
    ReportingChild child;
    EXPECT_EQ(linesOf(child.report().all).size(), 2u);

    if (ptrace(PTRACE_SEIZE, child.processId(), nullptr, nullptr) != 0) {
        GTEST_SKIP() << "this process may not trace its child: " << strerror(errno);
    }
    const ReportingChild::Reports traced = child.report();
    EXPECT_EQ(traced.one, "debugger attached");
    EXPECT_EQ(traced.all, std::to_string(child.processId()));
    EXPECT_EQ(traced.error, "debugger attached");

    ASSERT_EQ(ptrace(PTRACE_INTERRUPT, child.processId(), nullptr, nullptr), 0);
    ASSERT_EQ(waitpid(child.processId(), nullptr, 0), child.processId());
    ASSERT_EQ(ptrace(PTRACE_DETACH, child.processId(), nullptr, nullptr), 0);
    const ReportingChild::Reports after = child.report();
    EXPECT_EQ(after.error, "");
    EXPECT_THAT(after.one, HasSubstr("stack_report_system_test+0x"));
}

}  // namespace
