#include "sampling/saturating_time.h"

#include <gtest/gtest.h>

namespace ThreadUtilities {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

TEST(SaturatingTime, StopsAtTheEndsOfTheScale) {
    static_assert(saturatingNanoseconds(seconds(-3)) == nanoseconds(-3'000'000'000));
    static_assert(saturatingNanoseconds(milliseconds(5)) == nanoseconds(5'000'000));
    static_assert(saturatingNanoseconds(seconds::max()) == nanoseconds::max());
    static_assert(saturatingNanoseconds(milliseconds::min()) == nanoseconds::min());
    constexpr auto lastWhole = std::chrono::duration_cast<milliseconds>(nanoseconds::max());
    static_assert(saturatingNanoseconds(lastWhole) == nanoseconds(lastWhole));
    static_assert(saturatingNanoseconds(lastWhole + milliseconds(1)) == nanoseconds::max());

    constexpr TimePoint hour{std::chrono::hours(1)};
    static_assert(saturatingAdd(hour, nanoseconds(5)) == hour + nanoseconds(5));
    static_assert(saturatingAdd(hour, nanoseconds::max()) == TimePoint::max());
    static_assert(saturatingAdd(-hour.time_since_epoch() + TimePoint(), nanoseconds::min()) ==
                  TimePoint::min());
    static_assert(saturatingAdd(hour, nanoseconds::min()) < TimePoint());
    SUCCEED() << "checked by the compiler";
}

}  // namespace
}  // namespace ThreadUtilities
