// Period starts: a relative span ("30m", "24h", "7d", "2w") or an ISO 8601 date
// or date-time, turned into the local wall-clock moment at which a period
// starts.
//
// Moments are handled internally as a count of microseconds since
// 0001-01-01 00:00:00; the calendar is exactly [0, kLastMicros]. All
// arithmetic happens on that count, so a day is always 24 hours and no
// daylight-saving rule touches a relative form.
#include "src/core/timespec.hpp"
#include "src/core/platform.hpp"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <limits>
#include <system_error>

namespace git_utils {
namespace {

constexpr std::int64_t kMicrosPerSecond = 1'000'000;
constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr std::int64_t kMicrosPerDay = kSecondsPerDay * kMicrosPerSecond;

// Days from 1970-01-01 to the given date of the proleptic Gregorian calendar
// (negative before it). Valid for every year an int64 day count can hold.
constexpr std::int64_t days_from_civil(std::int64_t y, int m, int d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

struct CivilDate {
    int year, month, day;
};

// The inverse of days_from_civil.
constexpr CivilDate civil_from_days(std::int64_t z) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    const int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    return {static_cast<int>(yoe + era * 400 + (m <= 2)), m, d};
}

constexpr std::int64_t kFirstDay = days_from_civil(1, 1, 1);      // 0001-01-01
constexpr std::int64_t kLastDay = days_from_civil(9999, 12, 31);  // 9999-12-31
constexpr std::int64_t kLastMicros = (kLastDay - kFirstDay + 1) * kMicrosPerDay - 1;
// The Unix epoch on the internal scale.
constexpr std::int64_t kEpochMicros = -kFirstDay * kMicrosPerDay;

static_assert(civil_from_days(kFirstDay).year == 1 && civil_from_days(kLastDay).day == 31);

std::int64_t floor_div(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

std::int64_t floor_mod(std::int64_t a, std::int64_t b) { return a - floor_div(a, b) * b; }

// Microseconds since 0001-01-01 00:00:00 of a day count (days_from_civil's
// scale) and a time of day.
std::int64_t to_micros(std::int64_t days, int hour, int minute, int second, int microsecond) {
    return (days - kFirstDay) * kMicrosPerDay +
           ((hour * 60LL + minute) * 60 + second) * kMicrosPerSecond + microsecond;
}

std::int64_t to_micros(const Moment& m) {
    return to_micros(days_from_civil(m.year, m.month, m.day), m.hour, m.minute, m.second, m.microsecond);
}

Moment from_micros(std::int64_t us) {
    const std::int64_t days = floor_div(us, kMicrosPerDay);
    std::int64_t rest = us - days * kMicrosPerDay;
    const CivilDate date = civil_from_days(days + kFirstDay);
    Moment m;
    m.year = date.year;
    m.month = date.month;
    m.day = date.day;
    m.microsecond = static_cast<int>(rest % kMicrosPerSecond);
    rest /= kMicrosPerSecond;
    m.second = static_cast<int>(rest % 60);
    m.minute = static_cast<int>(rest / 60 % 60);
    m.hour = static_cast<int>(rest / 3600);
    return m;
}

bool in_calendar(std::int64_t us) { return us >= 0 && us <= kLastMicros; }

// ---------------------------------------------------------------------------
// ISO 8601 form
// ---------------------------------------------------------------------------

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether `text` has the shape of `pattern`, where '#' stands for one ASCII
// digit and every other character for itself.
bool fits(std::string_view text, std::string_view pattern) {
    if (text.size() != pattern.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (pattern[i] == '#' ? !is_digit(text[i]) : text[i] != pattern[i]) return false;
    return true;
}

// The number written by the `count` ASCII digits at `pos` (already checked).
int number_at(std::string_view text, std::size_t pos, std::size_t count) {
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) value = value * 10 + (text[pos + i] - '0');
    return value;
}

int days_in_month(int year, int month) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && leap ? 29 : kDays[month - 1];
}

// Day count of the Monday that starts week 1 of ISO year `year`: the week
// that holds 4 January.
std::int64_t iso_week1_monday(int year) {
    const std::int64_t jan4 = days_from_civil(year, 1, 4);
    // 1970-01-01 was a Thursday, so (days + 3) mod 7 counts from Monday as 0.
    return jan4 - floor_mod(jan4 + 3, 7);
}

// Where the date of a date-time ends. A week date followed by a digit as the
// separator is ambiguous (2026W0131010); this decides it the way Python's
// datetime.fromisoformat does, so the host's own parsing agrees: after
// YYYY-Www-, a digit in the eleventh place means the hyphen was the separator;
// after YYYYWww, the length of the digit run decides, since a time has an even
// number of digits.
std::size_t date_length(std::string_view s) {
    if (s.size() <= 7) return 7;
    if (s[4] == '-') {
        if (s[5] != 'W') return 10;
        if (s.size() == 8 || s[8] != '-') return 8;
        return s.size() > 10 && is_digit(s[10]) ? 8 : 10;
    }
    if (s[4] == 'W') {
        std::size_t end = 7;
        while (end < s.size() && is_digit(s[end])) ++end;
        if (end < 9) return end;
        return end % 2 == 0 ? 7 : 8;
    }
    return 8;
}

// The day count of a date in one of the calendar or week forms, if it exists
// and lies in years 1 to 9999.
std::optional<std::int64_t> parse_date(std::string_view d) {
    int year, month = 0, day = 0, week = 0, weekday = 1;
    if (fits(d, "####-##-##")) {
        year = number_at(d, 0, 4), month = number_at(d, 5, 2), day = number_at(d, 8, 2);
    } else if (fits(d, "########")) {
        year = number_at(d, 0, 4), month = number_at(d, 4, 2), day = number_at(d, 6, 2);
    } else if (fits(d, "####-W##-#")) {
        year = number_at(d, 0, 4), week = number_at(d, 6, 2), weekday = number_at(d, 9, 1);
    } else if (fits(d, "####W###")) {
        year = number_at(d, 0, 4), week = number_at(d, 5, 2), weekday = number_at(d, 7, 1);
    } else if (fits(d, "####-W##")) {
        year = number_at(d, 0, 4), week = number_at(d, 6, 2);
    } else if (fits(d, "####W##")) {
        year = number_at(d, 0, 4), week = number_at(d, 5, 2);
    } else {
        return std::nullopt;
    }
    if (year < 1) return std::nullopt;
    if (month != 0) {
        if (month > 12 || day < 1 || day > days_in_month(year, month)) return std::nullopt;
        return days_from_civil(year, month, day);
    }
    const std::int64_t monday = iso_week1_monday(year);
    const std::int64_t weeks_in_year = (iso_week1_monday(year + 1) - monday) / 7;
    if (week < 1 || week > weeks_in_year || weekday < 1 || weekday > 7) return std::nullopt;
    const std::int64_t days = monday + (week - 1) * 7 + (weekday - 1);
    // Week 1 of a year can start in the previous year and week 52 or 53 end in
    // the next: 9999-W52-7 is a day of year 10000, which does not exist.
    if (days < kFirstDay || days > kLastDay) return std::nullopt;
    return days;
}

struct Clock {
    int hour = 0, minute = 0, second = 0, microsecond = 0;
};

// A time of day or the magnitude of an offset: hh, hh:mm, hhmm, hh:mm:ss or
// hhmmss (colons throughout or nowhere), then optionally "." or "," and one or
// more digits, of which the first six are the microseconds and the rest are
// dropped. Hour below 24, minute and second below 60.
//
// Hour 24 is rejected, and a fraction straight after the hour or the minute
// (10.5, 10:30.5) is read as a fraction of a second (10:00:00.5,
// 10:30:00.5). Both match Python's datetime.fromisoformat, so a since value means the
// same here as in the host's own date handling.
std::optional<Clock> parse_clock(std::string_view t) {
    Clock c;
    int* const fields[] = {&c.hour, &c.minute, &c.second};
    std::size_t pos = 0;
    const auto take_two = [&](int& field) {
        if (pos + 2 > t.size() || !is_digit(t[pos]) || !is_digit(t[pos + 1])) return false;
        field = number_at(t, pos, 2);
        pos += 2;
        return true;
    };
    if (!take_two(c.hour)) return std::nullopt;
    const bool colons = pos < t.size() && t[pos] == ':';
    for (int i = 1; i < 3 && pos < t.size(); ++i) {
        if (colons ? t[pos] != ':' : !is_digit(t[pos])) break;
        if (colons) ++pos;
        if (!take_two(*fields[i])) return std::nullopt;
    }
    if (pos < t.size() && (t[pos] == '.' || t[pos] == ',')) {
        const std::size_t start = ++pos;
        int kept = 0;
        for (; pos < t.size() && is_digit(t[pos]); ++pos) {
            if (kept < 6) {
                c.microsecond = c.microsecond * 10 + (t[pos] - '0');
                ++kept;
            }
        }
        if (pos == start) return std::nullopt;
        for (; kept < 6; ++kept) c.microsecond *= 10;
    }
    if (pos != t.size() || c.hour > 23 || c.minute > 59 || c.second > 59) return std::nullopt;
    return c;
}

struct IsoSpec {
    std::int64_t wall_micros = 0;          // the date and time as written
    std::optional<std::int64_t> offset;    // east of UTC, in microseconds; Z is 0
};

std::optional<IsoSpec> parse_iso(std::string_view s) {
    const std::size_t date_end = date_length(s);
    if (date_end > s.size()) return std::nullopt;
    const auto days = parse_date(s.substr(0, date_end));
    if (!days) return std::nullopt;
    IsoSpec iso;
    if (date_end == s.size()) {
        iso.wall_micros = to_micros(*days, 0, 0, 0, 0);
        return iso;
    }
    // One separator, any ASCII character, then a time.
    if (static_cast<unsigned char>(s[date_end]) >= 0x80) return std::nullopt;
    std::string_view time = s.substr(date_end + 1);
    const std::size_t zone_at = time.find_first_of("Z+-");
    const auto clock = parse_clock(time.substr(0, zone_at));
    if (!clock) return std::nullopt;
    iso.wall_micros = to_micros(*days, clock->hour, clock->minute, clock->second, clock->microsecond);
    if (zone_at == std::string_view::npos) return iso;
    const std::string_view zone = time.substr(zone_at);
    if (zone == "Z") {
        iso.offset = 0;
        return iso;
    }
    if (zone[0] == 'Z') return std::nullopt;
    // Hours below 24 keep the offset below 24 hours.
    const auto magnitude = parse_clock(zone.substr(1));
    if (!magnitude) return std::nullopt;
    const std::int64_t micros =
        ((magnitude->hour * 60LL + magnitude->minute) * 60 + magnitude->second) * kMicrosPerSecond +
        magnitude->microsecond;
    iso.offset = zone[0] == '-' ? -micros : micros;
    return iso;
}

}  // namespace

std::string invalid_since_message(std::string_view forms, std::string_view since) {
    return "since must be " + std::string(forms) + "; got " + python_repr(since);
}

std::string outside_calendar_message(std::string_view since) {
    return "since " + python_repr(since) + " reaches outside the calendar";
}

void throw_invalid_since(std::string_view since) {
    throw TimeSpecError(invalid_since_message(TIME_SPEC_FORMS, since), false);
}

void throw_outside_calendar(std::string_view since) {
    // The range failure travels as the nested cause, whether or not one is
    // being handled already.
    if (std::current_exception()) std::throw_with_nested(TimeSpecError(outside_calendar_message(since), true));
    try {
        throw OutsideCalendar();
    } catch (const OutsideCalendar&) {
        std::throw_with_nested(TimeSpecError(outside_calendar_message(since), true));
    }
}

bool positive_amount(std::string_view digits) {
    std::size_t pos = 0;
    const DigitRun run = read_digits(digits, pos, std::numeric_limits<std::uint64_t>::max());
    return pos == digits.size() && (!run.fits || run.magnitude > 0);
}

std::optional<RelativeSince> match_relative_since(std::string_view trimmed) {
    if (trimmed.size() < 2) return std::nullopt;
    const std::string_view unit = trimmed.substr(trimmed.size() - 1);
    bool known = false;
    for (const SpecUnit& u : SPEC_UNITS) known = known || u.letter == unit;
    if (!known) return std::nullopt;
    // The unit is one ASCII byte, so the digits end on a character boundary.
    const std::string_view digits = trimmed.substr(0, trimmed.size() - 1);
    std::size_t pos = 0;
    read_digits(digits, pos);
    if (pos != digits.size()) return std::nullopt;
    return RelativeSince{digits, unit};
}

std::optional<std::uint64_t> unit_micros(std::string_view name) {
    constexpr std::uint64_t ms = 1000, s = 1'000'000, min = 60 * s, h = 60 * min, d = 24 * h;
    static constexpr std::pair<std::string_view, std::uint64_t> kUnits[] = {
        {"weeks", 7 * d}, {"days", d}, {"hours", h}, {"minutes", min}, {"seconds", s}, {"milliseconds", ms},
        {"microseconds", 1}};
    for (const auto& [unit, micros] : kUnits)
        if (unit == name) return micros;
    return std::nullopt;
}

Moment subtract_span(const Moment& now, std::string_view digits, std::uint64_t unit) {
    std::size_t pos = 0;
    const DigitRun amount = read_digits(digits, pos, std::numeric_limits<std::uint64_t>::max());
    const std::int64_t start = to_micros(now);
    std::uint64_t span = 0;
    if (!amount.fits || __builtin_mul_overflow(amount.magnitude, unit, &span) || start < 0 ||
        span > static_cast<std::uint64_t>(start))
        throw OutsideCalendar();
    return from_micros(start - static_cast<std::int64_t>(span));
}

Moment parse_iso_since(std::string_view since, std::string_view trimmed) {
    const auto iso = trimmed.empty() ? std::nullopt : parse_iso(trimmed);
    if (!iso) throw_invalid_since(since);
    if (!iso->offset) return from_micros(iso->wall_micros);
    // Both ends are inside the calendar and the offset is below a day, so
    // none of this overflows.
    const std::int64_t utc = iso->wall_micros - *iso->offset;
    if (!in_calendar(utc)) throw_outside_calendar(since);
    const std::int64_t unix_seconds = floor_div(utc - kEpochMicros, kMicrosPerSecond);
    const std::int64_t local = utc + platform::local_offset_at(unix_seconds) * kMicrosPerSecond;
    if (!in_calendar(local)) throw_outside_calendar(since);
    return from_micros(local);
}

std::string format_moment(const Moment& m) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", m.year, m.month, m.day, m.hour, m.minute,
                  m.second);
    return buf;
}

namespace {
// The library's own steps: its pattern and units, the system clock (read
// only for a relative form, and then once).
struct NativeTimeSteps {
    using Result = Moment;
    const Moment* now;
    std::optional<RelativeSince> match_relative(std::string_view trimmed) { return match_relative_since(trimmed); }
    Moment relative(const RelativeSince& rel) {
        for (const SpecUnit& u : SPEC_UNITS)
            if (u.letter == rel.unit) return subtract_span(now ? *now : local_now(), rel.digits, *unit_micros(u.name));
        throw std::invalid_argument("unknown unit of a relative since value");
    }
    Moment local(const Moment& m) { return m; }
};
}  // namespace

Moment parse_time_spec(std::string_view since, const Moment& now) {
    NativeTimeSteps steps{&now};
    return parse_time_spec_with(steps, since);
}

Moment parse_time_spec(std::string_view since) {
    NativeTimeSteps steps{nullptr};
    return parse_time_spec_with(steps, since);
}

}  // namespace git_utils
