// The clock and the zone rules on Windows, for the period starts
// (timespec.cpp).
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cstdint>
#include <system_error>

#include "src/core/platform.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;

// 100-nanosecond ticks from 1601-01-01 (FILETIME's epoch) to 1970-01-01.
constexpr std::int64_t kFiletimeUnixEpoch = 116444736000000000;

std::int64_t filetime_ticks(const FILETIME& ft) {
    return static_cast<std::int64_t>((static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime);
}

// `utc` (ticks since 1601) as local time, by the system's zone rules in force
// now for that year: the zone's daylight-saving dates of the year, where they
// changed over the years (where the C runtime's localtime applies this year's
// rules to every year).
bool local_fields(std::int64_t utc, SYSTEMTIME& local) {
    FILETIME ft{static_cast<DWORD>(utc), static_cast<DWORD>(static_cast<std::uint64_t>(utc) >> 32)};
    SYSTEMTIME st;
    TIME_ZONE_INFORMATION zone;
    return ::FileTimeToSystemTime(&ft, &st) && ::GetTimeZoneInformationForYear(st.wYear, nullptr, &zone) &&
           ::SystemTimeToTzSpecificLocalTime(&zone, &st, &local);
}

// The local zone's offset east of UTC, in seconds, at `unix_seconds`, from the
// zone rules in force now (nothing is cached here). The system converts
// instants from 1601 on; before that, the offset of 1601-01-02 is used, and
// UTC if the system cannot convert at all.
}  // namespace

std::int64_t platform::local_offset_at(std::int64_t unix_seconds) {
    constexpr std::int64_t first = -11644473600 + kSecondsPerDay, last = 253402300799;  // to 9999-12-31 23:59:59
    const std::int64_t utc = (unix_seconds < first ? first : unix_seconds > last ? last : unix_seconds) * 10'000'000 +
                             kFiletimeUnixEpoch;
    SYSTEMTIME local;
    FILETIME local_ft;
    if (!local_fields(utc, local) || !::SystemTimeToFileTime(&local, &local_ft)) return 0;
    return (filetime_ticks(local_ft) - utc) / 10'000'000;
}

Moment local_now() {
    FILETIME now;
    ::GetSystemTimePreciseAsFileTime(&now);
    const std::int64_t utc = filetime_ticks(now);
    SYSTEMTIME local;
    if (!local_fields(utc, local)) {
        const DWORD error = ::GetLastError();
        throw std::system_error(static_cast<int>(error), std::system_category(), "SystemTimeToTzSpecificLocalTime");
    }
    Moment m;
    m.year = local.wYear;
    m.month = local.wMonth;
    m.day = local.wDay;
    m.hour = local.wHour;
    m.minute = local.wMinute;
    m.second = local.wSecond;
    m.microsecond = static_cast<int>(utc % 10'000'000 / 10);
    return m;
}

}  // namespace git_utils
