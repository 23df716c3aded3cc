// Period starts (`since` values): a relative span ("30m", "24h", "7d", "2w")
// or an ISO 8601 date or date-time, read as the local moment a period starts.
//
// The reading is written once, as a template over the steps a host may
// replace: the pattern of the relative form, and how a span is taken from
// the current time (the unit table, the clock, the date types). The native
// steps are in core/timespec.cpp.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "src/core/text.hpp"
#include "utils/git_utils.hpp"

namespace git_utils {

// A relative form as its pattern matched it: the amount's digits and the
// unit, as views that the match step keeps alive.
struct RelativeSince {
    std::string_view digits;
    std::string_view unit;
};

// Thrown by a relative step when the span or the result leaves the calendar.
struct OutsideCalendar : std::overflow_error {
    OutsideCalendar() : std::overflow_error("date value out of range") {}
};

// The messages of the two errors, with the accepted forms as given.
std::string invalid_since_message(std::string_view forms, std::string_view since);
std::string outside_calendar_message(std::string_view since);

[[noreturn]] void throw_invalid_since(std::string_view since);
// Throws the calendar error with the range failure being handled as its
// nested cause; call it from a handler of OutsideCalendar or on its own.
[[noreturn]] void throw_outside_calendar(std::string_view since);

// Whether `digits` are all Unicode decimal digits and not all zero.
bool positive_amount(std::string_view digits);

// The ISO 8601 reading of `trimmed` (`since` stripped; `since` as given, for the
// errors): the local wall-clock moment, an instant with a zone converted
// with the system's zone rules in force now.
Moment parse_iso_since(std::string_view since, std::string_view trimmed);

// The relative form with the library's own pattern: digits (any Unicode
// decimal digits), then one of the unit letters, and nothing else. Its
// regular expression, for the host:
inline constexpr const char* RELATIVE_SPEC_PATTERN = "(\\d+)([mhdw])";
std::optional<RelativeSince> match_relative_since(std::string_view trimmed);

// The unit letters of the relative form and the names of their units (the
// keyword names of Python's timedelta).
struct SpecUnit {
    std::string_view letter;
    std::string_view name;
};
inline constexpr SpecUnit SPEC_UNITS[] = {{"m", "minutes"}, {"h", "hours"}, {"d", "days"}, {"w", "weeks"}};

// The length of a unit named as timedelta names it (weeks, days, hours,
// minutes, seconds, milliseconds, microseconds), in microseconds.
std::optional<std::uint64_t> unit_micros(std::string_view name);

// `now` minus `digits` (decimal digits) times `unit` microseconds; throws
// OutsideCalendar.
Moment subtract_span(const Moment& now, std::string_view digits, std::uint64_t unit);

// `parse_time_spec`. `Steps` provides:
//   using Result;
//   std::optional<RelativeSince> match_relative(std::string_view trimmed);  // all of it, or none
//   Result relative(const RelativeSince&);   // now minus the span; throws OutsideCalendar
//   Result local(const Moment&);            // a moment of the ISO reading
template <class Steps>
typename Steps::Result parse_time_spec_with(Steps& steps, std::string_view since) {
    const std::string_view trimmed = strip(since);
    if (const std::optional<RelativeSince> rel = steps.match_relative(trimmed)) {
        // An amount of 0 is no period; the ISO reading is not tried for it.
        if (!positive_amount(rel->digits)) throw_invalid_since(since);
        try {
            return steps.relative(*rel);
        } catch (const OutsideCalendar&) {
            throw_outside_calendar(since);
        }
    }
    return steps.local(parse_iso_since(since, trimmed));
}

}  // namespace git_utils
