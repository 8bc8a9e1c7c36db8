#include "platform/thread_names.h"

#include <map>
#include <mutex>

#include "platform/current.h"
#include "scripted_platform/thread_names_script.h"

namespace ThreadUtilities {
namespace {

std::mutex mutex;
std::map<unsigned int, std::string> names;
std::vector<std::string> given;

}  // namespace

namespace scripted {

void setThreadName(unsigned int threadId, const std::string& name) {
    const std::lock_guard lock(mutex);
    names[threadId] = name;
}

std::vector<std::string> namesGiven() {
    const std::lock_guard lock(mutex);
    return given;
}

void clearThreadNames() {
    const std::lock_guard lock(mutex);
    names.clear();
    given.clear();
}

}  // namespace scripted

namespace platform {

void setOwnThreadName(std::string_view name) {
    const std::lock_guard lock(mutex);
    names[currentThreadId()] = name;
    given.emplace_back(name);
}

std::string readThreadName(unsigned int threadId) {
    const std::lock_guard lock(mutex);
    const auto found = names.find(threadId);
    return found == names.end() ? std::string() : found->second;
}

}  // namespace platform
}  // namespace ThreadUtilities
