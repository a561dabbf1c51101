#!/bin/sh
# How long a picture is under way from the pusher to its players, for some numbers of them, without
# [INTEROP] LowDelay and with it.
set -eu

usage() {
    cat <<TEXT
Usage: bench/delay.sh [options] ["PLAYERS:KBITS ..."]
Time from a picture's send stamp in orxpush until its last packet is read by orxload, both and the server on this
machine; first in line for the processor where that is allowed. One line per row: milliseconds, packets lost and
processor seconds of the server per delivered gigabyte. The quietest of several runs counts.

  "PLAYERS:KBITS ..."  rows (default "1:4000 100:800 100:2000 100:4000 400:1000")
  -b DIR               the programs (default build/release/bin)
  -k "0 1"             values of LowDelay (default "0 1")
  -o "ARGUMENTS"       further ones of orxpush, such as "--audio tone"
  -r N                 runs of each row (default 1)
  -s SECONDS           measured in each run (default 5)
  -t "tcp udp"         transports (default tcp)
  --help               this text
TEXT
}

bin=build/release/bin
keys="0 1"
options=""
runs=1
seconds=5
transports=tcp
while [ $# -gt 0 ]; do
    case $1 in
    -b | -k | -o | -r | -s | -t)
        [ $# -gt 1 ] || { usage >&2; exit 2; }
        case $1 in
        -b) bin=$2 ;;
        -k) keys=$2 ;;
        -o) options=$2 ;;
        -r) runs=$2 ;;
        -s) seconds=$2 ;;
        -t) transports=$2 ;;
        esac
        shift 2
        ;;
    --help) usage; exit 0 ;;
    -*) usage >&2; exit 2 ;;
    *) break ;;
    esac
done
rows=${1:-1:4000 100:800 100:2000 100:4000 400:1000}
first=""
chrt -r 1 true 2>/dev/null && first="chrt -r 1"
ulimit -n "$(ulimit -H -n)"
dir=$(mktemp -d)
server=""
pusher=""
stop() {
    [ -z "$pusher" ] || kill "$pusher" 2>/dev/null || true
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    [ -z "$server" ] || wait "$server" || true
    server=""
    pusher=""
}
trap 'stop; rm -rf "$dir"' EXIT
trap 'exit 1' INT TERM
port=$((20000 + $$ % 4000))

# number GROUP KEY: that number of a line of orxload
number() {
    sed -n "s/.*\"$1\":{\(.*\)/\1/p" "$dir/load" | sed -n "s/[^}]*\"$2\":\([-0-9.]*\).*/\1/p" | head -n 1
}

# one KEY TRANSPORT PLAYERS KBITS: a run, as a line of numbers
one() {
    port=$((port + 1))
    cat >"$dir/orx.cfg" <<CFG
[SERVER]
ListenPort=$port
ListenIp=127.0.0.1
AuthType=0
ConnectLimit=2000
CacheLimit=5
UdpStartPort=25000
UdpEndPort=29000
[INTEROP]
StandardPushers=1
StandardPlayers=1
LowDelay=$1
[GUARD]
SurvivePeerFaults=1
RunUnprivileged=1
CFG
    url="rtsp://127.0.0.1:$port/delay"
    $first "$bin/orx" -c "$dir/orx.cfg" -daemond </dev/null >"$dir/server.log" 2>&1 &
    server=$!
    # shellcheck disable=SC2086
    $first "$bin/orxpush" --wait 5 --loop --quiet --rate "$4" --stamp $options "$url" >"$dir/push.log" 2>&1 &
    pusher=$!
    tries=0
    until "$bin/orxload" --quiet --tcp 1 --duration 0.1 "$url" >/dev/null 2>&1; do
        tries=$((tries + 1))
        if [ $tries -gt 20 ]; then
            cat "$dir/server.log" "$dir/push.log" >&2
            exit 1
        fi
        sleep 0.5
    done
    $first "$bin/orxload" --json --quiet --"$2" "$3" --warmup 2 --duration "$seconds" --watch-pid "$server" "$url" \
        >"$dir/load" || echo "delay: orxload found faults (exit code $?)" >&2
    stop
    echo "$(number latency_ms p50) $(number latency_ms p90) $(number latency_ms p99) $(number latency_ms max)" \
        "$(number total lost) $(number server cpu_s_per_gb)"
}

echo "$(nproc) processors, $(uname -sr)${first:+, by $first}"
printf '%-8s %-4s %7s %7s   %8s %8s %8s %8s %6s %9s\n' LowDelay "" players kbit/s p50 p90 p99 max lost "CPU s/GB"
for transport in $transports; do
    for row in $rows; do
        for key in $keys; do
            i=0
            while [ "$i" -lt "$runs" ]; do
                one "$key" "$transport" "${row%:*}" "${row#*:}"
                i=$((i + 1))
            done >"$dir/runs"
            # shellcheck disable=SC2046
            printf '%-8s %-4s %7s %7s   %8s %8s %8s %8s %6s %9s\n' "$key" "$transport" "${row%:*}" "${row#*:}" \
                $(sort -n "$dir/runs" | head -n 1)
        done
    done
done
