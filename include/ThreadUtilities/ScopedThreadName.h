// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A thread name that holds for the lifetime of one object, and the observers that hear of the
/// outermost such object of each thread.
///
/// A `ScopedThreadName` acts on the thread that makes it and must end on that thread, thread-exit
/// destructors included. The observer functions may be called from any thread at any time, also
/// by an observer that is being called. Nothing here is async-signal-safe.
///
/// Observers are taken off the list before their code is unloaded, those included that their
/// owners let go: the list keeps what is left of them, and that is code too. At the end of the
/// process nothing is released.
///
/// In a fork child the observers stay registered, unless a thread of the parent was changing their
/// list at that very moment; the child then begins with none.

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include <ThreadUtilities/Export.h>
#include <vesko/external_input.h>
#include <vesko/source_location.h>

namespace ThreadUtilities {

class ScopedThreadNotifications;

/// Implemented by those who want to hear of named pieces of work. Both functions run on the thread
/// whose scope begins or ends, which waits for them; several threads may call at once.
///
/// A call may begin scopes. Those that become their thread's outermost are announced as well (in
/// `onScopedThreadEnd` the ending one no longer counts), from within up to three calls one in the
/// other; what a scope in the fourth does, nobody hears of.
class IScopedThreadCallback {
 public:
    /// The thread bears the scope's name. It has not adopted the location's hint yet.
    virtual void onScopedThreadStart() = 0;
    /// The thread still bears the scope's name and hint.
    virtual void onScopedThreadEnd() = 0;

    virtual ~IScopedThreadCallback() = default;
};

/// Names the calling thread until the object ends, then puts the old name back.
///
/// Made from a location, the name says where the work was described, and the thread adopts the
/// hint and the context store that the location captured. At its end the object brings back the
/// hint that was current before; the constructors that take no hint over (type, or name and flag)
/// leave the thread without one. The store is not put back.
///
/// \code
/// void Importer::run() {
///     const ThreadUtilities::ScopedThreadName name("import");
///     readFiles();  // the thread is called "import:Importer.cpp:12:run"
/// }                 // and from here on as it was before
/// \endcode
///
/// Lasts as long as it takes to name the thread, and as the observers take.
///
/// The outermost object of a thread that may notify announces itself to the observers, once when
/// it begins and once when it ends.
///
/// The constructors with a location and the destructor drop every exception, also one of an
/// observer, and skip the steps that were left.
///
/// An observer may end its thread (`pthread_exit`, a cancellation point): on systems that unwind
/// the stack for that, the unwinding passes through the object whose scope begins or ends, which
/// puts the name back, and at its end the hint too. Observers behind it are not called. As
/// everywhere, the process ends where something that is `noexcept` stands in the way, or where a
/// handler of the same thread is being left or still handles another exception.
class [[nodiscard]] ScopedThreadName {
 public:
    /// Names the thread `file:line:function`, the file without its folders. Without an argument
    /// this is the line that declares the object. A location whose file or function is null
    /// leaves the name alone, at the object's end too.
    THREAD_UTILITIES_API explicit ScopedThreadName(
        const vesko::source::location& loc = vesko::source::location::current());

    /// Names the thread `name:file:line:function`; an empty name is left out with its colon.
    THREAD_UTILITIES_API explicit ScopedThreadName(
        const std::string& name,
        const vesko::source::location& loc = vesko::source::location::current());

    /// Names the thread `file:line:<type>function`, with the type as it is written in C++ and
    /// without `class` or `struct` in front: `Worker.cpp:57:<app::Job>run`.
    THREAD_UTILITIES_API explicit ScopedThreadName(
        const std::type_info& type,
        const vesko::source::location& loc = vesko::source::location::current());

    /// Names the thread exactly `name`. Without `withNotification` no observer hears of this
    /// object, and a nested one may become the announced one.
    ///
    /// Lets exceptions through. What an observer throws leaves the thread with its old name and
    /// without an announced object; observers called before it get no call for an end.
    THREAD_UTILITIES_API ScopedThreadName(const std::string& name, bool withNotification);

    /// A second text is an error: as a pointer it would become the flag.
    template <typename Pointer>
        requires std::is_pointer_v<std::decay_t<Pointer>>
    ScopedThreadName(const std::string& name, Pointer&& notAFlag) = delete;

    /// Copies what is put back at the end, and does nothing else: the thread is not named again
    /// and no observer hears of the copy. The copy's end puts name and hint back once more.
    THREAD_UTILITIES_API ScopedThreadName(const ScopedThreadName& other);
    THREAD_UTILITIES_API ScopedThreadName& operator=(const ScopedThreadName& other);

    /// Lets nothing through but the end of the thread (above): a class that has such a member and
    /// overrides a destructor says `noexcept` at its own.
    THREAD_UTILITIES_API ~ScopedThreadName() noexcept(false);

    /// Adds an observer at the end of the list; once more if it is in the list already. It is
    /// held weakly: an observer that its owner lets go is skipped. Null is ignored.
    THREAD_UTILITIES_API static void registerCallback(
        std::shared_ptr<IScopedThreadCallback> callback);

    /// Takes the first registration of this observer off the list. An event that is being
    /// announced still reaches it.
    THREAD_UTILITIES_API static void unRegisterCallback(
        std::shared_ptr<IScopedThreadCallback> callback);

    /// Turns notifications on. They are on from the start; needed after `deinitNotifier` alone.
    THREAD_UTILITIES_API static void initNotifier();

    /// Turns notifications off and empties the list. Until `initNotifier`, observers are neither
    /// called nor registered.
    THREAD_UTILITIES_API static void deinitNotifier();

 private:
    void init(const std::string& name);
    void nameAfter(const std::string& prefix, const std::string& typeName,
                   const vesko::source::location& loc);
    void adopt(const vesko::source::location& loc);
    template <typename Steps>
    void beginQuietly(Steps steps);
    void undoBeginning();
    void announceEnd();
    void putNameBack();
    void putBack();

    static ScopedThreadNotifications& notifier() noexcept;

    std::string savedName;
    std::shared_ptr<vesko::external_input::hint> savedHint;
    bool withNotification;
    bool isNameSaved = false;
};

}  // namespace ThreadUtilities
