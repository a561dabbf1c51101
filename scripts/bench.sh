#!/bin/sh
# What the server costs: processor time per delivered gigabyte for 10, 100 and 400 players over TCP and over UDP, each
# beside a bare loop that only sends the same bytes to as many sockets; how long a picture is under way from the pusher
# to the players; resident memory per player. One program of 2 Mbit/s, everything on this machine. Then what recording
# costs: processor time per recorded gigabyte of an 8 Mbit/s program beside plain writes of the same bytes, and the
# longest time for which one packet holds the thread that writes. Then how long an uninvolved client waits at most beside
# recordings, openings of an interrupted recording and seeks in it, thousands of deletions, and a frozen disk (as root).
#
#   scripts/bench.sh               builds in build/bench and measures
#   BENCH_BIN=DIR scripts/bench.sh measures the programs in DIR
#   BENCH_SECONDS=5                measured seconds of each row (10)
#   BENCH_PLAYERS="10 100 400"     players of the rows
#   BENCH_TRANSPORTS="tcp udp"
#   BENCH_DISK=DIR                 where recordings are written (a temporary directory)
#   BENCH_MEGABYTES=1000           recorded
#   BENCH_INTERRUPTED=2000         megabytes of the interrupted recording
set -eu
cd "$(dirname "$0")/.."

seconds=${BENCH_SECONDS:-10}
rate=1960 # kbit/s: 25 pictures a second of 7 packets of 1400 bytes
if [ -z "${BENCH_BIN:-}" ]; then
    scripts/install-deps.sh test
    cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build build/bench -j"$(nproc)" --target orx orxpush orxload sendloop recordloop waits >/dev/null
    BENCH_BIN=build/bench/bin
fi
bin=$(cd "$BENCH_BIN" && pwd)
ulimit -n "$(ulimit -H -n)"

dir=$(mktemp -d)
server=""
pusher=""
stop() {
    [ -z "$pusher" ] || kill "$pusher" 2>/dev/null || true
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    [ -z "$server" ] || wait "$server" || echo "bench: the server ended with status $?" >&2
    server=""
    pusher=""
}
trap 'stop; rm -rf "$dir"' EXIT
trap 'exit 1' INT TERM

# number GROUP KEY: that number of a line of orxload
number() {
    sed -n "s/.*\"$1\":{\(.*\)/\1/p" "$dir/load" | sed -n "s/[^}]*\"$2\":\([-0-9.]*\).*/\1/p" | head -n 1
}

# The server listens on the first port of a few that it gets; the pusher runs until the cache is full.
start() {
    for port in 7654 8654 9654; do
        cat >"$dir/orx.cfg" <<CFG
[SERVER]
ListenPort=$port
ListenIp=127.0.0.1
AuthType=0
ConnectLimit=2000
CacheLimit=5
UdpStartPort=5000
UdpEndPort=7000
[GUARD]
SurvivePeerFaults=1
RunUnprivileged=1
CFG
        "$bin/orx" -c "$dir/orx.cfg" -daemond </dev/null >"$dir/server.log" 2>&1 &
        server=$!
        "$bin/orxpush" --wait 5 --loop --quiet --rate $rate --stamp "rtsp://127.0.0.1:$port/bench" >"$dir/push.log" 2>&1 &
        pusher=$!
        sleep 8
        if kill -0 $pusher 2>/dev/null && kill -0 $server 2>/dev/null; then
            return
        fi
        stop
    done
    echo "bench: the server or the pusher does not run:" >&2
    cat "$dir/server.log" "$dir/push.log" >&2
    exit 1
}

# row TRANSPORT PLAYERS
row() {
    start
    "$bin/orxload" --json --quiet --"$1" "$2" --warmup 2 --duration "$seconds" --watch-pid $server \
        "rtsp://127.0.0.1:$port/bench" >"$dir/load" || echo "bench: orxload found faults (exit code $?)" >&2
    stop
    "$bin/sendloop" "$1" "$2" "$seconds" >"$dir/loop"
    loop=$(sed -n 's/.*"cpu_s_per_gb":\([0-9.]*\).*/\1/p' "$dir/loop")
    cpu=$(number server cpu_s_per_gb)
    printf '%-4s %7d %9.3f %9.3f %6.2f   %7.2f %7.2f %7.2f %7.2f   %9.1f %6s %6s\n' "$1" "$2" "$cpu" "$loop" \
        "$(echo "$cpu $loop" | awk '{ if ($2 > 0) print $1 / $2; else print 0 }')" \
        "$(number latency_ms p50)" "$(number latency_ms p90)" "$(number latency_ms p99)" "$(number latency_ms max)" \
        "$(number server kb_per_player)" "$(number total lost)" "$(number total cut)"
}

echo "$(nproc) processors, $(uname -sr)"
printf '%-4s %7s %9s %9s %6s   %31s   %9s %6s %6s\n' "" players "CPU s/GB" "bare loop" ratio \
    "latency ms: p50 p90 p99 max" "kB/player" lost cut
for transport in ${BENCH_TRANSPORTS:-tcp udp}; do
    for players in ${BENCH_PLAYERS:-10 100 400}; do
        row "$transport" "$players"
    done
done

"$bin/recordloop" "${BENCH_DISK:-$dir}" "${BENCH_MEGABYTES:-1000}" >"$dir/record"
printf '\n%-12s %9s %12s %6s   %20s\n' "" "CPU s/GB" "plain writes" ratio "longest packet, ms"
sed 's/[^0-9.,]//g; s/,/ /g' "$dir/record" |
    awk '{ printf "%-12s %9.3f %12.3f %6.2f   %20.2f\n", "recording", $1, $2, ($2 > 0 ? $1 / $2 : 0), $3 / 1000 }'

printf '\nlongest wait of an uninvolved client, ms (bare: of one who asks an echo beside it)\n'
"$bin/waits" "${BENCH_DISK:-$dir}" "${BENCH_INTERRUPTED:-2000}"
