// The output parsers: the raw + numstat stream, the commit log, the zero-context
// patch and C-style unquoting. Inputs are written as git writes them; several
// are captured from real git runs.
#include "utils/git_utils.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace git_utils {

void PrintTo(const FileChange& f, std::ostream* os) {
    *os << "{" << f.path << ", " << f.status << ", " << f.additions << ", " << f.deletions << ", "
        << (f.old_path ? *f.old_path : "<none>") << "}";
}
void PrintTo(const LineSpan& s, std::ostream* os) { *os << "{" << s.start << ", " << s.end << ", " << s.added << "}"; }

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// Tokens joined by NUL, as `-z` writes them.
std::string Z(std::initializer_list<std::string_view> tokens) {
    std::string out;
    for (std::string_view t : tokens) out.append(t).push_back('\0');
    return out;
}

FileChange FC(std::string path, std::string status, std::uint64_t add, std::uint64_t del,
              std::optional<std::string> old = std::nullopt) {
    return FileChange{std::move(path), std::move(status), add, del, std::move(old)};
}

const std::string kModHeader = ":100644 100644 1a2b3c4 5d6e7f8 ";

// ---------------------------------------------------------------------------
// Raw and numstat stream

struct FileChangesCase {
    const char* name;
    std::string output;
    std::vector<FileChange> expected;
};

class ParseFileChangesStream : public testing::TestWithParam<FileChangesCase> {};

TEST_P(ParseFileChangesStream, Records) { EXPECT_EQ(parse_file_changes(GetParam().output), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    ParseFileChanges, ParseFileChangesStream,
    testing::Values(
        FileChangesCase{"empty", "", {}}, FileChangesCase{"only_nuls", std::string(3, '\0'), {}},
        FileChangesCase{"modified", Z({kModHeader + "M", "src/a.c", "3\t1\tsrc/a.c", ""}),
                        {FC("src/a.c", "modified", 3, 1)}},
        FileChangesCase{"renamed", Z({kModHeader + "R086", "old/b.c", "new/b.c", "5\t2\t", "old/b.c", "new/b.c"}),
                        {FC("new/b.c", "renamed", 5, 2, "old/b.c")}},
        FileChangesCase{"copied", Z({kModHeader + "C075", "old/b.c", "new/b.c", "5\t2\t", "old/b.c", "new/b.c"}),
                        {FC("new/b.c", "copied", 5, 2, "old/b.c")}},
        FileChangesCase{"binary_and_missing_numstat", Z({kModHeader + "A", "logo.png", kModHeader + "D", "x", "-\t-\tlogo.png"}),
                        {FC("logo.png", "added", 0, 0), FC("x", "deleted", 0, 0)}},
        FileChangesCase{"numstat_without_raw", Z({"1\t1\tghost"}), {}},
        FileChangesCase{"other_letters_one_path",
                        Z({kModHeader + "T", "t", kModHeader + "U", "u", kModHeader + "X", "x", kModHeader, "e"}),
                        {FC("t", "modified", 0, 0), FC("u", "modified", 0, 0), FC("x", "modified", 0, 0),
                         FC("e", "modified", 0, 0)}},
        FileChangesCase{"header_without_space_letter_is_colon", Z({":R", "p"}), {FC("p", "modified", 0, 0)}},
        FileChangesCase{"truncated_header", Z({kModHeader + "M"}).substr(0, kModHeader.size() + 1), {}},
        FileChangesCase{"rename_with_one_token", kModHeader + "R100" + '\0' + "only", {}},
        FileChangesCase{"junk_skipped_alone", Z({"junk", kModHeader + "M", "a", "junk\tone tab", "2\t0\ta"}),
                        {FC("a", "modified", 2, 0)}},
        FileChangesCase{"leading_newlines", Z({"\n\n" + kModHeader + "M", "\nnl", "\n1\t2\t\nnl"}),
                        {FC("\nnl", "modified", 1, 2)}},
        FileChangesCase{"tab_in_path", Z({kModHeader + "M", "a\tb", "1\t0\ta\tb"}), {FC("a\tb", "modified", 1, 0)}},
        FileChangesCase{"order_of_raw_records_and_replacement",
                        Z({kModHeader + "M", "b", kModHeader + "A", "a", kModHeader + "R050", "src", "b", "1\t1\ta",
                           "2\t2\tb", "7\t7\ta"}),
                        {FC("b", "renamed", 2, 2, "src"), FC("a", "added", 7, 7)}},
        FileChangesCase{"numstat_before_raw", Z({"4\t5\tz", kModHeader + "M", "z"}), {FC("z", "modified", 4, 5)}},
        FileChangesCase{"uint64_counts", Z({kModHeader + "M", "a", "18446744073709551615\t99999999999999999999\ta"}),
                        {FC("a", "modified", std::numeric_limits<std::uint64_t>::max(),
                            std::numeric_limits<std::uint64_t>::max())}},
        // git diff --raw --numstat -M -z of a rename, a type change, a mode
        // change and a binary file.
        FileChangesCase{"real_git",
                        Z({":100644 100644 cfcc396 cfcc396 R100", "café ü.txt", "café ü moved.txt",
                           ":120000 100644 8d14cbf 3bcf9fd T", "link", ":100644 100755 260f450 260f450 M",
                           "numbers.txt", ":100644 100644 5d27a55 2306747 M", "real.bin", "0\t0\t", "café ü.txt",
                           "café ü moved.txt", "1\t1\tlink", "0\t0\tnumbers.txt", "-\t-\treal.bin", ""}),
                        {FC("café ü moved.txt", "renamed", 0, 0, "café ü.txt"), FC("link", "modified", 1, 1),
                         FC("numbers.txt", "modified", 0, 0), FC("real.bin", "modified", 0, 0)}}),
    [](const auto& info) { return std::string(info.param.name); });

struct CountCase {
    std::string field;
    std::string text;  // empty: not a count
    std::int64_t value;
    bool fits;
};

class ParseFileChangesCount : public testing::TestWithParam<CountCase> {};

TEST_P(ParseFileChangesCount, LineCount) {
    const CountCase& c = GetParam();
    Decimal d = line_count(c.field);
    EXPECT_EQ(d.text, c.text);
    EXPECT_EQ(d.fits, c.fits);
    if (c.fits) {
        EXPECT_EQ(d.value, c.value);
    }
    EXPECT_FALSE(d.negative);
}

INSTANTIATE_TEST_SUITE_P(
    ParseFileChanges, ParseFileChangesCount,
    testing::Values(CountCase{"0", "0", 0, true}, CountCase{"007", "007", 7, true}, CountCase{"-", "", 0, true},
                    CountCase{"", "", 0, true}, CountCase{"+1", "", 0, true}, CountCase{"1 ", "", 0, true},
                    CountCase{"\u0663\u0664", "\u0663\u0664", 34, true},  // Arabic-Indic digits
                    CountCase{"\U0001D7D9", "\U0001D7D9", 1, true},       // mathematical double-struck 1
                    CountCase{"\u00B2", "", 0, true},                     // superscript two is no Nd digit
                    CountCase{"\xC0\xB1", "", 0, true},                   // overlong "1"
                    CountCase{"9223372036854775807", "9223372036854775807", kMax, true},
                    CountCase{"9223372036854775808", "9223372036854775808", 0, false}));

TEST(ParseFileChangesViews, ViewsPointIntoInputAndCustomLetters) {
    std::string out = Z({kModHeader + "X", "from", "to", "1\t2\t", "from", "to"});
    auto views = file_change_views(split_nul(out), [](std::string_view l) { return l == "X"; });
    ASSERT_EQ(views.size(), 1u);
    EXPECT_EQ(views[0].path, "to");
    EXPECT_EQ(views[0].letter, "X");
    EXPECT_EQ(views[0].old_path, std::optional<std::string_view>("from"));
    EXPECT_EQ(views[0].additions.value, 1);
    EXPECT_GE(views[0].path.data(), out.data());
    EXPECT_LT(views[0].path.data(), out.data() + out.size());
    // The letter is a whole UTF-8 character.
    std::string wide = Z({":1 2 3 4 \u00C9xyz", "p"});
    EXPECT_EQ(file_change_views(split_nul(wide))[0].letter, "\u00C9");
}

// ---------------------------------------------------------------------------
// Commit log

TEST(ParseCommitLog, CommitsInOrderWithTheirOwnFiles) {
    std::string out = Z({"ignored", "\x1e" "1700000300", "\n" + kModHeader + "M", "x.c", "1\t1\tx.c",
                         "\x1e" "1700000200", "\n\n\x1e" "1700000100", "\n:000000 100644 0000000 5d6e7f8 A", "y.c",
                         "3\t0\ty.c", "1\t1\tx.c", "\x1e \t1700000000 \u3000", ""});
    std::vector<CommitChanges> expected = {{1700000300, {FC("x.c", "modified", 1, 1)}},
                                           {1700000200, {}},
                                           {1700000100, {FC("y.c", "added", 3, 0)}},
                                           {1700000000, {}}};
    EXPECT_EQ(parse_commit_changes(out), expected);
    EXPECT_TRUE(parse_commit_changes("").empty());
    EXPECT_TRUE(parse_commit_changes(Z({"no", "header"})).empty());
}

TEST(ParseCommitLog, PathIdsNameDistinctPathsAcrossCommits) {
    // Also many paths, so the id table grows while it is in use.
    std::vector<std::string> tokens = {"\x1e" "2"};
    for (int i = 0; i < 300; ++i) tokens.insert(tokens.end(), {kModHeader + "M", "f" + std::to_string(i)});
    tokens.insert(tokens.end(), {"\x1e" "1", kModHeader + "R050", "f7", "f299", kModHeader + "A", "new", ""});
    std::string out;
    for (const std::string& t : tokens) out += t + '\0';
    const CommitLogScan scan = commit_change_views(out);
    ASSERT_EQ(scan.commits.size(), 2u);
    ASSERT_EQ(scan.commits[1].file_count, 2u);
    EXPECT_EQ(scan.distinct_paths, 301u);  // the old path of a rename gets no id
    auto second = scan.files_of(scan.commits[1]);
    EXPECT_EQ(second[0].path, "f299");
    EXPECT_EQ(second[0].path_id, scan.files[299].path_id);
    EXPECT_EQ(second[1].path_id, 300u);
    for (std::size_t i = 0; i < 300; ++i) EXPECT_EQ(scan.files[i].path_id, i);
}

struct StampCase {
    std::string stamp;
    bool valid;
    std::int64_t value = 0;
    bool fits = true;
};

class ParseCommitLogStamp : public testing::TestWithParam<StampCase> {};

TEST_P(ParseCommitLogStamp, ReadLikePythonInt) {
    const StampCase& c = GetParam();
    // A valid commit after it shows whether the parse went on.
    const std::string log = Z({"\x1e" + c.stamp, "\x1e" "5"});
    auto views = commit_change_views(log).commits;
    ASSERT_EQ(views.size(), c.valid ? 2u : 1u);
    EXPECT_EQ(views[0].valid, c.valid);
    EXPECT_EQ(views[0].stamp, strip(c.stamp));
    if (!c.valid) {
        EXPECT_THROW(parse_commit_changes(Z({"\x1e" + c.stamp})), std::invalid_argument);
        return;
    }
    EXPECT_EQ(views[0].timestamp.fits, c.fits);
    EXPECT_EQ(views[0].timestamp.text, strip(c.stamp));
    if (c.fits) {
        EXPECT_EQ(views[0].timestamp.value, c.value);
        EXPECT_EQ(parse_commit_changes(Z({"\x1e" + c.stamp}))[0].timestamp, c.value);
    } else {
        EXPECT_THROW(parse_commit_changes(Z({"\x1e" + c.stamp})), std::out_of_range);
    }
}

INSTANTIATE_TEST_SUITE_P(
    ParseCommitLog, ParseCommitLogStamp,
    testing::Values(StampCase{"1700000000", true, 1700000000}, StampCase{"+12", true, 12}, StampCase{"-12", true, -12},
                    StampCase{"1_000", true, 1000}, StampCase{"\u0663\u0664", true, 34}, StampCase{" 7\n", true, 7},
                    StampCase{"-9223372036854775808", true, std::numeric_limits<std::int64_t>::min()},
                    StampCase{"9223372036854775808", true, 0, false}, StampCase{"", false}, StampCase{"-", false},
                    StampCase{"_1", false}, StampCase{"1_", false}, StampCase{"1__0", false}, StampCase{"+_1", false},
                    StampCase{"- 1", false}, StampCase{"1.5", false}, StampCase{"0x10", false},
                    StampCase{"1 2", false}));

// ---------------------------------------------------------------------------
// C-style unquoting

struct UnquoteCase {
    std::string in, out;
};

class UnquoteEscapes : public testing::TestWithParam<UnquoteCase> {};

TEST_P(UnquoteEscapes, Result) { EXPECT_EQ(unquote(GetParam().in), GetParam().out); }

INSTANTIATE_TEST_SUITE_P(
    Unquote, UnquoteEscapes,
    testing::Values(UnquoteCase{"", ""}, UnquoteCase{"plain café", "plain café"}, UnquoteCase{"a\\tb", "a\tb"},
                    UnquoteCase{"\\a\\b\\f\\n\\r\\t\\v", "\a\b\f\n\r\t\v"},
                    UnquoteCase{"\\303\\251t\\303\\251", "été"}, UnquoteCase{"\\303", "\uFFFD"},
                    UnquoteCase{"caf\\303\\251 ü", "café ü"}, UnquoteCase{"\\342\\202\\254", "€"},
                    UnquoteCase{"\\342\\202", "\uFFFD"}, UnquoteCase{"\\340\\200\\200", "\uFFFD\uFFFD\uFFFD"},
                    UnquoteCase{"\\303\\302\\251", "\uFFFD©"}, UnquoteCase{"\\12x", "12x"},
                    UnquoteCase{"\\012", "\n"}, UnquoteCase{"\\09", "09"}, UnquoteCase{"\\8", "8"},
                    UnquoteCase{"\\q\\N", "qN"}, UnquoteCase{"\\\"", "\""}, UnquoteCase{"a\\\\b", "a\\b"},
                    UnquoteCase{"a\\\\nb", "a\\nb"}, UnquoteCase{"a\\\\\\\\", "a\\\\"},
                    UnquoteCase{"abc\\", "abc\\"}, UnquoteCase{"\\\n", "\n"}, UnquoteCase{"\\é", "é"},
                    UnquoteCase{std::string("\\000", 4), std::string(1, '\0')}, UnquoteCase{"\\377", "\uFFFD"},
                    UnquoteCase{"\\1234", "S4"}));

TEST(UnquoteError, OctalAboveByte) {
    for (const char* text : {"\\400", "ok\\777", "\\303\\251\\500"}) EXPECT_THROW(unquote(text), OctalEscapeError) << text;
}

// ---------------------------------------------------------------------------
// Patch spans

struct PatchPathCase {
    std::string text;
    std::optional<std::string> path;
};

class ParseLineSpansPath : public testing::TestWithParam<PatchPathCase> {};

TEST_P(ParseLineSpansPath, PatchPath) { EXPECT_EQ(patch_path(GetParam().text), GetParam().path); }

INSTANTIATE_TEST_SUITE_P(
    ParseLineSpans, ParseLineSpansPath,
    testing::Values(PatchPathCase{"src/a.c", "src/a.c"}, PatchPathCase{"my file.txt\t", "my file.txt"},
                    PatchPathCase{"x\t\t", "x\t"}, PatchPathCase{"x \t", "x "}, PatchPathCase{"/dev/null", std::nullopt},
                    PatchPathCase{"/dev/null\t", std::nullopt}, PatchPathCase{"\"/dev/null\"", "/dev/null"},
                    PatchPathCase{"\"a\\tb\"", "a\tb"}, PatchPathCase{"\"", "\""}, PatchPathCase{"\"\"", ""},
                    PatchPathCase{"", ""}, PatchPathCase{"\"back\\\\slash.txt\"\t", "back\\slash.txt"}));

struct SpanCase {
    std::int64_t start, new_count, old_count;
    LineSpan expected;
};

class ParseLineSpansSpan : public testing::TestWithParam<SpanCase> {};

TEST_P(ParseLineSpansSpan, Span) {
    const SpanCase& c = GetParam();
    EXPECT_EQ(span(c.start, c.new_count, c.old_count), c.expected);
}

INSTANTIATE_TEST_SUITE_P(ParseLineSpans, ParseLineSpansSpan,
                         testing::Values(SpanCase{3, 1, 1, {3, 3, false}}, SpanCase{11, 2, 0, {11, 12, true}},
                                         SpanCase{4, 0, 2, {4, 4, false}}, SpanCase{0, 0, 2, {1, 1, false}},
                                         SpanCase{-9, 0, 1, {1, 1, false}}, SpanCase{1, 3, 0, {1, 3, true}},
                                         SpanCase{kMax, 5, 0, {kMax, kMax, true}},
                                         SpanCase{kMax - 1, kMax, 1, {kMax - 1, kMax, false}}));

struct PatchCase {
    const char* name;
    std::string patch;
    LineSpansByPath expected;
};

class ParseLineSpansPatch : public testing::TestWithParam<PatchCase> {};

TEST_P(ParseLineSpansPatch, Spans) { EXPECT_EQ(parse_line_spans(GetParam().patch), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    ParseLineSpans, ParseLineSpansPatch,
    testing::Values(
        PatchCase{"empty", "", {}}, PatchCase{"no_hunk", "diff --git a a\n--- a\n+++ a\n", {}},
        PatchCase{"replace", "diff --git src/a.c src/a.c\n--- src/a.c\n+++ src/a.c\n@@ -3 +3 @@\n-old\n+new\n",
                  {{"src/a.c", {{3, 3, false}}}}},
        PatchCase{"added_then_removed",
                  "+++ f\n@@ -10,0 +11,2 @@ int main(void)\n+a\n+b\n@@ -5,2 +4,0 @@\n-x\n-y\n@@ -1,2 +0,0 @@\n-p\n-q\n",
                  {{"f", {{11, 12, true}, {4, 4, false}, {1, 1, false}}}}},
        // Content lines that look like headers are counted, not read.
        PatchCase{"header_lookalikes_in_hunk",
                  "+++ a\n@@ -1,2 +1,2 @@\n--- x\n+++ b.txt\n\\ No newline at end of file\n+@@ -1 +1 @@\n"
                  "-@@ -5 +5 @@\n@@ -9 +9 @@\n-z\n+z\n",
                  {{"a", {{1, 2, false}, {9, 9, false}}}}},
        PatchCase{"deleted_file_consumes_its_lines",
                  "+++ /dev/null\n@@ -1,4 +0,0 @@\n-a\n-b\n-+++ c\n-d\n+++ e\n@@ -0,0 +1,3 @@\n+1\n+2\n+3\n",
                  {{"e", {{1, 3, true}}}}},
        PatchCase{"hunk_before_any_file_is_counted_off", "@@ -1 +1 @@\n-a\n+++ x\n@@ -2 +2 @@\n", {}},
        PatchCase{"empty_path_and_quoted", "+++ \n@@ -1 +1 @@\n-x\n+y\n+++ \"a\\tb\"\n@@ -0,0 +2 @@\n+z\n",
                  {{"", {{1, 1, false}}}, {"a\tb", {{2, 2, true}}}}},
        PatchCase{"paths_in_first_hunk_order", "+++ b\n@@ -1 +1 @@\n-x\n+y\n+++ a\n@@ -1 +1 @@\n-x\n+y\n+++ b\n@@ -5 +5 @@\n-x\n+y\n",
                  {{"b", {{1, 1, false}, {5, 5, false}}}, {"a", {{1, 1, false}}}}},
        PatchCase{"counts_run_negative", "+++ a\n@@ -1 +1,2 @@\n-x\n-y\n-z\n+q\n+r\n@@ -7 +7 @@\n",
                  {{"a", {{1, 2, false}, {7, 7, false}}}}},
        PatchCase{"non_ascii_digits", "+++ a\n@@ -\u0661 +\u0661\u0662,\u0660 @@\n", {{"a", {{12, 12, false}}}}},
        PatchCase{"carriage_return_stays_in_name", "+++ a\r\n@@ -1 +1 @@\n", {{"a\r", {{1, 1, false}}}}},
        // Not hunk headers: each is skipped and the next line read afresh.
        PatchCase{"malformed_headers",
                  "+++ a\n@@@ -1 +1 @@@\n@@ -1, +1 @@\n@@ -1 +1@@\n@@ -a +1 @@\n@@ -1 +1 @\n @@ -1 +1 @@\n@@ -1 -1 @@\n"
                  "@@ -1,2 +x @@\n@@ -1 +1,2,3 @@\n@@ -\u00B2 +1 @@\n",
                  {}},
        // git -U0 --no-prefix output.
        PatchCase{"real_git",
                  "diff --git a.txt a.txt\nindex b3c5a95..090d6ac 100644\n--- a.txt\n+++ a.txt\n@@ -1,2 +0,0 @@\n-line1\n"
                  "-line2\n@@ -5,0 +4 @@ line5\n+mainline\ndiff --git \"back\\\\slash.txt\" \"back\\\\slash.txt\"\n"
                  "--- \"back\\\\slash.txt\"\n+++ \"back\\\\slash.txt\"\n@@ -1,0 +2 @@ b\n+more\n"
                  "diff --git café ü.txt café ü.txt\n--- café ü.txt\t\n+++ café ü.txt\t\n@@ -1,0 +2 @@\n+ü\n"
                  "diff --git gone.txt gone.txt\ndeleted file mode 100644\n--- gone.txt\n+++ /dev/null\n"
                  "@@ -1,2 +0,0 @@\n-del\n-me\ndiff --git nonl.txt nonl.txt\nnew file mode 100644\n--- /dev/null\n"
                  "+++ nonl.txt\n@@ -0,0 +1 @@\n+no newline\n\\ No newline at end of file\n"
                  "diff --git real.bin real.bin\nindex 5d27a55..2306747 100644\nBinary files real.bin and real.bin differ\n",
                  {{"a.txt", {{1, 1, false}, {4, 4, true}}},
                   {"back\\slash.txt", {{2, 2, true}}},
                   {"café ü.txt", {{2, 2, true}}},
                   {"nonl.txt", {{1, 1, true}}}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ParseLineSpansScan, HeaderNumbersAndPlusLines) {
    const std::string big = "123456789012345678901234567890";
    std::string patch = "@@ -1 +2,0 @@\n-x\n+++ a\t\n+++ /dev/null\n@@ -3,4 +\u0665," + big + " @@\n+y\n+++ z\n";
    PatchScan scan = scan_patch(patch);
    EXPECT_EQ(scan.plus_lines, (std::vector<std::string_view>{"a\t", "/dev/null"}));  // "+++ z" is a hunk line
    ASSERT_EQ(scan.hunks.size(), 2u);
    EXPECT_EQ(scan.hunks[0].path_index, NO_PATH);
    EXPECT_EQ(scan.hunks[0].old_count.value, 1);
    EXPECT_EQ(scan.hunks[0].old_count.text, "");
    EXPECT_EQ(scan.hunks[1].path_index, 1u);
    EXPECT_EQ(scan.hunks[1].old_count.value, 4);
    EXPECT_EQ(scan.hunks[1].start.text, "\u0665");
    EXPECT_EQ(scan.hunks[1].start.value, 5);
    EXPECT_FALSE(scan.hunks[1].new_count.fits);
    EXPECT_EQ(scan.hunks[1].new_count.text, big);
    // A count beyond int64 saturates in the owned records.
    EXPECT_EQ(parse_line_spans("+++ f\n@@ -1 +3," + big + " @@\n"), (LineSpansByPath{{"f", {{3, kMax, false}}}}));
}

TEST(ParseLineSpansError, BadEscapeAnywhereFailsTheParse) {
    EXPECT_THROW(parse_line_spans("+++ a\n@@ -1,0 +1 @@\n+x\n+++ \"\\400\"\n"), OctalEscapeError);
}

}  // namespace
}  // namespace git_utils
