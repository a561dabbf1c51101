#!/bin/sh
# How many instructions the server runs for a delivered packet, counted by callgrind in a replay (bench/replay.cpp): the
# same on every machine and however busy it is. Compares with what bench/instructions.txt says for the compiler and C
# library that the replay was built with, and fails when a case takes over 3 % more. What it says nothing about is told.
#   scripts/instructions.sh [CASE ...]          builds in build/release and compares all cases, or those named
#   scripts/instructions.sh --store [CASE ...]  writes what is counted into bench/instructions.txt
#   scripts/instructions.sh --growth            counts how the cost of a packet over TCP grows with players, programs,
#                                               silent programs and idle connections, for bench/plot.py
#   scripts/instructions.sh --arch armhf ...    the same for armhf or arm64, counted by an emulator's plugin
#   REPLAY=build/release/bin/replay ...         this program, which is built already
set -eu
cd "$(dirname "$0")/.."

figures=bench/instructions.txt
pictures=100
allowed=3 # percent
store=""
growth=""
arch=""
if [ "${1:-}" = --arch ]; then
    arch=$2
    shift 2
fi
case ${1:-} in
--store)
    store=1
    shift
    ;;
--growth) growth=1 ;;
esac
if [ -z "${REPLAY:-}" ]; then
    # shellcheck disable=SC2086 # may be none
    scripts/install-deps.sh test $arch
    preset=${arch:-release}
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target replay >/dev/null
    REPLAY=build/$preset/bin/replay
fi
# one form of memcpy and the like, whatever the processor has
export GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX512VL,-AVX512F,-ERMS,-FSRM,-AVX_Fast_Unaligned_Load

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
trap 'exit 1' INT TERM
case $arch in
armhf) emulator=qemu-arm ;;
arm64) emulator=qemu-aarch64 ;;
*) emulator="" ;;
esac
[ -z "$emulator" ] || cc -shared -fPIC -O2 -o "$dir/countinsns.so" bench/countinsns.c
$emulator "$REPLAY" >"$dir/cases"
built=$(head -n 1 "$dir/cases")
# shellcheck disable=SC2046 # words
[ $# -gt 0 ] || set -- $(sed 1d "$dir/cases" | cut -d' ' -f1)

# count CASE PICTURES [NUMBERS OF IT]: its instructions per packet
count() {
    if [ -n "$emulator" ]; then
        set -- $emulator -plugin "$dir/countinsns.so" -d plugin -D "$dir/log" "$REPLAY" "$@"
    else
        set -- valgrind --tool=callgrind --callgrind-out-file=/dev/null --log-file="$dir/log" \
            --toggle-collect=Measured --toggle-collect=MeasuredWrite "$REPLAY" "$@"
    fi
    "$@" >"$dir/done" || { cat "$dir/log" >&2; exit 1; }
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$dir/log" |
        awk -v packets="$(cut -d' ' -f2 "$dir/done")" '{ printf "%.1f\n", $1 / packets }'
}

# grow WHAT "COUNTS" PICTURES NUMBERS..., in which N stands for each count: lines of WHAT, it, instructions per packet
grow() {
    what=$1
    counts=$2
    shift 2
    for n in $counts; do
        # shellcheck disable=SC2046 # words
        echo "$what $n $(count tcp50 $(echo "$*" | sed "s/N/$n/"))"
    done
}

if [ -n "$growth" ]; then
    # shellcheck disable=SC3045 # dash has it
    ulimit -n "$(ulimit -H -n)"
    echo "# instructions per packet, $built"
    grow players "1 2 5 10 20 50 100 200 500 1000 2000 4000 8000" 4 N 1
    grow programs "1 2 5 10 20 50 100 200 500" 4 10 N
    grow silent "1 2 5 10 20 50 100 200 500" 20 10 1 N
    grow idle "1 10 100 1000 5000" 20 10 1 0 N
    exit
fi

# least CASE: the least of three counts. Those over UDP differ by up to 3 %, inside of malloc and free: probably by when
# other threads free something.
least() {
    for _ in 1 2 3; do
        count "$1" $pictures
    done | sort -n | head -n 1
}

more=0
echo "instructions per packet, $built"
printf '%-14s %10s %10s %8s\n' case now stored change
for case in "$@"; do
    case $case in
    udp*) now=$(least "$case") ;;
    *) now=$(count "$case" $pictures) ;;
    esac
    was=$(grep -F "$built $case " $figures | awk '{ print $NF }')
    change=$(awk -v now="$now" -v was="$was" 'BEGIN { if (was) printf "%+.1f", (now - was) * 100 / was }')
    printf '%-14s %10s %10s %7s%%\n' "$case" "$now" "${was:--}" "${change:--}"
    if [ -n "$store" ]; then
        grep -vF "$built $case " $figures >"$dir/figures" || true
        echo "$built $case $now" >>"$dir/figures"
        sort "$dir/figures" >$figures
    elif awk -v change="${change:-0}" -v allowed=$allowed 'BEGIN { exit !(change > allowed) }'; then
        more=$((more + 1))
    elif awk -v change="${change:-0}" -v allowed=$allowed 'BEGIN { exit !(change < -allowed) }'; then
        echo "  less: scripts/instructions.sh --store $case keeps it so"
    fi
    [ -n "$was$store" ] || echo "  no figure of this compiler is stored, so nothing is compared: --store stores one"
done
if [ "$more" -gt 0 ]; then
    echo "$more cases take over $allowed % more than stored in $figures. Where that is meant: scripts/instructions.sh --store" >&2
    exit 1
fi
