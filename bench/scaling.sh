#!/bin/sh
# What an origin costs whose players sit on three edges that pull from it, and what the failure of an edge does.
set -eu

usage() {
    cat <<TEXT
Usage: bench/scaling.sh [options] ["PLAYERS ..."]
One origin, three edges with orxpull beside each, haproxy in front of them, and orxload's players over TCP, all on this
machine. One line per number of players: processor seconds of each process in the time measured, players and bytes at
the origin, what was lost. Then an edge is killed amid play, and started again.

  "PLAYERS ..."  rows (default "0 300 1000 3000")
  -b DIR         the programs (default build/release/bin)
  -c DIR         write the configuration there and end
  -f FPS         pictures a second (default 25)
  -k KBITS       of the program (default 300)
  -p PORT        first port of some that are free (default 22500)
  -s SECONDS     measured for each row (default 20)
  -w "0 1"       values of [INTEROP] LowDelay (default "0 1"); the failure is tried with the last one
  --help         this text
TEXT
}

bin=build/release/bin
fps=25
kbits=300
base=22500
seconds=20
values="0 1"
only=""
while [ $# -gt 0 ]; do
    case $1 in
    -b | -c | -f | -k | -p | -s | -w)
        [ $# -gt 1 ] || { usage >&2; exit 2; }
        case $1 in
        -b) bin=$2 ;;
        -c) only=$2 ;;
        -f) fps=$2 ;;
        -k) kbits=$2 ;;
        -p) base=$2 ;;
        -s) seconds=$2 ;;
        -w) values=$2 ;;
        esac
        shift 2
        ;;
    --help) usage; exit 0 ;;
    -*) usage >&2; exit 2 ;;
    *) break ;;
    esac
done
rows=${1:-0 300 1000 3000}
program=live/door
front=$((base + 9))
ulimit -n "$(ulimit -H -n)"

# --- Configuration ---

# server DIR PORT: what an origin and an edge have in common
server() {
    mkdir -p "$1/run"
    cat <<CFG
[SERVER]
ListenPort=$2
ListenIp=127.0.0.1
AuthType=0
ConnectLimit=5000
CacheLimit=5
UdpStartPort=$((base + 100 + ($2 - base) * 10))
UdpEndPort=$((base + 108 + ($2 - base) * 10))
CFG
}

# origin DIR PORT LOWDELAY
origin() {
    server "$1" "$2"
    cat <<CFG

[INTEROP]
StandardPushers=1
StandardPlayers=1
LowDelay=$3
HoldPlayers=30
CFG
    protection
}

# edge DIR PORT LOWDELAY
edge() {
    server "$1" "$2"
    cat <<CFG
EnableLowEnergy=1

[PULL]
NumSources=1
Url0=rtsp://127.0.0.1:$base/$program
Program0=$program
OnDemand0=1

[INTEROP]
StandardPushers=1
StandardPlayers=1
LowDelay=$3
HoldPlayers=30
ProxyProtocolFrom=127.0.0.2
CFG
    protection
}

protection() {
    cat <<CFG

[GUARD]
SurvivePeerFaults=1
RunUnprivileged=1

[STATUS]
Socket=run/orx.sock
CFG
}

balancer() {
    cat <<CFG
global
    maxconn 8000

defaults
    mode tcp
    balance leastconn
    option redispatch
    retries 3
    timeout connect 2s
    timeout client 90s
    timeout server 90s

frontend rtsp
    bind 127.0.0.1:$front
    default_backend edges

backend edges
    source 127.0.0.2
    option tcp-check
    tcp-check send OPTIONS\ *\ RTSP/1.0\r\nCSeq:\ 1\r\n\r\n
    tcp-check expect string RTSP/1.0\ 200
    default-server send-proxy check check-send-proxy inter 1s fall 2 rise 40
CFG
    for i in 1 2 3; do
        echo "    server edge$i 127.0.0.1:$((base + i))"
    done
}

# configure DIR LOWDELAY
configure() {
    mkdir -p "$1/origin" "$1/edge1" "$1/edge2" "$1/edge3"
    origin "$1/origin" "$base" "$2" >"$1/origin/orx.cfg"
    for i in 1 2 3; do
        edge "$1/edge$i" $((base + i)) "$2" >"$1/edge$i/orx.cfg"
    done
    balancer >"$1/haproxy.cfg"
}

if [ -n "$only" ]; then
    configure "$only" 1
    exit 0
fi
bin=$(cd "$bin" && pwd)
command -v haproxy >/dev/null || { echo "scaling: no haproxy" >&2; exit 1; }

# --- Processes ---

dir=$(mktemp -d)
pids=""
stop() {
    # shellcheck disable=SC2086
    [ -z "$pids" ] || kill $pids 2>/dev/null || true
    for pid in $pids; do
        wait "$pid" 2>/dev/null || true
    done
    pids=""
}
trap 'stop; rm -rf "$dir"' EXIT
trap 'exit 1' INT TERM

# run NAME COMMAND...: started in the background, its process in NAME
run() {
    name=$1
    shift
    "$@" </dev/null >>"$dir/$name.log" 2>&1 &
    eval "$name=$!"
    pids="$pids $!"
}

# orx NAME: that server, from a directory of its own
orx() {
    rm -f "$dir/$1/run/orx.sock"
    mkdir -p "$dir/$1/bin"
    cp "$bin/orx" "$dir/$1/bin/orx" # relative paths of the configuration begin above it
    run "$1" "$dir/$1/bin/orx" -c "$dir/$1/orx.cfg" -daemond
}

# until_true SECONDS COMMAND...
until_true() {
    tries=$(($1 * 10))
    shift
    until "$@"; do
        tries=$((tries - 1))
        if [ $tries -le 0 ]; then
            echo "scaling: not in time: $*" >&2
            tail -n 5 "$dir"/*.log >&2
            exit 1
        fi
        sleep 0.1
    done
}

# metric SERVER NAME: empty while it does not answer
metric() {
    "$bin/orxctl" -s "$dir/$1/run/orx.sock" metrics 2>/dev/null | sed -n "s/^$2 //p"
}
is() { [ "$(metric "$1" "$2")" = "$3" ]; }
rest() { [ "$(cat "$dir"/pull?.log | grep -c "camera rests")" -ge 3 ]; }

# ticks PID: hundredths of a second of processor time
ticks() { sed 's/.*) //' "/proc/$1/stat" | awk '{ print $12 + $13 }'; }
# snapshot: of origin, the edges, all orxpull, haproxy; and the origin's bytes
snapshot() {
    # shellcheck disable=SC2154
    echo "$(ticks "$origin") $(ticks "$edge1") $(ticks "$edge2") $(ticks "$edge3")" \
        $(($(ticks "$pull1") + $(ticks "$pull2") + $(ticks "$pull3"))) "$(ticks "$haproxy")" \
        "$(metric origin orx_sent_bytes_total)"
}

# number GROUP KEY FILE: that number of a line of orxload
number() {
    sed -n "s/.*\"$1\":{\(.*\)/\1/p" "$3" | sed -n "s/[^}]*\"$2\":\([-0-9.]*\).*/\1/p" | head -n 1
}

# start LOWDELAY: all of them; the edges' cameras rest
start() {
    rm -rf "${dir:?}"/*
    configure "$dir" "$1"
    orx origin
    until_true 10 is origin orx_pushers 0
    run push "$bin/orxpush" --loop --quiet --rate "$kbits" --fps "$fps" --stamp "rtsp://127.0.0.1:$base/$program"
    until_true 10 is origin orx_live_programs 1
    for i in 1 2 3; do
        orx "edge$i"
        until_true 10 is "edge$i" orx_pushers 0
        run "pull$i" "$bin/orxpull" -c "$dir/edge$i/orx.cfg"
    done
    for i in 1 2 3; do
        until_true 20 is "edge$i" orx_live_programs 1
    done
    run haproxy haproxy -db -f "$dir/haproxy.cfg"
    until_true 200 rest
}

# playing N: so many players on the edges
playing() {
    sum=0
    for i in 1 2 3; do
        n=$(metric "edge$i" orx_players)
        sum=$((sum + ${n:-0}))
    done
    [ $sum -ge "$1" ]
}

# others N: so many players on the edges beside the second
others() {
    sum=0
    for i in 1 3; do
        sum=$((sum + $(metric "edge$i" orx_players)))
    done
    [ $sum -ge "$1" ]
}

url="rtsp://127.0.0.1:$front/$program"
# row PLAYERS LOWDELAY
row() {
    : >"$dir/load"
    if [ "$1" -gt 0 ]; then
        "$bin/orxload" --json --quiet --tcp "$1" --ramp 300 --warmup 3 --duration $((seconds + 4)) "$url" \
            >"$dir/load" 2>>"$dir/load.log" &
        load=$!
        until_true 90 playing "$1"
        sleep 4
    fi
    snapshot >"$dir/before"
    sleep "$seconds"
    snapshot >"$dir/after"
    pulled=$(metric origin orx_players)
    if [ "$1" -gt 0 ]; then
        wait "$load" || true
    fi
    paste -d ' ' "$dir/before" "$dir/after" | awk -v low="$2" -v n="$1" -v s="$seconds" -v pulled="$pulled" \
        -v lost="$(number total lost "$dir/load")" -v cut="$(number total cut "$dir/load")" \
        -v failed="$(number total failed "$dir/load")" -v mbit="$(number total bytes "$dir/load")" \
        -v took="$(sed -n 's/^{"seconds":\([0-9.]*\).*/\1/p' "$dir/load")" \
        -v p50="$(number latency_ms p50 "$dir/load")" -v p99="$(number latency_ms p99 "$dir/load")" '{
        printf "%-8s %7d  %6.2f  %6.2f %6.2f %6.2f  %7.2f %7.2f  %8d %8.2f  %8.1f %6d %6d %6d  %7.1f %7.1f\n", low, n,
            ($8 - $1) / 100, ($9 - $2) / 100, ($10 - $3) / 100, ($11 - $4) / 100, ($12 - $5) / 100, ($13 - $6) / 100,
            pulled, ($14 - $7) * 8 / 1e6 / s, (took ? mbit * 8 / 1e6 / took : 0), lost, cut, failed, p50, p99 }'
}

now() { date +%s%N | cut -b 1-13; }

# failure: an edge is killed while 300 play
failure() {
    players=${rows##* }
    players=$((players > 300 ? 300 : players))
    "$bin/orxload" --json --quiet --tcp "$players" --ramp 300 --duration 25 "$url" >"$dir/load" 2>>"$dir/load.log" &
    load=$!
    until_true 60 playing "$players"
    sleep 3
    echo "players: $(metric edge1 orx_players) $(metric edge2 orx_players) $(metric edge3 orx_players)," \
        "at the origin $(metric origin orx_players)"
    lost=$(metric edge2 orx_players)
    # shellcheck disable=SC2154
    kill -9 "$edge2"
    began=$(now)
    # those who were cut ask again at once
    "$bin/orxload" --json --quiet --tcp "$lost" --ramp 0 --duration 10 "$url" >"$dir/again" 2>"$dir/again.log" &
    again=$!
    until_true 20 others $((players * 98 / 100))
    echo "edge 2 killed: its $lost players ask again at once, and play after $(($(now) - began)) ms;" \
        "players $(metric edge1 orx_players) - $(metric edge3 orx_players), at the origin $(metric origin orx_players)"
    wait "$again" || true
    echo "refused of those: $(number total failed "$dir/again") $(head -n 1 "$dir/again.log")"
    wait "$load" || true
    echo "of the first $players players: $(number total cut "$dir/load") cut, packets lost by the others:" \
        "$(number total lost "$dir/load")"
    orx edge2
    began=$(now)
    until_true 10 is edge2 orx_pushers 0
    up=$(($(now) - began))
    until_true 60 is edge2 orx_live_programs 1
    echo "edge 2 started again: answers after $up ms, has its program after $(($(now) - began)) ms;" \
        "its orxpull said:"
    sed 's/^/    /' "$dir/pull2.log"
    until_true 60 grep -q "edge2 is UP" "$dir/haproxy.log"
    echo "taken in by haproxy after $(($(now) - began)) ms"
    "$bin/orxload" --json --quiet --tcp 30 --ramp 30 --duration 3 "$url" >"$dir/again" 2>>"$dir/load.log" &
    load=$!
    until_true 60 playing 30
    echo "30 new players: $(metric edge1 orx_players) $(metric edge2 orx_players) $(metric edge3 orx_players)"
    wait "$load" || true
    echo "refused: $(number total failed "$dir/again"), first picture after" \
        "$(number first_picture_ms p50 "$dir/again") ms (median), $(number first_picture_ms max "$dir/again") ms (last)"
}

echo "$(nproc) processors, $(uname -sr), $(haproxy -v | head -n 1 | cut -d ' ' -f 1-3); $kbits kbit/s, $fps pictures a" \
    "second; processor seconds in $seconds s"
printf '%-8s %7s  %6s  %20s  %7s %7s  %17s  %8s %6s %6s %6s  %15s\n' "" "" "" edges "" "" "at the origin" "" "" "" "" \
    "latency ms"
printf '%-8s %7s  %6s  %6s %6s %6s  %7s %7s  %8s %8s  %8s %6s %6s %6s  %7s %7s\n' LowDelay players origin 1 2 3 orxpull \
    haproxy sessions Mbit/s "Mbit/s" lost cut failed p50 p99
for value in $values; do
    stop
    start "$value"
    for players in $rows; do
        row "$players" "$value"
    done
done
echo
failure
