// The clock and the zone rules on POSIX systems, for the period starts
// (timespec.cpp).
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <system_error>

#include "src/core/platform.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

// The local zone's offset east of UTC, in seconds, at `unix_seconds`, from the
// zone rules in force now (whatever the process's last tzset() established;
// nothing is cached here). Where the system cannot convert the instant (a
// 32-bit time_t, or a localtime_r that gives up), the offset of the nearest
// instant it can convert is used, and UTC if it can convert none.
std::int64_t platform::local_offset_at(std::int64_t unix_seconds) {
    const auto clamp = [](std::int64_t v, std::int64_t lo, std::int64_t hi) { return v < lo ? lo : v > hi ? hi : v; };
    const std::int64_t t_min = static_cast<std::int64_t>(std::numeric_limits<time_t>::min());
    const std::int64_t t_max = static_cast<std::int64_t>(std::numeric_limits<time_t>::max());
    const std::int64_t i32_max = std::numeric_limits<std::int32_t>::max();
    // First the instant itself as far as time_t reaches, then within the
    // 32-bit range that every localtime_r handles.
    for (const std::int64_t at : {clamp(unix_seconds, t_min, t_max), clamp(unix_seconds, -i32_max, i32_max)}) {
        const time_t t = static_cast<time_t>(at);
        struct tm fields {};
        if (localtime_r(&t, &fields) != nullptr) return fields.tm_gmtoff;
    }
    return 0;
}

Moment local_now() {
    struct timespec ts {};
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0)
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    struct tm fields {};
    if (localtime_r(&ts.tv_sec, &fields) == nullptr)
        throw std::system_error(errno, std::generic_category(), "localtime_r");
    Moment m;
    m.year = fields.tm_year + 1900;
    m.month = fields.tm_mon + 1;
    m.day = fields.tm_mday;
    m.hour = fields.tm_hour;
    m.minute = fields.tm_min;
    m.second = fields.tm_sec > 59 ? 59 : fields.tm_sec;  // a leap second reads as :59
    m.microsecond = static_cast<int>(ts.tv_nsec / 1000);
    return m;
}

}  // namespace git_utils
