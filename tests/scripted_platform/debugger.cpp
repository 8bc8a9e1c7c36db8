#include "platform/debugger.h"

#include "scripted_platform/debugger_script.h"

namespace ThreadUtilities {

bool platform::isDebuggerAttached() noexcept {
    return scripted::debuggerAttached;
}

}  // namespace ThreadUtilities
