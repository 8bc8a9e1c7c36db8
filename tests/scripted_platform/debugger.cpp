#include "platform/debugger.h"

#include <atomic>

#include "scripted_platform/debugger_script.h"

namespace ThreadUtilities {
namespace {
std::atomic<bool> debuggerAttached{false};
}

void scripted::setDebuggerAttached(bool attached) {
    debuggerAttached = attached;
}

bool platform::isDebuggerAttached() noexcept {
    return debuggerAttached;
}

}  // namespace ThreadUtilities
