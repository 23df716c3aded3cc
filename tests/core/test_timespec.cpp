// Period starts: relative spans counted back from a fixed `now`, ISO dates and
// date-times (zoned ones under several TZ settings; on Windows, in the
// system's zone), and the two errors.
#include "src/core/timespec.hpp"
#include "utils/git_utils.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#ifdef _WIN32
#include <windows.h>
#endif

namespace git_utils {
namespace {

#ifdef _WIN32
// Windows takes its zone rules from the system, not from TZ: the tests check
// the zone the system has (the test command runs them in New York's).
struct ScopedZone {
    explicit ScopedZone(const char*) {}
};
#else
// Switches the process's zone for the lifetime of the object.
struct ScopedZone {
    std::optional<std::string> old = std::getenv("TZ") ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt;
    explicit ScopedZone(const char* zone) { setenv("TZ", zone, 1), tzset(); }
    ~ScopedZone() { old ? setenv("TZ", old->c_str(), 1) : unsetenv("TZ"), tzset(); }
};
#endif

constexpr Moment at(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int us = 0) {
    return {y, mo, d, h, mi, s, us};
}
constexpr Moment kNow = at(2024, 3, 1, 0, 10, 0, 123456);

struct Raised {
    std::string message;
    bool out_of_calendar = false, has_overflow_cause = false;
};

// The error the parse raised (the test fails if there is none).
Raised error_of(const std::string& since, const Moment& now = kNow) {
    try {
        ADD_FAILURE() << "no error for " << since << ": got " << format_moment(parse_time_spec(since, now));
    } catch (const TimeSpecError& e) {
        bool overflow = false;
        try {
            std::rethrow_if_nested(e);
        } catch (const std::overflow_error&) {
            overflow = true;
        }
        return {e.what(), e.out_of_calendar(), overflow};
    }
    return {};
}

// Each error with its message: the forms expected, or the calendar left (with
// the overflow behind it), counted back from a minute's start in year 1.
class TimeSpecErrors : public testing::TestWithParam<std::tuple<bool, std::string>> {};

TEST_P(TimeSpecErrors, NameTheFormsOrTheCalendar) {
    const auto& [outside, since] = GetParam();
    const Raised e = error_of(since, at(1, 1, 1, 0, 0, 30));
    const std::string message = outside ? "since '" + since + "' reaches outside the calendar"
                                        : "since must be " + std::string(TIME_SPEC_FORMS) + "; got '" + since + "'";
    EXPECT_EQ(std::tuple(e.message, e.out_of_calendar, e.has_overflow_cause), std::tuple(message, outside, outside));
}

INSTANTIATE_TEST_SUITE_P(
    TimeSpecInvalid, TimeSpecErrors,
    testing::Combine(
        testing::Values(false),
        testing::Values<std::string>(
            "0d", " 000h ", "", "   ", "7D", "7 d", "+7d", "1.5h", "7dd", "7", "d",
            // dates
            "2026-02-30", "2025-02-29", "0000-01-01", "2026-09", "2026-244", "2026-9-1", "20260-09-01", "2026-0901",
            "\u0662026-09-01", "2025-W53", "2026-W01-8", "9999-W52-7", "2026W0110",
            // times and zones
            "2026-09-01Z", "2026-09-01T", "2026-09-01\u00e910", "2026-09-01T24:00", "2026-09-01T10:60",
            "2026-09-01T10:30:60", "2026-09-01T10:3015", "2026-09-01T1030:15", "2026-09-01T10:30:15.",
            "2026-09-01T10:30z", "2026-09-01T10:30 Z", "2026-09-01T10:30+24:00", "2026-09-01T10:30+02:60",
            "2026-09-01T10:30+0230:15", "2026-09-01T10:30+2", "2026-09-01T10:30+02Z")));

INSTANTIATE_TEST_SUITE_P(TimeSpecOutsideCalendar, TimeSpecErrors,
                         testing::Combine(testing::Values(true),
                                          testing::Values("1m", "800000w", "1000000000d", "18446744073709551615m",
                                                          std::string(300, '9') + "h",
                                                          "0001-01-01T00:59:59.999999+01:00",
                                                          "9999-12-31T23:59:59-01:00")));

// One expectation per zone of kZones; no value means the calendar error.
constexpr const char* kZones[] = {"UTC", "America/New_York", "Europe/Berlin"};
struct IsoCase {
    const char* since;
    std::optional<Moment> expected[3];
    Moment now = kNow;
};
void PrintTo(const IsoCase& c, std::ostream* os) { *os << c.since; }
IsoCase same(const char* since, Moment m, Moment now = kNow) { return {since, {m, m, m}, now}; }
class TimeSpecIso : public testing::TestWithParam<IsoCase> {};

#ifdef _WIN32
// The column of kZones that the system's zone stands for, or -1.
int system_zone() {
    DYNAMIC_TIME_ZONE_INFORMATION zone{};
    ::GetDynamicTimeZoneInformation(&zone);
    const std::wstring key = zone.TimeZoneKeyName;
    if (key == L"UTC" || key == L"Coordinated Universal Time" || key == L"Greenwich Standard Time") return 0;
    if (key == L"Eastern Standard Time") return 1;
    if (key == L"W. Europe Standard Time" || key == L"Central Europe Standard Time") return 2;
    return -1;
}
#endif

TEST_P(TimeSpecIso, ReadsLocalWallClockTimeInEachZone) {
#ifdef _WIN32
    // Before 1601 Windows keeps a zone's first rules where tz has local mean time.
    const int only = system_zone();
    if (only < 0) GTEST_SKIP() << "a system zone the table has no column for";
    const bool local_mean_time = only > 0 && std::string(GetParam().since).starts_with("0001-");
#endif
    for (int z = 0; z < 3; ++z) {
#ifdef _WIN32
        if (z != only || local_mean_time) continue;
#endif
        ScopedZone zone(kZones[z]);
        SCOPED_TRACE(std::string(GetParam().since) + " in " + kZones[z]);
        if (const auto& expected = GetParam().expected[z])
            EXPECT_EQ(parse_time_spec(GetParam().since, GetParam().now), *expected);
        else
            EXPECT_TRUE(error_of(GetParam().since).out_of_calendar);
    }
}

// Spans count back on the wall clock, the same in every zone (24 h across New
// York's DST change stay 24 wall-clock hours).
INSTANTIATE_TEST_SUITE_P(
    TimeSpecRelative, TimeSpecIso,
    testing::Values(same("007d", at(2024, 2, 23, 0, 10, 0, 123456)),
                    same("\u0661\u0664d", at(2024, 2, 16, 0, 10, 0, 123456)),  // Arabic-Indic 14
                    same("\u30001d\u0085", at(2024, 2, 29, 0, 10, 0, 123456)),
                    same("30m", at(2024, 2, 29, 23, 40, 0, 123456)),  // across a month end
                    same("24h", at(2026, 3, 7, 12), at(2026, 3, 8, 12)),
                    same("521722w", at(1, 1, 5, 23, 59, 59, 999999), at(9999, 12, 31, 23, 59, 59, 999999))));

INSTANTIATE_TEST_SUITE_P(
    TimeSpecNaive, TimeSpecIso,
    testing::Values(same(" 20260901\n", at(2026, 9, 1)), same("2024-02-29", at(2024, 2, 29)),
                    same("2026W01", at(2025, 12, 29)), same("2026-W01-3", at(2025, 12, 31)),
                    same("2026W013", at(2025, 12, 31)), same("2026-W53-7", at(2027, 1, 3)),
                    same("0001-W01-1", at(1, 1, 1)), same("2026-09-01 10", at(2026, 9, 1, 10)),
                    same("20260901x1030", at(2026, 9, 1, 10, 30)), same("2026-09-01110", at(2026, 9, 1, 10)),
                    // A week date followed by a digit: where the date ends.
                    same("2026-W01-10", at(2025, 12, 29, 10)), same("2026W0131010", at(2025, 12, 29, 10, 10)),
                    same("2026-09-01 10:30:15.1234567", at(2026, 9, 1, 10, 30, 15, 123456)),
                    same("2026-09-01T103015,5", at(2026, 9, 1, 10, 30, 15, 500000)),
                    same("2026-09-01T10.5", at(2026, 9, 1, 10, 0, 0, 500000)),
                    same("9999-12-31T23:59:59.999999", at(9999, 12, 31, 23, 59, 59, 999999))));

INSTANTIATE_TEST_SUITE_P(
    TimeSpecZoned, TimeSpecIso,
    testing::Values(
        IsoCase{"2026-09-01T10:30:15Z",
                {at(2026, 9, 1, 10, 30, 15), at(2026, 9, 1, 6, 30, 15), at(2026, 9, 1, 12, 30, 15)}},
        IsoCase{"2026-01-15T12:00+02:00", {at(2026, 1, 15, 10), at(2026, 1, 15, 5), at(2026, 1, 15, 11)}},
        IsoCase{"2026-09-01T10:30:15.5+02:30:15.25",
                {at(2026, 9, 1, 8, 0, 0, 250000), at(2026, 9, 1, 4, 0, 0, 250000), at(2026, 9, 1, 10, 0, 0, 250000)}},
        IsoCase{"20260901T103015-0230",
                {at(2026, 9, 1, 13, 0, 15), at(2026, 9, 1, 9, 0, 15), at(2026, 9, 1, 15, 0, 15)}},
        // The offset in force at the instant itself, on both sides of a DST change.
        IsoCase{"2026-03-08T06:59:59.999999Z",
                {at(2026, 3, 8, 6, 59, 59, 999999), at(2026, 3, 8, 1, 59, 59, 999999),
                 at(2026, 3, 8, 7, 59, 59, 999999)}},
        IsoCase{"2026-03-08T07:30:00Z", {at(2026, 3, 8, 7, 30), at(2026, 3, 8, 3, 30), at(2026, 3, 8, 8, 30)}},
        // Calendar edges, with local mean time before the zones' first rules.
        IsoCase{"0001-01-01T00:00:00+01:00", {std::nullopt, std::nullopt, std::nullopt}},
        IsoCase{"0001-01-01T00:00:00Z", {at(1, 1, 1), std::nullopt, at(1, 1, 1, 0, 53, 28)}},
        IsoCase{"0001-01-01T05:00:00Z", {at(1, 1, 1, 5), at(1, 1, 1, 0, 3, 58), at(1, 1, 1, 5, 53, 28)}},
        IsoCase{"9999-12-31T23:00:00-00:30", {at(9999, 12, 31, 23, 30), at(9999, 12, 31, 18, 30), std::nullopt}}));

// In a zone half an hour off the hour (on Windows, the system's).
TEST(TimeSpecClock, ReadsTheLocalClock) {
    ScopedZone zone("America/St_Johns");
#ifdef _WIN32
    const auto timegm = _mkgmtime;
#endif
    const auto seconds = [&](const Moment& m) {
        std::tm t{};
        t.tm_year = m.year - 1900, t.tm_mon = m.month - 1, t.tm_mday = m.day;
        t.tm_hour = m.hour, t.tm_min = m.minute, t.tm_sec = m.second;
        return static_cast<long long>(timegm(&t));
    };
#ifdef _WIN32
    FILETIME utc, local;
    ::GetSystemTimeAsFileTime(&utc);
    ::FileTimeToLocalFileTime(&utc, &local);
    const long long expected =
        static_cast<long long>((static_cast<unsigned long long>(local.dwHighDateTime) << 32 | local.dwLowDateTime) /
                               10000000) - 11644473600LL;
#else
    const std::time_t t = std::time(nullptr);
    std::tm fields{};
    localtime_r(&t, &fields);
    const long long expected = timegm(&fields);
#endif
    EXPECT_LE(std::llabs(seconds(local_now()) - expected), 5);
    EXPECT_LE(std::llabs(seconds(parse_time_spec("1h")) - (expected - 3600)), 5);
}

}  // namespace
}  // namespace git_utils
