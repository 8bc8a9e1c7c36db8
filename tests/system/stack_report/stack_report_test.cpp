#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
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
    }
    EXPECT_THAT(getStackTrace({}, waiting.id(2)), HasSubstr("stack_report_system_test+0x"));
    EXPECT_THAT(lines[getThreadId()].trace, StartsWith("libThreadUtilities.so"));
    EXPECT_EQ(getStackTrace({}, 0), "");
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

}  // namespace
