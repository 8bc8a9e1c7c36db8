#pragma once

// The signal handler that answers capture requests on the thread that they are for.

#include <csignal>
#include <cstddef>

namespace ThreadUtilities::platform {

/// Ignored by default, so harmless to a thread or program that has no handler for it.
inline constexpr int captureSignal = SIGURG;

/// What `rt_tgsigqueueinfo` is given to call the handler on a thread. It names that thread, which
/// saves the handler a system call, and no request: the handler finds those by the thread's id.
siginfo_t captureSignalInfo(unsigned int threadId) noexcept;

using SignalFunction = void (*)(int, siginfo_t*, void*);

/// A host may put its own handler in front of ours, keep ours as "the previous one" and call it.
/// If we then put the same function in front again and passed foreign signals to the host's, the
/// two would call each other for ever. Therefore every installation uses the next of these
/// functions, each of which passes signals on only to the action that was there before it.
inline constexpr std::size_t handlerLayers = 64;
SignalFunction handlerOfLayer(std::size_t layer) noexcept;

/// Where layer `layer` passes signals that are not ours; set before the layer is installed.
void setPreviousAction(std::size_t layer, const struct sigaction& action) noexcept;

}  // namespace ThreadUtilities::platform
