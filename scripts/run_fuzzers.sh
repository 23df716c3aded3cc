#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for a
# bounded time on a scratch copy of its seed corpus.
#
#   FUZZ_SECONDS   seconds per target (default 5)
#   FUZZ_JOBS      parallel build jobs (default: number of CPUs)
#   FUZZ_TARGETS   space-separated subset of targets (default: all)
#
# Crash, leak and timeout reproducers go to fuzz/artifacts/<target>/. Exits
# non-zero when any target fails.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="$ROOT/build/fuzz"
SECONDS_EACH="${FUZZ_SECONDS:-5}"
JOBS="${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}"
ALL_TARGETS="fuzz_file_changes fuzz_commit_log fuzz_line_spans fuzz_unquote fuzz_time_spec"
TARGETS="${FUZZ_TARGETS:-$ALL_TARGETS}"

# Longest input per target: whole outputs for the stream parsers, a name for
# unquoting, a since value for period starts.
max_len() {
    case "$1" in
        fuzz_unquote) echo 1024 ;;
        fuzz_time_spec) echo 256 ;;
        *) echo 65536 ;;
    esac
}

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DGIT_UTILS_FUZZ=ON -DGIT_UTILS_PYTHON=OFF -DGIT_UTILS_TESTS=OFF >/dev/null
# shellcheck disable=SC2086
cmake --build "$BUILD" -j "$JOBS" --target $TARGETS

WORK="$(mktemp -d "${TMPDIR:-/tmp}/git_utils_fuzz.XXXXXX")"
trap 'rm -rf "$WORK"' EXIT

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=()
for target in $TARGETS; do
    corpus="$WORK/$target"
    mkdir -p "$corpus"
    if [ -d "$ROOT/fuzz/corpus/$target" ]; then
        cp -R "$ROOT/fuzz/corpus/$target/." "$corpus/"
    fi
    artifacts="$ROOT/fuzz/artifacts/$target"
    mkdir -p "$artifacts"
    log="$WORK/$target.log"
    echo "== $target (${SECONDS_EACH}s)"
    if "$BUILD/$target" "$corpus" \
        -max_total_time="$SECONDS_EACH" \
        -rss_limit_mb=2048 \
        -timeout=10 \
        -max_len="$(max_len "$target")" \
        -print_final_stats=1 \
        -artifact_prefix="$artifacts/" >"$log" 2>&1; then
        grep -E '^stat::number_of_executed_units|^Done [0-9]+ runs' "$log" || true
    else
        failed+=("$target")
        tail -n 60 "$log"
        echo "!! $target failed; reproducers in $artifacts"
    fi
done

if [ "${#failed[@]}" -ne 0 ]; then
    echo "failing targets: ${failed[*]}"
    exit 1
fi
echo "all fuzz targets ran clean"
