#!/bin/sh
# What the server costs, in one run: processor time per delivered gigabyte, each row beside a bare loop that only sends
# the same bytes to as many sockets, for players over TCP and UDP, a program of 20 Mbit/s and 20 programs; memory per
# player; how long a picture is under way from the pusher to the players with LowDelay; how many players there can be
# until something is lost. Programs have 25 pictures a second, everything is on this machine. Then what recording costs:
# processor time per recorded gigabyte of an 8 Mbit/s program beside plain writes of the same bytes, and the longest time
# for which one packet holds the thread that writes; how long an uninvolved client waits at most beside recordings,
# openings of an interrupted recording and seeks in it, thousands of deletions, and a frozen disk (as root); and what an
# idle server, idle connections and silent programs cost.
#
#   scripts/bench.sh               builds in build/bench and measures
#   BENCH_QUICK=1                  the same in a few minutes: seconds of less weight, and few of the longer parts
#   BENCH_BIN=DIR scripts/bench.sh measures the programs in DIR
#   BENCH_PARTS="rows starts delay most record waits idle"  only these parts
#   BENCH_SECONDS=5                measured seconds of each row (10)
#   BENCH_ROWS="tcp:50:19600"      rows as TRANSPORT:PLAYERS[:KBITS[:PROGRAMS]]; 1960 kbit/s and 1 program unless given
#   BENCH_STARTS="tcp:1000"        how many players come at once
#   BENCH_DELAYS="100:1960"        rows of delay as PLAYERS:KBITS
#   BENCH_MOST="tcp:8000 udp:4000" for how many players to look, at most
#   BENCH_STEP=1000                players that each try has more than the one before
#   BENCH_KEYS="StandardPlayers=1" lines of [INTEROP] for the rows (none: all off)
#   BENCH_PORT=25500               the server's first port; some are tried
#   BENCH_DISK=DIR                 where recordings are written (a temporary directory)
#   BENCH_MEGABYTES=1000           recorded
#   BENCH_INTERRUPTED=2000         megabytes of the interrupted recording
set -eu
cd "$(dirname "$0")/.."

parts="rows starts delay most record waits idle"
[ -z "${BENCH_QUICK:-}" ] || parts="rows starts delay record idle"
parts=${BENCH_PARTS:-$parts}
seconds=${BENCH_SECONDS:-$([ -n "${BENCH_QUICK:-}" ] && echo 2 || echo 10)}
fill=$([ -n "${BENCH_QUICK:-}" ] && echo 3 || echo 8) # seconds until the cache is full, or nearly
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

# start KBITS PROGRAMS [OPTIONS]: the server listens on the first port of a few that it gets; the pushers, with these
# options, run until the cache is full. Their programs are /bench1, /bench2 and so on.
start() {
    kbits=$1
    programs=$2
    shift 2
    for port in $ports; do
        cat >"$dir/orx.cfg" <<CFG
[SERVER]
ListenPort=$port
ListenIp=127.0.0.1
AuthType=0
ConnectLimit=10000
CacheLimit=5
UdpStartPort=$udp_from
UdpEndPort=$udp_to
[INTEROP]
${BENCH_KEYS:-}
[GUARD]
SurvivePeerFaults=1
RunUnprivileged=1
CFG
        url="rtsp://127.0.0.1:$port/bench%d"
        "$bin/orx" -c "$dir/orx.cfg" -daemond </dev/null >"$dir/server.log" 2>&1 &
        server=$!
        "$bin/orxpush" --wait 5 --loop --quiet --rate "$kbits" --count "$programs" --stamp "$@" "$url" >"$dir/push.log" 2>&1 &
        pusher=$!
        sleep "$fill"
        if kill -0 $pusher 2>/dev/null && kill -0 $server 2>/dev/null; then
            return
        fi
        stop
    done
    echo "bench: the server or the pusher does not run:" >&2
    cat "$dir/server.log" "$dir/push.log" >&2
    exit 1
}

# load TRANSPORT PLAYERS PROGRAMS [OPTIONS]: players for some seconds
load() {
    transport=$1
    players=$2
    programs=$3
    shift 3
    "$bin/orxload" --json --quiet --"$transport" "$players" --programs "$programs" --warmup 2 --duration "$seconds" \
        --watch-pid $server "$@" "$url" >"$dir/load"
}

# row TRANSPORT PLAYERS KBITS PROGRAMS
row() {
    start "$3" "$4"
    load "$1" "$2" "$4" || echo "bench: orxload found faults (exit code $?)" >&2
    stop
    "$bin/sendloop" "$1" "$2" "$seconds" "$3" >"$dir/loop"
    loop=$(sed -n 's/.*"cpu_s_per_gb":\([0-9.]*\).*/\1/p' "$dir/loop")
    cpu=$(number server cpu_s_per_gb)
    printf '%-4s %7d %7d %8d %9.3f %9.3f %6.2f   %7.2f %7.2f %7.2f %7.2f   %9.1f %6s %6s\n' "$1" "$2" "$3" "$4" \
        "$cpu" "$loop" "$(echo "$cpu $loop" | awk '{ if ($2 > 0) print $1 / $2; else print 0 }')" \
        "$(number latency_ms p50)" "$(number latency_ms p90)" "$(number latency_ms p99)" "$(number latency_ms max)" \
        "$(number server kb_per_player)" "$(number total lost)" "$(number total cut)"
}

# rows TRANSPORT:PLAYERS[:KBITS[:PROGRAMS]] ...
rows() {
    printf '%-4s %7s %7s %8s %9s %9s %6s   %31s   %9s %6s %6s\n' "" players kbit/s programs "CPU s/GB" "bare loop" ratio \
        "latency ms: p50 p90 p99 max" "kB/player" lost cut
    for words in "$@"; do
        # shellcheck disable=SC2046 # words
        set -- $(echo "$words" | tr : ' ')
        row "$1" "$2" "${3:-$rate}" "${4:-1}"
    done
}

# busy: nanoseconds of processor time of the server so far
busy() {
    cat /proc/$server/task/*/schedstat | awk '{ n += $1 } END { printf "%.0f\n", n }'
}

# starts TRANSPORT PLAYERS: what it costs that so many come within a second, of a program with hardly any media; beside it
# a second of the usual media for as many
starts() {
    start 10 1 --fps 1
    window=3 # seconds, in which all of them have started
    before=$(busy)
    "$bin/orxload" --json --quiet --"$1" "$2" --ramp "$2" --duration $((2 * window)) "$url" >"$dir/load" &
    load=$!
    sleep $window
    came=$(busy)
    sleep $window
    played=$(busy)
    wait $load || echo "bench: orxload found faults (exit code $?)" >&2
    stop
    start $rate 1
    load "$1" "$2" 1 || echo "bench: orxload found faults (exit code $?)" >&2
    stop
    awk -v start=$((2 * came - before - played)) -v media="$(number server cpu_s)" -v seconds="$seconds" \
        -v what="$1" -v players="$2" 'BEGIN {
            printf "%-4s %7d %9.0f %9.0f %6.2f\n", what, players, start / 1e6, media * 1000 / seconds,
                start * seconds / media / 1e9
        }'
}

# served TRANSPORT PLAYERS: whether so many got everything that was pushed, and none of it late. What the players cost, who
# would be elsewhere, is kept low.
served() {
    load "$1" "$2" 1 --together || return 1
    echo "$(number total lost) $(number total late) $(number latency_ms p99) $(number total bytes)" |
        awk -v wanted="$(($2 * rate * seconds * 125 * 98 / 100))" '{ exit !($1 + $2 == 0 && $3 < 1000 && $4 >= wanted) }'
}

# most TRANSPORT LIMIT: how many players there can be, to half a step
most() {
    start $rate 1
    step=${BENCH_STEP:-1000}
    found=0
    cores=-
    wanted=$step
    while [ "$wanted" -le "$2" ]; do
        if served "$1" "$wanted"; then
            found=$wanted
            cores=$(number server cpu_s | awk -v seconds="$seconds" '{ printf "%.2f", $1 / seconds }')
            [ "$step" -eq "${BENCH_STEP:-1000}" ] || break
        elif [ "$step" -eq "${BENCH_STEP:-1000}" ]; then
            step=$((step / 2))
            wanted=$found
        else
            break
        fi
        wanted=$((wanted + step))
    done
    stop
    printf '%-4s %7d %9s\n' "$1" "$found" "$cores"
}

part() {
    case " $parts " in
    *" $1 "*) return 0 ;;
    esac
    return 1
}

ports="${BENCH_PORT:-7654} $((${BENCH_PORT:-7654} + 1000)) $((${BENCH_PORT:-7654} + 2000))"
udp_from=5000
udp_to=7000
echo "$(nproc) processors, $(uname -sr)"
if part rows; then
    # shellcheck disable=SC2086 # a list of words
    rows ${BENCH_ROWS:-tcp:10 tcp:400 udp:10 udp:100 udp:400 tcp:50:19600 tcp:200:$rate:20}
fi
if part starts; then
    printf '\nprocessor time, ms: of players that come within a second, and of a second of their media\n'
    printf '%-4s %7s %9s %9s %6s\n' "" players starts media ratio
    for words in ${BENCH_STARTS:-tcp:1000}; do
        starts "${words%:*}" "${words#*:}"
    done
fi
if part delay; then
    printf '\nmilliseconds from a pusher to its players\n'
    bench/delay.sh -b "$bin" -k 1 -s "$seconds" "${BENCH_DELAYS:-100:$rate 400:$rate}"
fi
if part most; then
    printf '\nmost players without loss\n%-4s %7s %9s\n' "" players processors
    udp_from=10000
    udp_to=30000
    for words in ${BENCH_MOST:-tcp:8000 udp:4000}; do
        most "${words%:*}" "${words#*:}"
    done
fi
if part record; then
    "$bin/recordloop" "${BENCH_DISK:-$dir}" "${BENCH_MEGABYTES:-1000}" >"$dir/record"
    printf '\n%-12s %9s %12s %6s   %20s\n' "" "CPU s/GB" "plain writes" ratio "longest packet, ms"
    sed 's/[^0-9.,]//g; s/,/ /g' "$dir/record" |
        awk '{ printf "%-12s %9.3f %12.3f %6.2f   %20.2f\n", "recording", $1, $2, ($2 > 0 ? $1 / $2 : 0), $3 / 1000 }'
fi
if part waits; then
    printf '\nlongest wait of an uninvolved client, ms (bare: of one who asks an echo beside it)\n'
    "$bin/waits" "${BENCH_DISK:-$dir}" "${BENCH_INTERRUPTED:-2000}"
fi
if part idle; then
    printf '\nper second and in memory, of a server that has nothing to do\n'
    bench/idle.sh -b "$bin" -s "$seconds"
fi
