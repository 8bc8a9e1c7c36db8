// Asks each family of the library one question whose answer it can check.

#include <ThreadUtilities/ThreadUtilities.h>

#include <cstdio>
#include <future>
#include <string>
#include <thread>

namespace {

int failures = 0;

void expect(bool isTrue, const char* what) {
    if (!isTrue) {
        std::printf("not so: %s\n", what);
        ++failures;
    }
}

void checkThreads() {
    std::promise<unsigned int> started;
    std::promise<void> mayEnd;
    std::thread worker([&] {
        ThreadUtilities::setThreadName("consumer's worker");
        started.set_value(ThreadUtilities::getThreadId());
        mayEnd.get_future().wait();
    });
    const unsigned int workerId = started.get_future().get();
    const auto threadIds = ThreadUtilities::getThreadIds();
    expect(threadIds.size() == 2 && threadIds.back() == workerId, "the started thread is listed");
    expect(threadIds.front() == ThreadUtilities::getMainThreadId(), "the main thread comes first");
    expect(ThreadUtilities::getThreadName(workerId) == "consumer's worker", "names are read back");
    mayEnd.set_value();
    worker.join();
    expect(ThreadUtilities::getThreadIds().size() == 1, "an ended thread is not listed");
}

void checkStacks() {
    unsigned long long frames[64];
    const auto count =
        ThreadUtilities::getStackTrace(ThreadUtilities::getThreadId(), frames, 64, true);
    expect(count >= 3, "the own stack has frames");
    const std::wstring text = ThreadUtilities::getFrameDetails(0, count > 0 ? frames[0] : 0);
    expect(text.find(L"+0x") != text.npos, "a frame has a text");
}

void checkSampling() {
    const std::string report =
        ThreadUtilities::sampleAllThreads(std::chrono::seconds(1), std::chrono::milliseconds(50));
    expect(report.find("Thread ") != report.npos, "the report names a thread");
}

}  // namespace

int main() {
    checkThreads();
    checkStacks();
    checkSampling();
    return failures == 0 ? 0 : 1;
}
