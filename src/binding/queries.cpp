// The repository operations at the boundary: roots, branch names and the
// queries. Each converts its arguments and runs the core's query
// (src/core/queries.hpp) with a policy that routes every git run through
// `run_git_command` and `_git_output`, and every parse through the parser,
// as the namespace holds them at the call.
#include "common.hpp"
#include "src/core/queries.hpp"
#include "src/core/roots.hpp"

namespace git_utils::binding {
namespace {

// How errors name what the namespace's _PATCH_OPTIONS and _path_batches hold.
constexpr ArgName PATCH_OPTIONS_NAME{"diff_line_spans", "_PATCH_OPTIONS"};
constexpr ArgName PATH_BATCHES_NAME{"diff_line_spans", "_path_batches result"};

// `_MAX_PATHSPEC_CHARS` as the namespace holds it, as a 64-bit budget.
std::int64_t path_budget(const Call& call) {
    Ref value = call.get(_MAX_PATHSPEC_CHARS);
    if (!PyLong_Check(value.get()))
        raise(PyExc_TypeError, "_MAX_PATHSPEC_CHARS must be an int, not %.100s", Py_TYPE(value.get())->tp_name);
    int overflow = 0;
    const long long budget = PyLong_AsLongLongAndOverflow(value.get(), &overflow);
    if (budget == -1 && PyErr_Occurred()) throw PyErrSet{};
    return overflow > 0 ? INT64_MAX : overflow < 0 ? INT64_MIN : budget;
}


// The queries' policy: git runs, parsers and the other steps as the
// namespace holds them at the call.
class BindingGit {
public:
    using Text = binding::Text;

    BindingGit(const Call& call, PyObject* repo_root, const Param& paths = {})
        : call_(call), root_(Ref::borrow(repo_root)), paths_(Ref::borrow(paths.value)), paths_name_(paths.name) {}

    RunOutcome run(std::vector<std::string> args, StdinMode mode = StdinMode::Inherit) {
        RunRequest request{root_.get(), std::move(args)};
        request.stdin_mode = mode;
        return run_through_namespace(call_, request);
    }

    Text output(std::vector<std::string> args) {
        Ref fn = call_.get(_git_output);
        if (call_.is_own(_git_output, fn)) {
            RunRequest request{root_.get(), std::move(args)};
            return Text(checked_own(call_, request));
        }
        Ref list = str_list(args);
        Ref out = invoke(fn.get(), {root_.get(), list.get()});
        if (!PyUnicode_Check(out.get()))
            raise(PyExc_TypeError, "_git_output must return str, not %.100s", Py_TYPE(out.get())->tp_name);
        return Text(std::move(out));
    }
    static std::string_view view(const Text& t) { return t.view(); }

    Ref parse_file_changes(Text&& t) { return file_changes_of(call_, t); }
    Ref parse_commit_changes(Text&& t) { return commit_changes_of(call_, t); }
    Ref parse_line_spans(Text&& t) { return line_spans_of(call_, t); }

    static Ref new_spans() { return check(PyDict_New()); }
    static void merge_spans(Ref& into, Ref&& from) { check(PyDict_Update(into.get(), from.get())); }

    std::vector<std::string> patch_options() {
        Ref options = call_.get(_PATCH_OPTIONS);
        if (call_.is_own(_PATCH_OPTIONS, options)) return args::patch_options();  // a tuple: it cannot change
        return str_list_argument({options.get(), PATCH_OPTIONS_NAME});
    }

    bool has_paths() { return check(PyObject_IsTrue(paths_.get())) == 1; }

    std::vector<std::vector<std::string>> path_batches() {
        Ref fn = call_.get(_path_batches);
        std::vector<std::vector<std::string>> batches;
        if (call_.is_own(_path_batches, fn))
            return git_utils::path_batches(str_list_argument({paths_.get(), paths_name_}, true),
                                           path_budget(call_));
        Ref got = invoke(fn.get(), {paths_.get()});
        Ref outer = host_tuple(got.get());
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(outer.get()); ++i)
            batches.push_back(str_list_argument({PyTuple_GET_ITEM(outer.get(), i), PATH_BATCHES_NAME}));
        return batches;
    }

    Moment period_start(std::string_view since) { return binding::period_start(call_, since); }

    void shortlog_failed(const RunOutcome& result, std::string_view stderr_stripped) {
        Ref rc = int_object(result.returncode);
        Ref err = str_from_utf8(stderr_stripped);
        log(call_, "debug", "get_authors_for_period: git shortlog failed rc=%s stderr=%s", {rc.get(), err.get()});
    }

private:
    const Call& call_;
    Ref root_;
    Ref paths_;
    ArgName paths_name_;
};

Ref text_or_none(const std::optional<std::string>& text) { return text ? str_from_utf8(*text) : Ref::borrow(Py_None); }



// A `start` as the operating system names it: os.fspath, then its bytes; no
// value for a name the system cannot represent (it is in no repository).
std::optional<std::string> start_path(PyObject* start) {
    Ref path = check(PyOS_FSPath(start));
    Ref bytes;
    if (PyUnicode_Check(path.get())) {
        bytes = Ref(PyUnicode_EncodeFSDefault(path.get()));
        if (!bytes) {
            PyErr_Clear();
            return std::nullopt;
        }
    } else {
        bytes = path;
    }
    std::string s(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
    if (s.find('\0') != std::string::npos) return std::nullopt;
    return s;
}

}  // namespace

Ref impl(const Call& call, Args<find_git_root> args) {
    std::optional<std::string> start;
    if (args.start() != Py_None) {
        start = start_path(args.start());
        if (!start) return Ref::borrow(Py_None);
    }
    const std::optional<std::string> root = git_utils::find_git_root(std::move(start));
    return root ? path_object(call, *root) : Ref::borrow(Py_None);
}

Ref impl(const Call& call, Args<find_repo_root>) {
    auto find = [&]() -> Ref {
        Ref fn = call.get(find_git_root);
        PyObject* const none[] = {Py_None};
        Ref root = call.is_own(find_git_root, fn) ? impl(call, Args<find_git_root>{none}) : invoke(fn.get(), {});
        return root.get() == Py_None ? Ref() : root;
    };
    return find_repo_root_with(find, [&] { return path_object(call, current_directory()); });
}

Ref impl(const Call& call, Args<resolve_display_branch> args) {
    BindingGit git(call, args.repo_root());
    return text_or_none(git_utils::resolve_display_branch(git));
}

Ref impl(const Call&, Args<normalize_branch_name> args) {
    if (args.name() == Py_None) return Ref::borrow(Py_None);
    const std::string name = str_argument(args.name());
    return text_or_none(git_utils::normalize_branch_name(name));
}

Ref impl(const Call& call, Args<get_head_commit> args) {
    const bool short_id = check(PyObject_IsTrue(args.short_id())) == 1;
    BindingGit git(call, args.repo_root());
    return text_or_none(git_utils::get_head_commit(git, short_id));
}

Ref impl(const Call& call, Args<get_default_branch> args) {
    BindingGit git(call, args.repo_root());
    return str_from_utf8(git_utils::get_default_branch(git));
}

Ref impl(const Call& call, Args<branch_exists> args) {
    const std::string branch = str_argument(args.branch());
    BindingGit git(call, args.repo_root());
    return Ref::borrow(git_utils::branch_exists(git, branch) ? Py_True : Py_False);
}

Ref impl(const Call& call, Args<get_authors_for_period> args) {
    const std::string since = str_argument(args.since());
    BindingGit git(call, args.repo_root());
    ListBuilder list;
    git_utils::authors_for_period(git, since, [&](std::string_view name, std::string_view email, const Integer& commits) {
        Ref name_object = str_from_utf8(name), email_object = str_from_utf8(email);
        Ref count = int_object(commits);
        list.add(check(Py_BuildValue("{s:O,s:O,s:O}", "name", name_object.get(), "email", email_object.get(), "commits",
                                     count.get())));
    });
    return list.list();
}

Ref impl(const Call& call, Args<resolve_commit> args) {
    const std::string name = str_argument(args.name());
    BindingGit git(call, args.repo_root());
    return text_or_none(git_utils::resolve_commit(git, name));
}

Ref impl(const Call& call, Args<count_commits> args) {
    const std::string base = str_argument(args.base());
    const std::string head = str_argument(args.head());
    BindingGit git(call, args.repo_root());
    return int_object(git_utils::count_commits(git, base, head));
}

Ref impl(const Call& call, Args<commit_before> args) {
    const std::string ref = str_argument(args.ref());
    const Moment moment = moment_argument(call, args.moment());
    BindingGit git(call, args.repo_root());
    return text_or_none(git_utils::commit_before(git, ref, moment));
}

Ref impl(const Call& call, Args<diff_file_changes> args) {
    const std::string base = str_argument(args.base());
    const std::string head = str_argument(args.head());
    BindingGit git(call, args.repo_root());
    return git_utils::diff_file_changes(git, base, head);
}

Ref impl(const Call& call, Args<log_commit_changes> args) {
    const Moment since = moment_argument(call, args.since());
    std::optional<std::string> ref;
    if (args.ref() != Py_None) ref = str_argument(args.ref());
    if (!PyLong_Check(args.max_commits())) wrong_type(args.max_commits(), "be int");
    Ref count = check(PyNumber_Long(args.max_commits()));  // True counts as 1, written as such
    Ref digits = check(PyObject_Str(count.get()));
    BindingGit git(call, args.repo_root());
    return git_utils::log_commit_changes(git, since, ref, utf8_of(digits.get()));
}

Ref impl(const Call& call, Args<diff_line_spans> args) {
    const std::string base = str_argument(args.base());
    const std::string head = str_argument(args.head());
    const bool merge_base = check(PyObject_IsTrue(args.merge_base())) == 1;
    if (PyUnicode_Check(args.paths()) || PyBytes_Check(args.paths()) || PyByteArray_Check(args.paths()))
        wrong_type(args.paths(), "be a sequence of str");
    const std::string filter = str_argument(args.diff_filter());
    BindingGit git(call, args.repo_root(), args.paths());
    return git_utils::diff_line_spans(git, base, head, merge_base, filter);
}

Ref impl(const Call& call, Args<_path_batches> args) {
    if (PyUnicode_Check(args.paths()) || PyBytes_Check(args.paths())) wrong_type(args.paths(), "be a sequence of str");
    // A tuple of its own: len() of a path may run the host's code.
    Ref paths = check(PySequence_Tuple(args.paths()));
    const std::int64_t budget = path_budget(call);
    const std::vector<std::size_t> sizes = path_batch_sizes(
        static_cast<std::size_t>(PyTuple_GET_SIZE(paths.get())),
        [&](std::size_t i) {
            const Py_ssize_t n = PyObject_Length(PyTuple_GET_ITEM(paths.get(), static_cast<Py_ssize_t>(i)));
            if (n < 0) throw PyErrSet{};
            return n;
        },
        budget);
    ListBuilder batches;
    Py_ssize_t next = 0;
    for (std::size_t size : sizes) {
        ListBuilder batch;
        for (std::size_t k = 0; k < size; ++k) batch.add(Ref::borrow(PyTuple_GET_ITEM(paths.get(), next++)));
        batches.add(batch.list());
    }
    return batches.list();
}

}  // namespace git_utils::binding
