#!/bin/sh
# Builds everything and runs all quick tests: under the address and undefined-behaviour sanitizers, under the thread
# sanitizer, the fuzz targets, and last what is shipped. Ends with ctest's closing line, or stops at the first set
# that fails.
#   scripts/test.sh                 all sets
#   scripts/test.sh release         one set: release, asan, tsan or fuzz
#   ORX_LONG=1 scripts/test.sh      the full minutes of the interop tests
#   ORX_MATRIX=all ...              every pusher with every player instead of a tenth of them
#   ORX_FUZZ_SECONDS=600 ...        how long each fuzz target runs (10)
#   ORX_HOSTILE_SECONDS=1200 ...    how long strangers attack in each of the three configurations (20)
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh test
launcher=""
if command -v ccache >/dev/null; then launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"; fi

# ctest in a build tree; further arguments choose the tests
run_tests() {
    tree=$1
    shift
    (cd "build/$tree" && ctest --output-on-failure --no-tests=error "$@")
}

jobs=$(nproc)
for set in ${1:-asan tsan fuzz release}; do
    echo "=== $set"
    # shellcheck disable=SC2086 # none or one argument
    cmake --preset "$set" $launcher -DORX_FUZZ_SECONDS="${ORX_FUZZ_SECONDS:-10}" \
        -DORX_HOSTILE_SECONDS="${ORX_HOSTILE_SECONDS:-20}" >/dev/null
    cmake --build --preset "$set" -j"$jobs"
    case $set in
    fuzz) run_tests "$set" -j"$jobs" -L fuzz ;;
    *) run_tests "$set" -j"$jobs" -LE interop ;;
    esac
    # Real players compare every picture, and lose some on a machine that is too busy: two at a time. With the
    # sanitizers only when there is time.
    if [ "$set" = release ] || { [ "$set" != fuzz ] && [ -n "${ORX_LONG:-}" ]; }; then
        run_tests "$set" -j2 -L interop
    fi
done
