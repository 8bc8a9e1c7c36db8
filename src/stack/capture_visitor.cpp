#include "stack/capture_visitor.h"

#include <algorithm>

#include "stack/frame_walk.h"

namespace ThreadUtilities {

platform::VisitorAnswer collectFrames(const platform::ThreadContext& context,
                                      void* collection) noexcept {
    auto& collected = *static_cast<FrameCollection*>(collection);
    collected.isProvisional = !context.standsStill;
    unsigned long long* out =
        collected.isProvisional ? collected.provisional.data() : collected.frames;
    std::size_t room = collected.maxFrames;
    if (collected.isProvisional) {
        room = std::min(room, FrameCollection::provisionalFrames);
    }
    WalkResult walk = walkThread(context, out, room);
    if (walk.end == WalkEnd::FrameLimit && room < collected.maxFrames) {
        // Deeper than what can be taken back. Should the context turn out untrue as well, then
        // entries behind the end of the next walk keep what this one found.
        collected.isProvisional = false;
        walk = walkThread(context, collected.frames, collected.maxFrames);
    }
    collected.frameCount = walk.frameCount;
    return walk.end == WalkEnd::UnknownRegister ? platform::VisitorAnswer::RegisterMissing
                                                : platform::VisitorAnswer::Enough;
}

}  // namespace ThreadUtilities
