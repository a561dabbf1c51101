#!/bin/sh
# Builds the server, installs it under ./out, starts it with the shipped configuration, plays a demo program into it,
# serves pages for browsers and pulls the cameras of [PULL], and says what to open. Ends with Ctrl-C or "quit", and so
# does everything that it started.
#   scripts/run.sh        says little while it builds
#   scripts/run.sh -v     shows the build
# Exit status: 0 it was ended; 1 it could not be built or started; 2 the command line; 3 Orx runs already; 4 the tree
# belongs to another user.
set -eu
cd "$(dirname "$0")/.."

verbose=0
case "${1:-}" in
"") ;;
-v) verbose=1 ;;
-h | --help)
    sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' scripts/run.sh
    exit 0
    ;;
*)
    echo "usage: $0 [-v]" >&2
    exit 2
    ;;
esac

# --- Whatever ends this, ends what it started ---

build=""
server=""
pusher=""
web=""
pull=""

# alive PID: what has ended and was not waited for is not
alive() {
    case $(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null) in
    "" | Z*) return 1 ;;
    esac
}

# end PID: asks for its end, and insists after ten seconds
# shellcheck disable=SC2317 # called by the trap
end() {
    kill "$1" 2>/dev/null || return 0
    for _ in $(seq 100); do
        alive "$1" || break
        sleep 0.1
    done
    kill -KILL "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

# shellcheck disable=SC2317 # the same
stop_all() {
    trap '' HUP INT TERM
    [ -z "$build" ] || kill -TERM "-$build" 2>/dev/null || kill "$build" 2>/dev/null || true # all of its compilers
    for one in $web $pull $pusher; do end "$one"; done
    [ -z "$server" ] || end "$server" # it takes no SIGINT
}
trap stop_all EXIT
trap 'exit 0' HUP INT TERM

# --- Is it ours, and free? ---

for path in . build build/run build/run/CMakeCache.txt out out/bin out/log out/log/orx.log; do
    [ -e "$path" ] || continue
    [ ! -w "$path" ] || continue
    echo "$(pwd)/$path belongs to $(stat -c %U "$path"), and $(id -un) may not write there." >&2
    echo "Run this as $(stat -c %U "$path"), or give the tree away first: sudo chown -R $(id -un) '$(pwd)'" >&2
    exit 4
done

# listens PORT: whether anything does, on any address
listens() {
    hex=$(printf ':%04X' "$1")
    cat /proc/net/tcp /proc/net/tcp6 2>/dev/null |
        awk -v port="$hex" '$4 == "0A" && substr($2, length($2) - 4) == port { found = 1 } END { exit !found }'
}

runs_already() {
    echo "Orx runs already: $1. This one changes nothing." >&2
    exit 3
}

config=cfg/orx.cfg
[ ! -f out/cfg/orx.cfg ] || config=out/cfg/orx.cfg
# number KEY SECTION: of the configuration; empty without one
number() {
    sed -n "/^\\[$2\\]/,/^\\[/s/^$1=\\([0-9]*\\).*/\\1/p" "$config" | head -n 1
}
port=$(number ListenPort SERVER)
port=${port:-554}
web_port=$(number Port WEB)
web_port=${web_port:-8080}
mkdir -p build
exec 9>>build/run.lock
flock -n 9 || runs_already "scripts/run.sh of this tree, on port $port"
if listens "$port"; then
    runs_already "something listens on port $port already; see ListenPort in $config"
fi

# --- Build: its log is shown where it fails ---

# In a process group of its own, so that its compilers can be ended with it.
build_in_group() {
    # shellcheck disable=SC2016 # the inner shell expands it
    setsid sh -ec 'cmake -S . -B build/run -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
        cmake --build build/run -j"$(nproc)"
        cmake --install build/run --prefix out' >&7 2>&1 9>&- &
    build=$!
    while [ -t 1 ] && [ "$verbose" = 0 ] && alive "$build"; do
        percent=$(grep -ao '^\[ *[0-9]*%\]' build/run.log | tail -n 1 || true)
        printf '\r\033[KBuilding Orx, the log is build/run.log: %s ' "${percent:-...}"
        sleep 0.5
    done
    status=0
    wait "$build" || status=$?
    build=""
    return "$status"
}

if [ "$verbose" = 1 ]; then
    scripts/install-deps.sh build 9>&-
    exec 7>&1
    build_in_group
else
    scripts/install-deps.sh build >build/run.log 9>&-
    exec 7>>build/run.log
    [ -t 1 ] || echo "Building Orx, the log is build/run.log ..."
    built=1
    build_in_group || built=0
    [ ! -t 1 ] || printf '\r\033[K'
    if [ "$built" = 0 ]; then
        cat build/run.log >&2
        echo "Orx could not be built; the lines above say why." >&2
        exit 1
    fi
fi

exec 7>&-

# --- Run ---

# Typing reaches the server only from a terminal's foreground: in its background reading would stop everything.
terminal_is_ours() {
    # shellcheck disable=SC2046 # words are wanted: state, parent, group, session, terminal, its foreground group
    set -- $(sed 's/.*) //' /proc/$$/stat)
    [ ! -t 0 ] || [ "$3" = "$6" ]
}

exec 8<&0
terminal_is_ours || exec 8</dev/null
out/bin/orx --strict <&8 9>&- &
server=$!
exec 8<&-

until listens "$port"; do
    if ! alive "$server"; then
        status=0
        wait "$server" || status=$?
        server=""
        [ "$status" = 0 ] || echo "Orx did not start; the lines above say why." >&2
        exit "$status"
    fi
    sleep 0.1
done

# the demo is there once it has said so
out/bin/orxpush --loop --wait 10 "rtsp://127.0.0.1:$port/live/demo" >build/demo.log 2>&1 </dev/null 9>&- &
pusher=$!
for _ in $(seq 100); do
    [ ! -s build/demo.log ] || break
    sleep 0.1
done

host=$(hostname -I 2>/dev/null | cut -d' ' -f1)
if [ "$(number NumSources PULL)" -gt 0 ] 2>/dev/null && [ -x out/bin/orxpull ]; then
    out/bin/orxpull -c out/cfg/orx.cfg </dev/null 9>&- &
    pull=$!
fi
if [ -x out/bin/orxweb ]; then
    out/bin/orxweb -c out/cfg/orx.cfg >build/web.log 2>&1 </dev/null 9>&- &
    web=$!
    until listens "$web_port" || ! alive "$web"; do sleep 0.1; done
fi

echo
if [ -n "$web" ] && alive "$web"; then
    echo "Pages for browsers: http://${host:-127.0.0.1}:$web_port/"
elif [ -n "$web" ]; then
    echo "There are no pages for browsers: $(tail -n 1 build/web.log)"
fi
cat <<EOF
Push your own camera to rtsp://${host:-127.0.0.1}:$port/live/NAME. "stat" shows who is there, "quit" ends.
The demo program plays. Open it with, for example:
    ffplay rtsp://${host:-127.0.0.1}:$port/live/demo
EOF

status=0
wait "$server" || status=$?
server=""
exit "$status"
