// `parse_time_spec` at the boundary: the core's reading of since values
// (src/core/timespec.hpp) with steps that use the namespace's
// `_RELATIVE_SPEC`, `_SPEC_UNITS`, `datetime` and `timedelta`, natively
// while they are the module's own (or, for the unit table, while it names
// units the core knows), and the two errors worded with `TIME_SPEC_FORMS`
// as the namespace holds it.
#include "common.hpp"
#include "src/core/timespec.hpp"

namespace git_utils::binding {
namespace {

// How errors name what a host's _RELATIVE_SPEC and parse_time_spec gave.
constexpr ArgName SPEC_DIGITS{"parse_time_spec", "_RELATIVE_SPEC group 1"};
constexpr ArgName SPEC_UNIT{"parse_time_spec", "_RELATIVE_SPEC group 2"}, SPEC_RESULT{"parse_time_spec", "result"};

class TimeSteps {
public:
    using Result = Ref;

    explicit TimeSteps(const Call& call)
        : call_(call), pattern_(call.get(_RELATIVE_SPEC)), datetime_(call.get(datetime)) {}

    std::optional<RelativeSince> match_relative(std::string_view trimmed) {
        if (call_.is_own(_RELATIVE_SPEC, pattern_)) return match_relative_since(trimmed);
        Ref text = str_from_utf8(trimmed);
        Ref m = call_method(pattern_.get(), "fullmatch", {text.get()});
        if (m.get() == Py_None) return std::nullopt;
        Ref digits = call_method(m.get(), "group", {small_int(1).get()});
        Ref unit = call_method(m.get(), "group", {small_int(2).get()});
        digits_ = str_argument({digits.get(), SPEC_DIGITS});
        unit_ = str_argument({unit.get(), SPEC_UNIT});
        return RelativeSince{digits_, unit_};
    }

    Result relative(const RelativeSince& rel) {
        // now - timedelta(**{_SPEC_UNITS[unit]: amount})
        Ref units = call_.get(_SPEC_UNITS);
        Ref letter = str_from_utf8(rel.unit);
        Ref unit = check(PyObject_GetItem(units.get(), letter.get()));
        Ref timedelta_cls = call_.get(timedelta);
        if (call_.is_own(datetime, datetime_) && call_.is_own(timedelta, timedelta_cls) && PyUnicode_CheckExact(unit.get())) {
            if (const std::optional<std::uint64_t> micros = unit_micros(utf8_of(unit.get())))
                return local(subtract_span(local_now(), rel.digits, *micros));
        }
        Ref amount = int_object(read_decimal_integer(rel.digits).value_or(Integer()));
        Ref now = call_method(datetime_.get(), "now");
        Ref kwargs = check(PyDict_New());
        check(PyDict_SetItem(kwargs.get(), unit.get(), amount.get()));
        Ref span(call_python(timedelta_cls.get(), nullptr, 0, kwargs.get()));
        Ref result = span ? Ref(PyNumber_Subtract(now.get(), span.get())) : Ref();
        if (result) return result;
        if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw PyErrSet{};
        cause_ = Ref(PyErr_GetRaisedException());  // becomes the calendar error's cause
        throw OutsideCalendar();
    }

    Result local(const Moment& m) {
        Ref parts[7] = {small_int(m.year),   small_int(m.month),  small_int(m.day),        small_int(m.hour),
                        small_int(m.minute), small_int(m.second), small_int(m.microsecond)};
        return invoke(datetime_.get(), {parts[0].get(), parts[1].get(), parts[2].get(), parts[3].get(), parts[4].get(),
                                        parts[5].get(), parts[6].get()});
    }

    Ref take_cause() { return std::move(cause_); }

private:
    const Call& call_;
    Ref pattern_;
    Ref datetime_;
    std::string digits_, unit_;
    Ref cause_;
};

// A ValueError with `message`, and `cause` as its __cause__ when given.
[[noreturn]] void raise_value_error(const std::string& message, Ref cause) {
    Ref text = str_from_utf8(message);
    Ref error = invoke(PyExc_ValueError, {text.get()});
    if (cause) PyException_SetCause(error.get(), cause.release());
    PyErr_SetObject(PyExc_ValueError, error.get());
    throw PyErrSet{};
}

// `parse_time_spec` with the module's own function: the moment as a datetime.
Ref own_time_spec(const Call& call, PyObject* since) {
    Ref held = Ref::borrow(since);
    std::string text = utf8_of(held.get());
    TimeSteps steps(call);
    try {
        return parse_time_spec_with(steps, text);
    } catch (const TimeSpecError& e) {
        if (e.out_of_calendar()) {
            Ref cause = steps.take_cause();
            if (!cause) {
                Ref message = check(PyUnicode_FromString("date value out of range"));
                cause = invoke(PyExc_OverflowError, {message.get()});
            }
            raise_value_error(e.what(), std::move(cause));
        }
        Ref forms = call.get(TIME_SPEC_FORMS);
        Ref forms_text = check(PyObject_Str(forms.get()));
        raise_value_error(invalid_since_message(utf8_of(forms_text.get()), text), Ref());
    }
}

}  // namespace

Moment period_start(const Call& call, std::string_view since) {
    Ref text = str_from_utf8(since);
    Ref fn = call.get(parse_time_spec);
    Ref moment = call.is_own(parse_time_spec, fn) ? own_time_spec(call, text.get())
                                                  : invoke(fn.get(), {text.get()});
    return moment_argument(call, {moment.get(), SPEC_RESULT});
}

Ref impl(const Call& call, Args<parse_time_spec> args) {
    require_str(args.since());
    return own_time_spec(call, args.since());
}

}  // namespace git_utils::binding
