// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ScopedThreadName.h>

#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include <ThreadUtilities/Threads.h>

#include "external_input/source_file_name.h"
#include "foundation/exceptions.h"
#include "scoped_name/notifications.h"
#include "scoped_name/type_name.h"

namespace ThreadUtilities {
namespace {

/// The thread's outermost live object that may notify. Compared and cleared, never dereferenced.
constinit thread_local const ScopedThreadName* notifyingScope = nullptr;

}  // namespace

ScopedThreadName::ScopedThreadName(const vesko::source::location& loc) : withNotification(true) {
    beginQuietly([&] {
        nameAfter({}, {}, loc);
        adopt(loc);
    });
}

ScopedThreadName::ScopedThreadName(const std::string& name, const vesko::source::location& loc)
    : withNotification(true) {
    beginQuietly([&] {
        nameAfter(name, {}, loc);
        adopt(loc);
    });
}

ScopedThreadName::ScopedThreadName(const std::type_info& type, const vesko::source::location& loc)
    : withNotification(true) {
    beginQuietly([&] { nameAfter({}, '<' + readableTypeName(type) + '>', loc); });
}

ScopedThreadName::ScopedThreadName(const std::string& name, bool notify)
    : withNotification(notify) {
    try {
        init(name);
    } catch (...) {
        undoBeginning();
        throw;
    }
}

ScopedThreadName::ScopedThreadName(const ScopedThreadName& other) = default;
ScopedThreadName& ScopedThreadName::operator=(const ScopedThreadName& other) = default;

// An observer's exception is dropped, with what was left to do; an observer that ends the thread
// leaves the name and the hint to outer objects, so these are put back first.
ScopedThreadName::~ScopedThreadName() noexcept(false) {
    try {
        announceEnd();
        putBack();
    } catch (...) {
        if (isEndOfThread()) {
            dropExceptions([&] { putBack(); });
            throw;
        }
    }
}

void ScopedThreadName::announceEnd() {
    // Cleared even if an assignment has taken the flag away since: the address must not stay
    // behind for another object that comes to stand there.
    if (notifyingScope == this) {
        notifyingScope = nullptr;
        if (withNotification && notifier().isEnabled()) {
            notifier().invokeCallbacks(&IScopedThreadCallback::onScopedThreadEnd);
        }
    }
}

void ScopedThreadName::putBack() {
    putNameBack();
    if (savedHint != nullptr) {
        savedHint->setAsExternalInputHint();
    } else {
        vesko::external_input::hint::clearExternalInputHint();
    }
}

void ScopedThreadName::putNameBack() {
    if (isNameSaved) {
        setThreadName(savedName);
    }
}

template <typename Steps>
void ScopedThreadName::beginQuietly(Steps steps) {
    try {
        steps();
    } catch (...) {
        if (isEndOfThread()) {
            undoBeginning();
            throw;
        }
    }
}

// No destructor will run for an object that an observer kept from beginning, so what the destructor
// would have done is done here, except that observers hear no end. The hint is as it was: observers
// are called before it changes.
void ScopedThreadName::undoBeginning() {
    if (notifyingScope == this) {
        notifyingScope = nullptr;
    }
    dropExceptions([&] { putNameBack(); });
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
