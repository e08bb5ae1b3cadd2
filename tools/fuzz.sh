#!/usr/bin/env bash
# Builds the engine's libFuzzer targets with clang and runs each for a bounded time.
#
#   tools/fuzz.sh [SECONDS-PER-TARGET] [TARGET...]
#
# SECONDS defaults to 60; the targets are fuzz_pcl5, fuzz_pclxl and fuzz_input (all by default).
# The build goes to $QX_FUZZ_BUILD (default: build-fuzz beside the source tree's build folder).
# Seeds are the generated corpus (tools/corpus/make_corpus.sh), cut to 64 KiB each. Inputs that
# crash, leak, hang (10 s) or use more than 2 GB are written to $QX_FUZZ_BUILD/crashes/TARGET/.
# Exit status: 0 when no target found anything, 1 when one did, 2 when a target did not build.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
SECONDS_EACH=${1:-60}
shift $(( $# > 0 ? 1 : 0 ))
TARGETS=("$@")
[ ${#TARGETS[@]} -gt 0 ] || TARGETS=(fuzz_pcl5 fuzz_pclxl fuzz_input)
BUILD=${QX_FUZZ_BUILD:-$ROOT/build-fuzz}
JOBS=${QX_FUZZ_JOBS:-2}
CC_BIN=${CC:-clang-14}
CXX_BIN=${CXX:-clang++-14}
command -v "$CXX_BIN" > /dev/null || CXX_BIN=clang++
command -v "$CC_BIN" > /dev/null || CC_BIN=clang

echo "fuzz: building into $BUILD"
mkdir -p "$BUILD"
if ! cmake -S "$ROOT/fuzz" -B "$BUILD" -DCMAKE_C_COMPILER="$CC_BIN" -DCMAKE_CXX_COMPILER="$CXX_BIN" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$BUILD/configure.log" 2>&1; then
    cat "$BUILD/configure.log" >&2
    exit 2
fi
status=0
built=()
for t in "${TARGETS[@]}"; do
    if cmake --build "$BUILD" -j"$JOBS" --target "$t" > "$BUILD/build-$t.log" 2>&1; then
        built+=("$t")
    else
        echo "fuzz: $t does not build; see $BUILD/build-$t.log" >&2
        grep -E 'error' "$BUILD/build-$t.log" | head -5 >&2
        status=2
    fi
done

# Seeds from the generated corpus.
if [ ! -f "$BUILD/corpus/manifest.tsv" ]; then
    "$ROOT/tools/corpus/make_corpus.sh" "$BUILD/corpus" 2> "$BUILD/corpus.log" || {
        echo "fuzz: corpus generation failed, see $BUILD/corpus.log" >&2
        exit 2
    }
fi
seed() { # DIR FILES...
    local dir=$1 f
    shift
    mkdir -p "$dir"
    for f in "$@"; do
        [ -f "$f" ] && head -c 65536 "$f" > "$dir/$(basename "$f")"
    done
}
seed "$BUILD/seeds/fuzz_pcl5" "$BUILD"/corpus/pcl5/*.pcl
seed "$BUILD/seeds/fuzz_pclxl" "$BUILD"/corpus/pclxl/*.pxl
seed "$BUILD/seeds/fuzz_input" "$BUILD"/corpus/pcl5/*.pcl "$BUILD"/corpus/pclxl/*.pxl "$BUILD"/corpus/src/text.ps

# The resident fonts staged by the build.
export PCLFONTSOURCE=${PCLFONTSOURCE:-$BUILD/stage/fonts}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}

for t in "${built[@]}"; do
    dict=
    case $t in
        fuzz_pcl5 | fuzz_input) dict=-dict=$ROOT/fuzz/pcl5.dict ;;
        fuzz_pclxl) dict=-dict=$ROOT/fuzz/pclxl.dict ;;
    esac
    work="$BUILD/runs/$t"
    crashes="$BUILD/crashes/$t"
    mkdir -p "$work" "$crashes"
    echo "fuzz: $t for $SECONDS_EACH s"
    "$BUILD/$t" $dict -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
        -print_final_stats=1 -artifact_prefix="$crashes/" "$work" "$BUILD/seeds/$t" \
        > "$BUILD/runs/$t.log" 2>&1
    rc=$?
    grep -E '^stat::(number_of_executed_units|peak_rss_mb|new_units_added)|cov:' "$BUILD/runs/$t.log" | tail -4
    if [ $rc -ne 0 ]; then
        [ $status -eq 2 ] || status=1
        echo "fuzz: $t FOUND A PROBLEM (exit $rc); log $BUILD/runs/$t.log, inputs in $crashes/"
        grep -E 'ERROR: |SUMMARY: |Test unit written' "$BUILD/runs/$t.log" | head -5
    else
        echo "fuzz: $t clean"
    fi
done
exit $status
