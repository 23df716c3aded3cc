// Fuzzes period starts (relative spans and ISO 8601 dates and date-times) on
// arbitrary bytes and on the same bytes decoded as git's output is. Every
// input either gives a moment of the calendar or one of the two errors, whose
// message quotes the input; and the answers agree with each other:
//   - a moment written for git ("%Y-%m-%d %H:%M:%S") reads back as itself;
//   - a text the ISO reading accepts means the same whatever `now` is;
//   - otherwise the text counts back from `now`: the same span from each
//     `now`, measured with the C library's own calendar (timegm).
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "src/core/timespec.hpp"
#include "utils/git_utils.hpp"

namespace {

using git_utils::Moment;

// Clock readings to count back from: an ordinary one, and both ends of the
// calendar.
constexpr Moment kNows[] = {{2026, 6, 15, 12, 34, 56, 789012}, {1, 1, 1, 0, 0, 0, 0}, {9999, 12, 31, 23, 59, 59, 999999}};

// Microseconds since the epoch, by the C library's calendar.
std::int64_t micros(const Moment& m) {
    struct tm t {};
    t.tm_year = m.year - 1900, t.tm_mon = m.month - 1, t.tm_mday = m.day;
    t.tm_hour = m.hour, t.tm_min = m.minute, t.tm_sec = m.second;
    return static_cast<std::int64_t>(timegm(&t)) * 1'000'000 + m.microsecond;
}

// Well-formed UTF-8 without CR: what decoding git's output leaves unchanged.
bool clean(std::string_view text) {
    std::string copy(text);
    git_utils::decode_git_text(copy);
    return copy == text;
}

std::optional<Moment> parse(std::string_view since, const Moment* now, std::optional<std::string>* error) {
    try {
        return now ? git_utils::parse_time_spec(since, *now) : git_utils::parse_iso_since(since, git_utils::strip(since));
    } catch (const git_utils::TimeSpecError& e) {
        const std::string quoted = git_utils::python_repr(since);
        const std::string expected =
            e.out_of_calendar() ? "since " + quoted + " reaches outside the calendar"
                                : "since must be " + std::string(git_utils::TIME_SPEC_FORMS) + "; got " + quoted;
        if (e.what() != expected) __builtin_trap();
        if (clean(since) && !clean(e.what())) __builtin_trap();
        *error = e.what();
        return std::nullopt;
    }
}

void check(std::string_view since) {
    std::optional<std::string> iso_error;
    const std::optional<Moment> iso = parse(since, nullptr, &iso_error);

    std::optional<std::int64_t> span;
    for (const Moment& now : kNows) {
        std::optional<std::string> error;
        const std::optional<Moment> m = parse(since, &now, &error);
        if (!m) {
            if (iso) __builtin_trap();  // the ISO reading succeeded where the full one failed
            continue;
        }
        // A moment outside the calendar would not read back: the parse below
        // throws, and the fuzzer reports the uncaught exception.
        if (m->microsecond < 0 || m->microsecond > 999'999) __builtin_trap();
        Moment whole = *m;
        whole.microsecond = 0;
        if (git_utils::parse_time_spec(git_utils::format_moment(*m), now) != whole) __builtin_trap();
        if (iso) {
            if (*m != *iso) __builtin_trap();
            continue;
        }
        // A relative form: never after `now`, and the same span from every `now`.
        const std::int64_t back = micros(now) - micros(*m);
        if (back <= 0 || (span && *span != back)) __builtin_trap();
        span = back;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A zone with an offset in minutes, so that zoned forms move across days.
    setenv("TZ", "<+0545>-5:45", 1);
    tzset();
    return 0;
}

#include "fuzz_entry.hpp"
