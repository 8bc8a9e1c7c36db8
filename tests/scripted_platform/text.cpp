#include "platform/text.h"

#include <atomic>
#include <cstddef>

#include "platform/linux/utf_conversion.h"
#include "scripted_platform/text_script.h"

namespace ThreadUtilities {
namespace {

std::atomic<bool> conversionFails = false;
std::atomic<int> conversionCalls = 0;

}  // namespace

namespace scripted {

void setTextConversionFails(bool fails) {
    conversionFails = fails;
}

int textConversionCalls() {
    return conversionCalls;
}

void resetTextConversion() {
    conversionFails = false;
    conversionCalls = 0;
}

}  // namespace scripted

namespace platform {

int convertUtf8ToWide(const char* text, int count, WideChar* out, int capacity) {
    ++conversionCalls;
    return conversionFails ? 0
                           : static_cast<int>(utf8ToUtf16({text, static_cast<std::size_t>(count)},
                                                          out, static_cast<std::size_t>(capacity)));
}

int convertWideToUtf8(const WideChar* text, int count, char* out, int capacity) {
    ++conversionCalls;
    return conversionFails ? 0
                           : static_cast<int>(utf16ToUtf8({text, static_cast<std::size_t>(count)},
                                                          out, static_cast<std::size_t>(capacity)));
}

}  // namespace platform
}  // namespace ThreadUtilities
