// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Asks each family of the library one question whose answer it can check.

#include <ThreadUtilities/ThreadUtilities.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#if __has_include(<threads.h>)
#include <threads.h>
#endif

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

#if __has_include(<threads.h>)
void checkCThreads() {
    std::promise<unsigned int> started;
    std::promise<void> mayEnd;
    const auto body = [&] {
        started.set_value(ThreadUtilities::getThreadId());
        mayEnd.get_future().wait();
        return 7;
    };
    thrd_t worker;
    expect(thrd_create(
               &worker,
               [](void* function) { return (*static_cast<const decltype(body)*>(function))(); },
               const_cast<void*>(static_cast<const void*>(&body))) == thrd_success,
           "a thread of the C standard starts");
    const unsigned int workerId = started.get_future().get();
    const auto threadIds = ThreadUtilities::getThreadIds();
    expect(threadIds.size() == 2 && threadIds.back() == workerId, "and is listed");
    unsigned long long frames[64];
    expect(ThreadUtilities::getStackTrace(workerId, frames, 64, true) >= 3, "with frames");
    mayEnd.set_value();
    int result = 0;
    expect(thrd_join(worker, &result) == thrd_success && result == 7, "its result arrives");
}
#else
void checkCThreads() {}
#endif

void checkStacks() {
    unsigned long long frames[64];
    const auto count =
        ThreadUtilities::getStackTrace(ThreadUtilities::getThreadId(), frames, 64, true);
    expect(count >= 3, "the own stack has frames");
    const std::wstring text = ThreadUtilities::getFrameDetails(0, count > 0 ? frames[0] : 0);
    expect(text.find(L"+0x") != text.npos, "a frame has a text");
    const std::string line = '[' + ThreadUtilities::getThreadIdString() + "][";
    expect(ThreadUtilities::getAllThreadStackTrace({}).first.find(line) != line.npos,
           "the report has a line for the caller");
}

void checkScopes() {
    using vesko::external_input::hint;
    const auto input = hint::createExternalInputHint("input");
    const auto store = vesko::external_input::context_store::getOrCreateStore();
    const auto posted = vesko::source::location::current();
    std::thread([&] {
        const ThreadUtilities::ScopedThreadName scope(posted);
        expect(ThreadUtilities::getThreadName().find("main.cpp:") == 0, "a scope names its thread");
        expect(hint::getExternalInputHintName() == "input", "a location hands its hint over");
        vesko::external_input::context_store::getOrCreateStore()->addEntry("done");
    }).join();
    expect(store->getEntries().size() == 1, "a location hands its store over");
}

void checkSampling() {
    const std::string report =
        ThreadUtilities::sampleAllThreads(std::chrono::seconds(1), std::chrono::milliseconds(50));
    expect(report.find("Thread ") != report.npos, "the report names a thread");
}

void checkAll() {
    checkThreads();
    checkCThreads();
    checkStacks();
    checkScopes();
    checkSampling();
}

/// Asks before and after main: with an archive behind this object file on the linker's command, a
/// static object of the library's would not be initialised yet, and be gone already.
struct StaticObject {
    StaticObject() { checkAll(); }
    ~StaticObject() {
        checkAll();
        if (failures != 0) {
            std::_Exit(1);
        }
    }
} staticObject;

}  // namespace

int main() {
    checkAll();
}
