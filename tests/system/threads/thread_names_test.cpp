#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <array>
#include <atomic>
#include <fstream>
#include <iterator>

#include <ThreadUtilities/Threads.h>

#include "child_process.h"
#include "parked_thread.h"

namespace ThreadUtilities {
namespace {

std::string kernelName(unsigned int threadId) {
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

TEST(ThreadNamesOnLinux, AreKeptWholeWhileTheKernelGetsWholeCharacters) {
    struct Case {
        std::string name;
        std::string inKernel;
    };
    const std::string u = "\xC3\xBC";             // 2 bytes
    const std::string face = "\xF0\x9F\x98\x80";  // 4 bytes
    for (const Case& oneCase : {Case{"short", "short"}, Case{"exactly15bytes!", "exactly15bytes!"},
                                Case{"sixteen bytes ok", "sixteen bytes o"},
                                Case{"12345678901234" + u + "end", "12345678901234"},
                                Case{"1234567890123" + u + u, "1234567890123" + u},
                                Case{"123456789012" + face, "123456789012"},
                                Case{"12345678901" + face + "x", "12345678901" + face},
                                Case{face + face + face + face, face + face + face},
                                Case{std::string(10000, 'n'), std::string(15, 'n')}}) {
        std::string inside;
        ParkedThread thread([&] {
            setThreadName(oneCase.name);
            inside = getThreadName();
        });
        EXPECT_EQ(inside, oneCase.name);
        EXPECT_EQ(getThreadName(thread.id()), oneCase.name);
        EXPECT_EQ(kernelName(thread.id()), oneCase.inKernel);
    }
}

TEST(ThreadNamesOnLinux, OneThatNobodyGaveReadsEmpty) {
    EXPECT_EQ(getThreadName(), "");
    const std::string programName = kernelName(getThreadId());
    ParkedThread unnamed;
    EXPECT_EQ(kernelName(unnamed.id()), programName);
    EXPECT_EQ(getThreadName(unnamed.id()), "");

    std::string ofGrandchild = "not read";
    std::string inKernel;
    ParkedThread named([&] {
        setThreadName("creator");
        ParkedThread child([&] { ofGrandchild = getThreadName(); });
        inKernel = kernelName(child.id());
        EXPECT_EQ(getThreadName(child.id()), "");
    });
    EXPECT_EQ(ofGrandchild, "");
    EXPECT_EQ(inKernel, "creator");
    EXPECT_EQ(getThreadName(named.id()), "creator");
    EXPECT_EQ(getThreadName(0), "");
    EXPECT_EQ(getThreadName(0xFFFFFFFF), "");
    const unsigned int ended = named.id();
    named.end();
    EXPECT_EQ(getThreadName(ended), "");
}

TEST(ThreadNamesOnLinux, AnEmptyOneTakesTheNameAway) {
    std::string before;
    std::string after;
    ParkedThread thread([&] {
        before = kernelName(getThreadId());
        setThreadName("for a while");
        setThreadName("");
        after = kernelName(getThreadId());
    });
    EXPECT_EQ(getThreadName(thread.id()), "");
    EXPECT_EQ(after, before);
}

TEST(ThreadNamesOnLinux, ThoseThatOtherCodeGivesAreSeen) {
    ParkedThread thread([] { setThreadName("given by the library, and long"); });
    ASSERT_EQ(pthread_setname_np(thread.handle(), "by others"), 0);
    EXPECT_EQ(getThreadName(thread.id()), "by others");
    // Cut within a character by the kernel.
    std::string inside;
    ParkedThread cut([&] {
        prctl(PR_SET_NAME, "12345678901234\xC3\xBC");
        inside = getThreadName();
        setThreadName("own again");
    });
    EXPECT_EQ(inside, "12345678901234\xEF\xBF\xBD");
    EXPECT_EQ(getThreadName(cut.id()), "own again");
}

// The creator may name a thread before that thread has run at all.
TEST(ThreadNamesOnLinux, ANameGivenRightAfterTheStartIsNotTakenForAnInheritedOne) {
    for (int count = 0; count < 300; ++count) {
        std::latch stop{1};
        std::thread thread([&] { stop.wait(); });
        pthread_setname_np(thread.native_handle(), "early bird");
        std::vector<unsigned int> ids = getThreadIds();
        std::erase_if(ids, [](unsigned int id) { return kernelName(id) != "early bird"; });
        ASSERT_EQ(ids.size(), 1U);
        ASSERT_EQ(getThreadName(ids.front()), "early bird");
        stop.count_down();
        thread.join();
    }
}

TEST(ThreadNamesOnLinux, OtherProcessesShowTheKernels) {
    std::array<int, 2> ready;
    ASSERT_EQ(pipe(ready.data()), 0);
    std::array<int, 2> leave;
    ASSERT_EQ(pipe(leave.data()), 0);
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        close(leave[1]);
        setThreadName("a child's name beyond the kernel's");
        char byte = 0;
        (void)!write(ready[1], &byte, 1);
        (void)!read(leave[0], &byte, 1);
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(getThreadName(static_cast<unsigned int>(child)), "a child's name ");
    for (const int end : {leave[0], leave[1], ready[0], ready[1]}) {
        close(end);
    }
    waitpid(child, nullptr, 0);
}

TEST(ThreadNamesOnLinux, ACopyKeepsTheNameOfItsOnlyThread) {
    int result = -1;
    ParkedThread other([] { setThreadName("does not come along"); });
    ParkedThread thread([&] {
        setThreadName("the thread that forks, by its whole name");
        result = runInCopy([&] {
            if (getThreadName() != "the thread that forks, by its whole name") {
                return 1;
            }
            return getThreadName(static_cast<unsigned int>(gettid())) == getThreadName() &&
                           getThreadIds().size() == 1
                       ? 0
                       : 2;
        });
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(getThreadName(other.id()), "does not come along");
}

// A reader gets one of the names that the thread gave itself, whole, or that of none.
TEST(ThreadNamesOnLinux, ReadersSeeTheNameBeforeOrAfterAChange) {
    const std::string even(40, 'e');
    const std::string odd(70, 'o');
    std::atomic<bool> stop{false};
    std::promise<unsigned int> started;
    std::thread changing([&] {
        setThreadName(even);
        started.set_value(getThreadId());
        while (!stop) {
            setThreadName(odd);
            setThreadName(even);
        }
    });
    const unsigned int id = started.get_future().get();
    std::vector<std::thread> readers;
    std::atomic<int> wrong{0};
    for (int reader = 0; reader < 2; ++reader) {
        readers.emplace_back([&] {
            for (int count = 0; count < 3000; ++count) {
                const std::string name = getThreadName(id);
                wrong += name == even || name == odd ? 0 : 1;
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    stop = true;
    changing.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(getThreadName(id), "");
}

}  // namespace
}  // namespace ThreadUtilities
