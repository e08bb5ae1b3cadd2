#!/usr/bin/env bash
# Builds the engine's libFuzzer targets with clang and runs each for a bounded time.
#
#   tools/fuzz.sh [SECONDS-PER-TARGET] [TARGET...]
#
# SECONDS defaults to 60. The targets are every one that fuzz/CMakeLists.txt defines with
# qx_fuzz_target() (all by default); the configure step lists them in $QX_FUZZ_BUILD/targets.txt.
# The build goes to $QX_FUZZ_BUILD (default: build-fuzz in the source tree), through ccache
# when it is installed.
# Seeds come from the generated corpus (tools/corpus/make_corpus.sh), cut to 64 KiB each: the
# one in $QX_FUZZ_CORPUS when it holds a manifest.tsv (tools/test.sh passes the one the tests
# just made), else one generated into the build folder. fuzz_pcl5, fuzz_pclxl and fuzz_input
# get the PCL 5 and PCL XL files; any other target fuzz_NAME gets the corpus folder NAME/ and
# the files in fuzz/seeds/fuzz_NAME/, when there are any, and the dictionary fuzz/NAME.dict.
# Inputs that crash, leak, hang (10 s) or use more than 2 GB are written to
# $QX_FUZZ_BUILD/crashes/TARGET/.
# Exit status: 0 when no target found anything, 1 when one did, 2 when a target did not build.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
SECONDS_EACH=${1:-60}
shift $(( $# > 0 ? 1 : 0 ))
TARGETS=("$@")
BUILD=${QX_FUZZ_BUILD:-$ROOT/build-fuzz}
JOBS=${QX_FUZZ_JOBS:-2}
CC_BIN=${CC:-clang-14}
CXX_BIN=${CXX:-clang++-14}
command -v "$CXX_BIN" > /dev/null || CXX_BIN=clang++
command -v "$CC_BIN" > /dev/null || CC_BIN=clang
launcher=()
if command -v ccache > /dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

echo "fuzz: building into $BUILD"
mkdir -p "$BUILD"
if ! cmake -S "$ROOT/fuzz" -B "$BUILD" -DCMAKE_C_COMPILER="$CC_BIN" -DCMAKE_CXX_COMPILER="$CXX_BIN" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" > "$BUILD/configure.log" 2>&1; then
    cat "$BUILD/configure.log" >&2
    exit 2
fi
if [ ${#TARGETS[@]} -eq 0 ]; then
    mapfile -t TARGETS < <(grep -v '^$' "$BUILD/targets.txt" 2> /dev/null)
    if [ ${#TARGETS[@]} -eq 0 ]; then
        echo "fuzz: fuzz/CMakeLists.txt defines no target" >&2
        exit 2
    fi
fi
echo "fuzz: targets ${TARGETS[*]}"
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
CORPUS=${QX_FUZZ_CORPUS:-}
if [ -z "$CORPUS" ] || [ ! -f "$CORPUS/manifest.tsv" ]; then
    CORPUS=$BUILD/corpus
    if [ ! -f "$CORPUS/manifest.tsv" ] || [ "$ROOT/tools/corpus/make_corpus.sh" -nt "$CORPUS/manifest.tsv" ]; then
        "$ROOT/tools/corpus/make_corpus.sh" "$CORPUS" 2> "$BUILD/corpus.log" || {
            echo "fuzz: corpus generation failed, see $BUILD/corpus.log" >&2
            exit 2
        }
    fi
fi
seed() { # DIR FILES...
    local dir=$1 f
    shift
    mkdir -p "$dir"
    for f in "$@"; do
        [ -f "$f" ] && head -c 65536 "$f" > "$dir/$(basename "$f")"
    done
}
rm -rf "$BUILD/seeds"
seed "$BUILD/seeds/fuzz_pcl5" "$CORPUS"/pcl5/*.pcl
# The PCL XL target gets the streams from their header on (the job loop's PJL prefix cut off).
mkdir -p "$BUILD/seeds/fuzz_pclxl"
for f in "$CORPUS"/pclxl/*.pxl; do
    [ -f "$f" ] || continue
    off=$(grep -abo -m1 'HP-PCL XL;' "$f" | head -1 | cut -d: -f1)
    [ -n "$off" ] && [ "$off" -ge 2 ] || continue
    tail -c +"$((off - 1))" "$f" | head -c 65536 > "$BUILD/seeds/fuzz_pclxl/$(basename "$f")"
done
seed "$BUILD/seeds/fuzz_input" "$CORPUS"/pcl5/*.pcl "$CORPUS"/pclxl/*.pxl "$CORPUS"/src/text.ps
for t in "${TARGETS[@]}"; do
    case $t in
        fuzz_pcl5 | fuzz_pclxl | fuzz_input) ;;
        *)
            name=${t#fuzz_}
            seed "$BUILD/seeds/$t" "$CORPUS/$name"/* "$ROOT/fuzz/seeds/$t"/*
            ;;
    esac
done

# The resident fonts staged by the build.
export PCLFONTSOURCE=${PCLFONTSOURCE:-$BUILD/stage/fonts}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1:allow_addr2line=1}

# Replays every problem input of a target once and groups them by the kind of failure and
# the innermost engine frame: "count  SUMMARY  frame  one-example".
triage() { # TARGET CRASH-DIR
    local t=$1 dir=$2 f out summary frame
    for f in "$dir"/*; do
        [ -f "$f" ] || continue
        out=$(timeout 60 "$BUILD/$t" -timeout=10 -rss_limit_mb=2048 "$f" 2>&1)
        summary=$(grep -m1 -oE 'SUMMARY: [A-Za-z]+: [^ ]+( [^ ]+)?' <<< "$out" || true)
        [ -n "$summary" ] || summary=$(grep -m1 -E 'ERROR: libFuzzer: [a-z-]+|what\(\):' <<< "$out" || echo "no longer fails")
        frame=$(grep -m1 -oE 'in qx::[^(]*\([^)]*\)? [^ ]*quarvex/[^ ]+' <<< "$out" || grep -m1 -oE 'in qx::[^ ]+' <<< "$out" || true)
        printf '%s\t%s\t%s\n' "$summary" "${frame#in }" "$f"
    done | sort | awk -F'\t' '{ k = $1 "\t" $2; n[k]++; if (!(k in ex)) ex[k] = $3 }
        END { for (k in n) printf "  %4d  %s\t%s\n", n[k], k, ex[k] }' | sort -rn
}

passed=0
failed=0
for t in "${built[@]}"; do
    dict=
    case $t in
        fuzz_pcl5 | fuzz_input) dict=-dict=$ROOT/fuzz/pcl5.dict ;;
        fuzz_pclxl) dict=-dict=$ROOT/fuzz/pclxl.dict ;;
        *) [ -f "$ROOT/fuzz/${t#fuzz_}.dict" ] && dict=-dict=$ROOT/fuzz/${t#fuzz_}.dict ;;
    esac
    work="$BUILD/runs/$t"
    crashes="$BUILD/crashes/$t"
    mkdir -p "$work" "$crashes"
    echo "fuzz: $t for $SECONDS_EACH s"
    before=$(find "$crashes" -type f | wc -l)
    # Fork mode goes on after a crash, so that one run can find several problems; every input
    # that crashed, hung or ran out of memory lands in $crashes.
    "$BUILD/$t" $dict -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
        -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
        -artifact_prefix="$crashes/" "$work" "$BUILD/seeds/$t" > "$BUILD/runs/$t.log" 2>&1
    rc=$?
    after=$(find "$crashes" -type f | wc -l)
    grep -E '^#[0-9]+: cov:' "$BUILD/runs/$t.log" | tail -1
    if [ "$after" -gt "$before" ] || [ $rc -ne 0 ]; then
        failed=$((failed + 1))
        [ $status -eq 2 ] || status=1
        echo "fuzz: $t FOUND $((after - before)) PROBLEM INPUT(S) (exit $rc); log $BUILD/runs/$t.log, inputs in $crashes/"
        triage "$t" "$crashes"
    else
        echo "fuzz: $t clean"
        passed=$((passed + 1))
    fi
done
# One closing line for the targets: those that ran clean, and those that found something or
# did not build.
echo "fuzz: $passed passed, $((failed + ${#TARGETS[@]} - ${#built[@]})) failed"
exit $status
