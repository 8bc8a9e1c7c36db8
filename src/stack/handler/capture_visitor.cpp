// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/handler/capture_visitor.h"

#include "unwind/frame_walk.h"

namespace ThreadUtilities {

platform::VisitorAnswer collectFrames(const platform::ThreadContext& context,
                                      platform::VisitRoom& room) noexcept {
    const WalkResult walk = walkThread(context, room.frames, room.capacity);
    room.frameCount = walk.frameCount;
    switch (walk.end) {
        case WalkEnd::UnknownRegister:
            return platform::VisitorAnswer::RegisterMissing;
        case WalkEnd::FrameLimit:
            return platform::VisitorAnswer::RoomMissing;
        default:
            return platform::VisitorAnswer::Enough;
    }
}

}  // namespace ThreadUtilities
