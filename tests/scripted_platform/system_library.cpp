#include "platform/system_library.h"

#include <mutex>

#include "foundation/ascii.h"
#include "scripted_platform/system_library_script.h"

namespace ThreadUtilities {
namespace {

std::mutex recordMutex;

bool isDrivePath(WideStringView path) {
    const auto isLetter = [](WideChar unit) {
        return (unit >= 'A' && unit <= 'Z') || (unit >= 'a' && unit <= 'z');
    };
    return path.size() >= 3 && isLetter(path[0]) && path[1] == ':' && path[2] == '\\';
}

scripted::SystemLibraryScript defaultScript() {
    scripted::SystemLibraryScript script;
    script.folder.path = wideFromAscii("C:\\Windows\\system32");
    return script;
}

}  // namespace

namespace scripted {

SystemLibraryScript& systemLibraryScript() {
    static SystemLibraryScript script = defaultScript();
    return script;
}

void resetSystemLibraryScript() {
    systemLibraryScript() = defaultScript();
}

}  // namespace scripted

namespace platform {

SystemFolder systemLibraryFolder() {
    return scripted::systemLibraryScript().folder;
}

WideChar pathSeparator() noexcept {
    return scripted::systemLibraryScript().separator;
}

bool isAbsolutePath(WideStringView path) noexcept {
    const auto isAbsolute = scripted::systemLibraryScript().isAbsolute;
    return isAbsolute != nullptr ? isAbsolute(path) : isDrivePath(path);
}

LibraryHandle openLibrary(const WideString& fullPath) {
    auto& script = scripted::systemLibraryScript();
    const std::lock_guard lock(recordMutex);
    script.opened.push_back(fullPath);
    const auto found = script.libraries.find(fullPath);
    return found == script.libraries.end() ? nullptr : found->second;
}

void* findEntryPoint(LibraryHandle library, const char* name) {
    const auto& entryPoints = scripted::systemLibraryScript().entryPoints;
    const auto found = entryPoints.find({library, name});
    return found == entryPoints.end() ? nullptr : found->second;
}

void closeLibrary(LibraryHandle library) {
    const std::lock_guard lock(recordMutex);
    scripted::systemLibraryScript().closed.push_back(library);
}

}  // namespace platform
}  // namespace ThreadUtilities
