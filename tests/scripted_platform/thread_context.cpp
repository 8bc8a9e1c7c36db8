#include "platform/thread_context.h"

#include <map>

#include "scripted_platform/thread_context_script.h"

namespace ThreadUtilities {
namespace {

struct State {
    std::map<unsigned int, scripted::VisitScript> scripts;
    std::vector<scripted::VisitRecord> records;
    platform::ReadableRange currentStack;
};

State& state() {
    static State instance;
    return instance;
}

}  // namespace

namespace scripted {

void setVisit(unsigned int threadId, VisitScript script) {
    state().scripts[threadId] = std::move(script);
}

const std::vector<VisitRecord>& visits() {
    return state().records;
}

void setCurrentStackRange(const platform::ReadableRange& range) {
    state().currentStack = range;
}

void resetVisits() {
    state() = State();
}

}  // namespace scripted

namespace platform {

VisitResult visitThreadContext(unsigned int threadId, bool suspend, ContextVisitor visitor,
                               void* visitorState) noexcept {
    scripted::VisitRecord record{threadId, suspend, {}};
    VisitResult result = VisitResult::NoSuchThread;
    if (const auto found = state().scripts.find(threadId); found != state().scripts.end()) {
        for (const ThreadContext& context : found->second.contexts) {
            record.answers.push_back(visitor(context, visitorState));
        }
        result = found->second.result;
    }
    state().records.push_back(record);
    return result;
}

ReadableRange currentStackRange() noexcept {
    return state().currentStack;
}

}  // namespace platform
}  // namespace ThreadUtilities
