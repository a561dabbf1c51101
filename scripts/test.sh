#!/bin/sh
# Builds everything and runs all quick tests: under the address and undefined-behaviour sanitizers, under the thread
# sanitizer, the fuzz targets, for the ARM boards under an emulator, and last what is shipped. Ends with ctest's closing
# line, or stops at the first set that fails.
#   scripts/test.sh                 all sets
#   scripts/test.sh release         some sets: release, asan, tsan, fuzz, armhf or arm64
#   ORX_LONG=1 scripts/test.sh      the full minutes of the interop tests
#   ORX_MATRIX=all ...              every pusher with every player instead of a tenth of them
#   ORX_FUZZ_SECONDS=600 ...        how long each fuzz target runs (6)
#   ORX_HOSTILE_SECONDS=1200 ...    how long strangers attack in each of the three configurations (12)
set -eu
cd "$(dirname "$0")/.."

[ $# -gt 0 ] || set -- asan tsan fuzz armhf arm64 release
own=$(dpkg --print-architecture)
cross=$(printf '%s\n' "$@" | grep -x 'armhf\|arm64' || true)
# shellcheck disable=SC2086 # a list of words
scripts/install-deps.sh test $cross
launcher=""
if command -v ccache >/dev/null; then launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"; fi

# configure SET: its build tree; the machine's own architecture needs no other compiler, and no emulator
configure() {
    preset="--preset $1"
    [ "$1" != "$own" ] || preset="-S . -B build/$1 -DCMAKE_BUILD_TYPE=Release"
    # shellcheck disable=SC2086 # lists of words
    cmake $preset $launcher -DORX_UNITY=ON -DORX_FUZZ_SECONDS="${ORX_FUZZ_SECONDS:-6}" \
        -DORX_HOSTILE_SECONDS="${ORX_HOSTILE_SECONDS:-12}" >/dev/null
}

# ctest in a build tree; further arguments choose the tests
run_tests() {
    tree=$1
    shift
    (cd "build/$tree" && ctest --output-on-failure --no-tests=error "$@")
}

jobs=$(nproc)
waiting=$((jobs * 3)) # most tests wait for most of their time
for set in "$@"; do
    echo "=== $set"
    begun=$(date +%s)
    configure "$set"
    cmake --build "build/$set" -j"$jobs"
    echo "=== $set: built in $(($(date +%s) - begun)) s"
    case $set in
    fuzz) run_tests "$set" -j"$jobs" -L fuzz ;;
    armhf | arm64) run_tests "$set" -j"$waiting" -LE 'interop|hostile' ;;
    *) run_tests "$set" -j"$waiting" -LE interop ;;
    esac
    # Real players compare every picture, and lose some on a machine that is too busy: two at a time. With the
    # sanitizers only when there is time.
    if [ "$set" = release ] || { [ "$set" != fuzz ] && [ "$set" = "${set#arm}" ] && [ -n "${ORX_LONG:-}" ]; }; then
        run_tests "$set" -j2 -L interop
    fi
done
