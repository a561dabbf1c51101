#!/bin/sh
# What a server that has nothing to do costs: how often it wakes, its processor time and its memory; alone, with
# connections on which nothing comes, and with programs whose pushers sleep.
set -eu

usage() {
    cat <<TEXT
Usage: bench/idle.sh [options]
One line per case: context switches of the server's threads per second, its processor time (microseconds per second),
its resident memory and what of that is its own. What one connection or program takes is the difference to the first
line divided by their number.

  -b DIR       the programs (default build/release/bin)
  -a ARCH      the server of build/ARCH/bin, armhf or arm64, in an emulator: instructions instead of
               microseconds, and the emulator's memory
  -c N         idle connections (default 1000)
  -p N         sleeping programs, which takes two minutes (default 0: left out)
  -s SECONDS   measured in each case (default 10)
  --help       this text
TEXT
}

bin=build/release/bin
arch=""
connections=1000
programs=0
seconds=10
while [ $# -gt 0 ]; do
    case $1 in
    -a | -b | -c | -p | -s)
        [ $# -gt 1 ] || { usage >&2; exit 2; }
        case $1 in
        -a) arch=$2 ;;
        -b) bin=$2 ;;
        -c) connections=$2 ;;
        -p) programs=$2 ;;
        -s) seconds=$2 ;;
        esac
        shift 2
        ;;
    --help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
done
# shellcheck disable=SC3045 # dash has it
ulimit -n "$(ulimit -H -n)"
dir=$(mktemp -d)
server=""
other=""
stop() {
    [ -z "$other" ] || kill "$other" 2>/dev/null || true
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    [ -z "$server" ] || wait "$server" || true
    server=""
    other=""
}
trap 'stop; rm -rf "$dir"' EXIT
trap 'exit 1' INT TERM
unit="CPU us"
orx=$bin/orx
if [ -n "$arch" ]; then
    unit=instrs
    cc -shared -fPIC -O2 -o "$dir/countinsns.so" "$(dirname "$0")/countinsns.c"
    emulator=$([ "$arch" = armhf ] && echo qemu-arm || echo qemu-aarch64)
    orx="$emulator -plugin $dir/countinsns.so,into=$dir/count build/$arch/bin/orx"
fi
port=$((${BENCH_PORT:-20000 + $$ % 4000}))

start() {
    port=$((port + 1))
    cat >"$dir/orx.cfg" <<CFG
[SERVER]
ListenPort=$port
ListenIp=127.0.0.1
AuthType=0
ConnectLimit=10000
LiveTime=3600
EnableLowEnergy=1
[INTEROP]
StandardPushers=1
StandardPlayers=1
LowDelay=1
[GUARD]
SurvivePeerFaults=1
RunUnprivileged=1
[LOG]
Level=info
File=$dir/events.log
CFG
    rm -f "$dir/events.log"
    rm -f "$dir/count"
    # shellcheck disable=SC2086 # the emulator's words
    $orx -c "$dir/orx.cfg" -daemond </dev/null >"$dir/server.log" 2>&1 &
    server=$!
    until python3 -c 'import socket, sys; socket.create_connection(("127.0.0.1", int(sys.argv[1])))' "$port" 2>"$dir/try"; do
        kill -0 $server || { cat "$dir/server.log" >&2; exit 1; }
        sleep 0.2
    done
}

# switches: of all threads so far; work: what they have done, 1000 of the unit for one
switches() {
    cat /proc/$server/task/*/status | awk '/_ctxt_switches/ { n += $2 } END { printf "%.0f\n", n }'
}
work() {
    if [ -n "$arch" ]; then
        od -An -t u8 "$dir/count" | awk '{ printf "%.0f\n", $1 * 1000 }'
        return
    fi
    cat /proc/$server/task/*/schedstat | awk '{ n += $1 } END { printf "%.0f\n", n }'
}

# row NAME: when everything has settled
row() {
    sleep 3
    woken=$(switches)
    busy=$(work)
    sleep "$seconds"
    woken=$(($(switches) - woken))
    busy=$(($(work) - busy))
    printf '%-28s %9s %9s %9s %9s\n' "$1" "$(awk "BEGIN { printf \"%.1f\", $woken / $seconds }")" \
        "$(awk "BEGIN { printf \"%.0f\", $busy / $seconds / 1000 }")" \
        "$(awk '/^VmRSS/ { print $2 }' /proc/$server/status)" "$(awk '/^RssAnon/ { print $2 }' /proc/$server/status)"
}

printf '%-28s %9s %9s %9s %9s\n' "" switches "$unit" "kB" "own kB"
start
row idle
python3 -c '
import socket, sys, time
held = []
for i in range(int(sys.argv[2])):
    held.append(socket.create_connection(("127.0.0.1", int(sys.argv[1]))))
    held[-1].sendall(b"OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n")
    held[-1].recv(1000)
time.sleep(1000)' "$port" "$connections" &
other=$!
tries=0
until [ "$(find /proc/$server/fd | wc -l)" -gt "$connections" ]; do
    tries=$((tries + 1))
    [ $tries -lt 300 ] || { echo "idle: $connections connections do not come about" >&2; exit 1; }
    sleep 0.1
done
row "$connections connections"
stop
if [ "$programs" -gt 0 ]; then
    start
    "$bin/orxpush" --quiet --loop --rate 500 --count "$programs" "rtsp://127.0.0.1:$port/idle%d" >"$dir/push.log" 2>&1 &
    other=$!
    row "$programs programs that nobody watches"
    tries=0
    until [ "$(grep -c pusher.sleep "$dir/events.log")" -ge "$programs" ]; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || { echo "idle: the programs do not fall asleep" >&2; exit 1; }
        sleep 1
    done
    row "$programs programs that sleep"
fi
