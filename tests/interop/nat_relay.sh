#!/bin/sh
# A live program through the relay: a box and a player, each behind a NAT of its own, and a rendezvous server
# between them; the player's link loses 1% of its packets in each direction.
#
#   nat_relay.sh BIN_DIR [SECONDS]     BIN_DIR holds orx, orxpush, orxzupo and orxrelay; 10 seconds of play
#
# Exit code: 0 passed, 1 failed, 77 nothing to test with: ffmpeg, nft, and the right to make network namespaces.
set -eu

bin=$(cd "${1:?usage: nat_relay.sh BIN_DIR [SECONDS]}" && pwd)
seconds=${2:-10}
guid=interop-$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')
work=$(mktemp -d)
tag=orx$$
box=${tag}b boxnat=${tag}bn inet=${tag}i clientnat=${tag}cn client=${tag}c
rtsp=8554 zupo=8555 local=8556 server=203.0.113.254
pids=""

cleanup() {
    status=$?
    for pid in $pids; do kill "$pid" 2>/dev/null || true; done
    for pid in $pids; do wait "$pid" 2>/dev/null || true; done
    if [ "$status" -eq 1 ]; then tail -n 60 "$work"/*.out; fi
    for ns in "$box" "$boxnat" "$inet" "$clientnat" "$client"; do ip netns delete "$ns" 2>/dev/null || true; done
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
    echo "FAILED: $*"
    exit 1
}

# in_ns NETNS COMMAND...
in_ns() { ip netns exec "$@"; }

# start NAME COMMAND...: in the background, its output in NAME.out, its standard input open. A command, no function,
# is what runs in the background, so that the process id is its own.
start() {
    name=$1
    shift
    mkfifo "$work/$name.in"
    : >"$work/$name.out"
    sleep 100000 >"$work/$name.in" &
    pids="$! $pids"
    "$@" <"$work/$name.in" >>"$work/$name.out" 2>&1 &
    pids="$! $pids"
}

# wait_for FILE TEXT SECONDS
wait_for() {
    tries=$(($3 * 10))
    until grep -q -- "$2" "$work/$1.out"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "no \"$2\" in the output of $1 within $3 seconds"
        sleep 0.1
    done
}

# connect NETNS NAME ADDRESS NETNS NAME ADDRESS
connect() {
    ip link add "$2" netns "$1" type veth peer name "$5" netns "$4"
    for end in "$1 $2 $3" "$4 $5 $6"; do
        # shellcheck disable=SC2086 # three words
        set -- $end
        ip -n "$1" address add "$3" dev "$2"
        ip -n "$1" link set "$2" up
    done
}

# A home router: what goes out by "wan" gets its address, and only answers come in.
router() {
    in_ns "$1" sysctl -q -w net.ipv4.ip_forward=1
    in_ns "$1" nft -f - <<'NFT'
table ip home {
    chain out { type nat hook postrouting priority 100; oifname "wan" masquerade; }
    chain in { type filter hook input priority 0; policy drop; ct state established,related accept; }
    chain through {
        type filter hook forward priority 0; policy drop;
        ct state established,related accept
        iifname "lan" accept
    }
}
NFT
}

command -v ffmpeg >/dev/null && command -v nft >/dev/null && ip netns add "$inet" 2>/dev/null || exit 77
for ns in "$box" "$boxnat" "$clientnat" "$client"; do ip netns add "$ns"; done
for ns in "$box" "$boxnat" "$inet" "$clientnat" "$client"; do ip -n "$ns" link set lo up; done
connect "$box" eth0 192.168.1.2/24 "$boxnat" lan 192.168.1.1/24
connect "$client" eth0 192.168.2.2/24 "$clientnat" lan 192.168.2.1/24
connect "$boxnat" wan 203.0.113.1/24 "$inet" tobox 203.0.113.254/24
connect "$clientnat" wan 198.51.100.1/24 "$inet" toclient 198.51.100.254/24
ip -n "$box" route add default via 192.168.1.1
ip -n "$client" route add default via 192.168.2.1
ip -n "$boxnat" route add default via 203.0.113.254
ip -n "$clientnat" route add default via 198.51.100.254
in_ns "$inet" sysctl -q -w net.ipv4.ip_forward=1
router "$boxnat"
router "$clientnat"
in_ns "$clientnat" nft insert rule ip home through numgen random mod 100 == 0 drop

mkdir -p "$work/bin" "$work/cfg" "$work/log"
cp "$bin/orx" "$work/bin/orx"
cat >"$work/cfg/orx.cfg" <<CFG
[SERVER]
AuthType=0
ListenPort=$rtsp
LiveTime=30
[GUARD]
SurvivePeerFaults=1
RunUnprivileged=1
[ZUPO]
ZupoEnable=1
ZupoServerAddr=$server
ZupoServerPort=$zupo
[MAIN]
DeviceGuid=$guid
CFG

start zupo ip netns exec "$inet" "$bin/orxzupo" --listen "$server:$zupo"
wait_for zupo listening 5
start orx ip netns exec "$box" "$work/bin/orx"
wait_for orx "Enter command" 10
start push ip netns exec "$box" "$bin/orxpush" --quiet --loop "rtsp://127.0.0.1:$rtsp/live/cam1"
wait_for zupo "at 203.0.113.1:.* is registered" 45
public=$(sed -n 's/.* at \(203[^ ]*\) is registered/\1/p' "$work/zupo.out")
if in_ns "$client" "$bin/orxrelay" --check --timeout 3 "$public" 2>/dev/null; then
    fail "the box is reached without a punch: this is no test"
fi

start relay ip netns exec "$client" "$bin/orxrelay" --listen "$local" --server "$server:$zupo" "$guid"
wait_for relay "open rtsp" 5
in_ns "$client" timeout $((seconds + 30)) ffmpeg -nostdin -hide_banner -loglevel warning -xerror \
    -rtsp_transport tcp -i "rtsp://127.0.0.1:$local/live/cam1" -t "$seconds" -f null -progress "$work/progress" - \
    >"$work/ffmpeg.out" 2>&1 || fail "ffmpeg ended with $?"
[ ! -s "$work/ffmpeg.out" ] || fail "ffmpeg complains"
frames=$(sed -n 's/^frame=//p' "$work/progress" | tail -n 1)
[ "$frames" -ge $((seconds * 25 * 9 / 10)) ] || fail "$frames frames in $seconds seconds"
grep -q "A punching connected" "$work/orx.out" || fail "nobody punched"
echo "PASSED: $frames frames in $seconds seconds"
