// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/capture_request.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "linux/capture/capture_requests.h"
#include "linux/capture/capture_signal.h"
#include "linux/capture/handler/capture_handler.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"

// The handler is called like a function here, while the test plays the capturer: so the two meet in
// every state in which they can.

namespace ThreadUtilities::platform {
namespace {

constexpr std::uint32_t generation = 7;

std::uint32_t at(RequestPhase phase, std::uint32_t of = generation) {
    return RequestWord(phase, of).bits();
}

std::optional<std::uint32_t> changeMeanwhile;
std::optional<ThreadContext> shown;

class AHandler : public testing::Test {
 protected:
    AHandler() {
        request.visitor = [](const ThreadContext& context, VisitRoom&) noexcept {
            shown = context;
            if (changeMeanwhile) {
                captureRequests.slots[number].word = *changeMeanwhile;
            }
            return VisitorAnswer::Enough;
        };
        request.threadId = static_cast<std::uint32_t>(gettid());
        set(RequestPhase::Posted);
    }
    ~AHandler() override {
        request.word = 0;
        captureRequests.giveBack(number);
    }

    void set(RequestPhase phase) {
        request.word = at(phase);
        request.mayCallSystem = false;
        request.stackBounds = {};
        captureRequests.used[number / slotsPerWord] |= std::uint64_t{1} << number % slotsPerWord;
        changeMeanwhile.reset();
    }
    [[gnu::noinline]] void handle() const {
        shown.reset();
        ucontext_t interrupted{};
        siginfo_t info = captureSignalInfo(captureSignal(), static_cast<unsigned int>(gettid()));
        onCaptureSignal(captureSignal(), &info, &interrupted);
    }
    /// With less room above this address than a walk takes.
    [[gnu::noinline]] void handleNear(std::uintptr_t lowest) const {
        std::array<char, 512> ballast;
        asm volatile("" : : "r"(ballast.data()) : "memory");
        const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
        frame > lowest + handlerRoom ? handleNear(lowest) : handle();
        asm volatile("" : : "r"(ballast.data()) : "memory");
    }
    bool isInUse() const {
        return (captureRequests.used[number / slotsPerWord] >> number % slotsPerWord & 1) != 0;
    }

    static constexpr std::size_t number = 100;  // where no capture comes
    CaptureRequest& request = captureRequests.slots[number];
};

TEST_F(AHandler, AnswersWhatIsPostedToItsThreadAlone) {
    struct Case {
        const char* name;
        RequestPhase phase;
        std::uint32_t after;
        bool isVisited = false;
        bool staysInUse = true;
        bool ofOther = false;
        std::uintptr_t frame = 0;
        std::uintptr_t stack = 0;
        std::optional<std::uint32_t> meanwhile = std::nullopt;
    };
    using enum RequestPhase;
    const std::uint32_t freed = at(Free, generation + 1);
    const std::uint32_t anothers = at(Posted, generation + 1);
    for (const Case& each : {
             Case{"posted", Posted, at(Done), true},
             Case{"another's", Posted, at(Posted), false, true, true},
             Case{"free", Free, at(Free)},
             Case{"claimed", Claimed, at(Claimed)},
             Case{"done", Done, at(Done)},
             Case{"left", Abandoned, freed, false, false, false, 1},
             Case{"not left", Abandoned, at(Abandoned), false, true, false, UINTPTR_MAX},
             Case{"elsewhere", Abandoned, at(Abandoned), false, true, false, 1, 4096},
             Case{"given up", Posted, freed, true, false, false, 0, 0, at(Abandoned)},
             Case{"late", Posted, anothers, true, true, false, 0, 0, anothers},
         }) {
        SCOPED_TRACE(each.name);
        set(each.phase);
        request.threadId = static_cast<std::uint32_t>(gettid()) + (each.ofOther ? 1 : 0);
        request.handlerFrame = each.frame;
        request.handlerStack = each.stack;
        changeMeanwhile = each.meanwhile;
        handle();
        EXPECT_EQ(shown.has_value(), each.isVisited);
        EXPECT_FALSE(shown && shown->mayCallSystem);
        EXPECT_EQ(request.word, each.after);
        EXPECT_EQ(isInUse(), each.staysInUse);
    }
}

TEST_F(AHandler, AnswersEmptyWhereThereIsNoRoomToWalk) {
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    request.stackBounds = {here - handlerRoom, here + handlerRoom};
    request.room.frameCount = 5;
    request.answer = VisitorAnswer::RoomMissing;
    handle();
    EXPECT_FALSE(shown);
    EXPECT_EQ(request.word, at(RequestPhase::Done));
    EXPECT_EQ(request.room.frameCount, 0U);
    EXPECT_EQ(request.answer, VisitorAnswer::Enough);
    // Of a stack that nobody told of, the page below it is asked for: here, the guard.
    if (underAddressSanitizer) {
        GTEST_SKIP() << "its frames take more than the room";
    }
    set(RequestPhase::Posted);
    request.mayCallSystem = true;
    std::thread([this] {
        request.threadId = static_cast<std::uint32_t>(gettid());
        pthread_attr_t attributes;
        void* lowest = nullptr;
        std::size_t size = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &lowest, &size);
        pthread_attr_destroy(&attributes);
        handleNear(reinterpret_cast<std::uintptr_t>(lowest));
    }).join();
    EXPECT_FALSE(shown);
    EXPECT_EQ(request.word, at(RequestPhase::Done));
}

TEST_F(AHandler, IsForgottenByAForkChild) {
    EXPECT_EQ(runInForkChild([this] {
                  return !isInUse() && request.word == at(RequestPhase::Free, generation + 1);
              }),
              0);
}

VisitDeadline soon() {
    return std::chrono::steady_clock::now() + std::chrono::seconds(10);
}

TEST_F(AHandler, KeepsItsSlotUntilItsThreadEnds) {
    unsigned int ended = 0;
    std::thread([&] { ended = static_cast<unsigned int>(gettid()); }).join();
    for (auto& used : captureRequests.used) {
        used = ~std::uint64_t{0};
    }
    set(RequestPhase::Abandoned);
    CaptureRequest& next = captureRequests.slots[number + 1];
    next.threadId = ended;
    next.word = at(RequestPhase::Abandoned);
    EXPECT_TRUE(VisitSlot(1, soon()).isTaken());
    EXPECT_EQ(request.word, at(RequestPhase::Abandoned));
    EXPECT_EQ(next.word, at(RequestPhase::Free, generation + 1));
    for (auto& used : captureRequests.used) {
        used = 0;
    }
}

TEST(ASlot, BeginsAfreshForEachRequestAndWayOfVisiting) {
    const CaptureRequest& first = captureRequests.slots[0];
    {
        VisitSlot slot(100'000, soon());
        const RequestWord before(first.word);
        {
            const PostedRequest posted(slot, {});
        }
        EXPECT_EQ(first.word, before.nextFree().bits()) << "for a handler that comes late";
        std::array<unsigned long long, slotFrames> frames{};
        for (int way = 0; way < 2; ++way) {
            EXPECT_EQ(slot.copyEarlierFrames(frames), 0U);
            EXPECT_TRUE(slot.growRoom());
            EXPECT_EQ(slot.copyEarlierFrames(frames), slotFrames) << "which filled the old room";
            slot.clearRoom();
        }
        EXPECT_TRUE(slot.growRoom());
    }
    EXPECT_TRUE(first.mapping.empty());
}

}  // namespace
}  // namespace ThreadUtilities::platform
