#include <ThreadUtilities/ScopedThreadName.h>

#include <string_view>
#include <utility>

#include <ThreadUtilities/Threads.h>

#include "external_input/source_file_name.h"
#include "scoped_name/notifications.h"
#include "scoped_name/type_name.h"

namespace ThreadUtilities {
namespace {

/// The thread's outermost live object that may notify. Compared and cleared, never dereferenced.
constinit thread_local const ScopedThreadName* notifyingScope = nullptr;

/// For what must not throw: what `steps` left undone stays undone.
template <typename Steps>
void quietly(Steps steps) noexcept {
    try {
        steps();
    } catch (...) {
    }
}

}  // namespace

ScopedThreadName::ScopedThreadName(const vesko::source::location& loc) : withNotification(true) {
    quietly([&] {
        nameAfter({}, {}, loc);
        adopt(loc);
    });
}

ScopedThreadName::ScopedThreadName(const std::string& name, const vesko::source::location& loc)
    : withNotification(true) {
    quietly([&] {
        nameAfter(name, {}, loc);
        adopt(loc);
    });
}

ScopedThreadName::ScopedThreadName(const std::type_info& type, const vesko::source::location& loc)
    : withNotification(true) {
    quietly([&] { nameAfter({}, '<' + readableTypeName(type) + '>', loc); });
}

// No destructor will run for an object that an observer's exception kept from beginning, so what
// the destructor would have done is done here, except that observers hear no end.
ScopedThreadName::ScopedThreadName(const std::string& name, bool notify)
    : withNotification(notify) {
    try {
        init(name);
    } catch (...) {
        if (notifyingScope == this) {
            notifyingScope = nullptr;
        }
        quietly([&] {
            if (isNameSaved) {
                setThreadName(savedName);
            }
        });
        throw;
    }
}

ScopedThreadName::ScopedThreadName(const ScopedThreadName& other) = default;
ScopedThreadName& ScopedThreadName::operator=(const ScopedThreadName& other) = default;

ScopedThreadName::~ScopedThreadName() {
    quietly([&] {
        // Cleared even if an assignment has taken the flag away since: the address must not stay
        // behind for another object that comes to stand there.
        if (notifyingScope == this) {
            notifyingScope = nullptr;
            if (withNotification && notifier().isEnabled()) {
                notifier().invokeCallbacks(&IScopedThreadCallback::onScopedThreadEnd);
            }
        }
        if (isNameSaved) {
            setThreadName(savedName);
        }
        if (savedHint != nullptr) {
            savedHint->setAsExternalInputHint();
        } else {
            vesko::external_input::hint::clearExternalInputHint();
        }
    });
}

void ScopedThreadName::init(const std::string& name) {
    savedName = getThreadName();
    isNameSaved = true;
    setThreadName(name);
    if (withNotification && notifyingScope == nullptr) {
        notifyingScope = this;
        if (notifier().isEnabled()) {
            notifier().invokeCallbacks(&IScopedThreadCallback::onScopedThreadStart);
        }
    }
}

void ScopedThreadName::nameAfter(const std::string& prefix, const std::string& typeName,
                                 const vesko::source::location& loc) {
    if (loc.file == nullptr || loc.function == nullptr) {
        return;
    }
    const std::string_view file = vesko::source::filenameFromPath(loc.file);
    const std::string_view function = loc.function;
    const std::string line = std::to_string(loc.line);
    // Built in one allocation: scopes begin often, and naming a thread costs little more.
    std::string name;
    name.reserve(prefix.size() + file.size() + line.size() + typeName.size() + function.size() + 3);
    if (!prefix.empty()) {
        name.append(prefix).append(1, ':');
    }
    name.append(file).append(1, ':').append(line).append(1, ':').append(typeName).append(function);
    init(name);
}

void ScopedThreadName::adopt(const vesko::source::location& loc) {
    savedHint = vesko::external_input::hint::getExternalInputHint();
    vesko::external_input::hint::copyThreadStorageIfNecessary(loc);
}

void ScopedThreadName::registerCallback(std::shared_ptr<IScopedThreadCallback> callback) {
    notifier().addCallback(std::move(callback));
}

void ScopedThreadName::unRegisterCallback(std::shared_ptr<IScopedThreadCallback> callback) {
    notifier().removeCallback(std::move(callback));
}

void ScopedThreadName::initNotifier() {
    notifier().enable();
}

void ScopedThreadName::deinitNotifier() {
    notifier().shutdown();
}

}  // namespace ThreadUtilities
