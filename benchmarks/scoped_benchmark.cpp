// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What a named scope costs beside the system calls that it cannot do without: one that sets its
// name and one that puts the old name back. Then the pieces that travel with a job.

#include <benchmark/benchmark.h>
#include <sys/prctl.h>

#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include <ThreadUtilities/ScopedThreadName.h>
#include <ThreadUtilities/Threads.h>

namespace {

using ThreadUtilities::ScopedThreadName;
using vesko::external_input::context_store;
using vesko::external_input::hint;
using vesko::source::location;

void twoSystemCalls(benchmark::State& state) {
    for (auto _ : state) {
        prctl(PR_SET_NAME, "Worker.cpp:57:r");
        prctl(PR_SET_NAME, "worker");
    }
}
BENCHMARK(twoSystemCalls);

void setNameTwice(benchmark::State& state) {
    const std::string scoped = "Worker.cpp:57:run";
    const std::string before = "worker";
    for (auto _ : state) {
        ThreadUtilities::setThreadName(scoped);
        ThreadUtilities::setThreadName(before);
    }
    ThreadUtilities::setThreadName("");
}
BENCHMARK(setNameTwice);

void readOwnName(benchmark::State& state) {
    ThreadUtilities::setThreadName("worker");
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadUtilities::getThreadName());
    }
    ThreadUtilities::setThreadName("");
}
BENCHMARK(readOwnName);

void scopeOfNameAndFlag(benchmark::State& state) {
    const std::string name = "worker";
    for (auto _ : state) {
        ScopedThreadName scope(name, false);
    }
}
BENCHMARK(scopeOfNameAndFlag);

void scopeOfLocation(benchmark::State& state) {
    for (auto _ : state) {
        ScopedThreadName scope;
    }
}
BENCHMARK(scopeOfLocation);

void scopeOfLocationWithHint(benchmark::State& state) {
    const auto store = context_store::getOrCreateStore();
    hint("hint000001", "posted").setAsExternalInputHint();
    const location posted = location::current();
    hint("hint000002", "own").setAsExternalInputHint();
    for (auto _ : state) {
        ScopedThreadName scope(posted);
    }
    hint::clearExternalInputHint();
}
BENCHMARK(scopeOfLocationWithHint);

class Silent : public ThreadUtilities::IScopedThreadCallback {
 public:
    void onScopedThreadStart() override {}
    void onScopedThreadEnd() override {}
};

void scopeOfLocationObserved(benchmark::State& state) {
    const auto observer = std::make_shared<Silent>();
    ScopedThreadName::registerCallback(observer);
    for (auto _ : state) {
        ScopedThreadName scope;
    }
    ScopedThreadName::unRegisterCallback(observer);
}
BENCHMARK(scopeOfLocationObserved);

void captureLocation(benchmark::State& state) {
    const auto store = context_store::getOrCreateStore();
    hint("hint000001", "posted").setAsExternalInputHint();
    for (auto _ : state) {
        benchmark::DoNotOptimize(location::current());
    }
    hint::clearExternalInputHint();
}
BENCHMARK(captureLocation);

const std::string text = "an entry of some forty characters or so";

/// What the store would be with a lock: a new one for every hundred entries, as below.
class LockedStore {
 public:
    LockedStore() { entries.reserve(100); }
    void addEntry(const std::string& added) {
        const auto time = std::chrono::system_clock::now().time_since_epoch();
        const std::lock_guard lock(mutex);
        entries.emplace_back(
            false, std::chrono::duration_cast<std::chrono::milliseconds>(time).count(), added);
    }

 private:
    std::mutex mutex;
    std::vector<std::tuple<bool, long long, std::string>> entries;
};

template <typename Store>
void fillStore(benchmark::State& state) {
    for (auto _ : state) {
        const auto store = std::make_shared<Store>();
        for (int i = 0; i < 100; ++i) {
            store->addEntry(text);
        }
    }
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(fillStore<LockedStore>);
BENCHMARK(fillStore<context_store>);

}  // namespace
