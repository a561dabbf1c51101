#!/bin/sh
# The life of the packages in a clean root: built, checked, installed, started, pushed to, played, recorded, reloaded,
# upgraded with an edited configuration, removed, purged. Needs mmdebstrap and root that may mount; status 77 without.
#   ORX_ROOT=FILE.tar    a root made before, which is unpacked instead
set -eu
cd "$(dirname "$0")/../.."

if [ "$(id -u)" != 0 ] || ! unshare --mount true 2>/dev/null || ! command -v mmdebstrap >/dev/null; then
    echo "skipped: needs mmdebstrap, and root that may mount"
    exit 77
fi
begun=$(date +%s)
say() {
    echo "[$(($(date +%s) - begun)) s] $*"
}
fail() {
    say "FAILED: $*"
    exit 1
}

work=$(mktemp -d /tmp/orx-life.XXXXXX)
root=$work/root
server=""
pusher=""
pull=""
stop() {
    [ -z "$pull" ] || kill "$pull" 2>/dev/null || true
    [ -z "$pusher" ] || kill "$pusher" 2>/dev/null || true
    [ -z "$server" ] || kill -KILL "$server" 2>/dev/null || true
    if mountpoint -q "$root/proc"; then umount "$root/proc"; fi
    rm -rf "$work"
}
trap stop EXIT
trap 'exit 1' HUP INT TERM

# --- A root, made while the packages are ---

packages=adduser,init-system-helpers,libenet7,libstdc++6,logrotate,libssl3,libmicrohttpd12
made=0
if [ -n "${ORX_ROOT:-}" ]; then
    mkdir "$root"
    tar -xf "$ORX_ROOT" -C "$root"
else
    mmdebstrap -q --variant=essential --include=$packages bookworm "$root" >"$work/root.log" 2>&1 &
    made=$!
fi
scripts/package.sh >"$work/package.log" 2>&1 || {
    cat "$work/package.log"
    fail "the packages could not be built"
}
own=$(dpkg --print-architecture)
version=$(sed -n 's/^project(orx VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
deb=dist/orx_${version}_$own.deb
tools=dist/orx-tools_${version}_$own.deb
companions=dist/orx-companions_${version}_$own.deb
say "built $deb, $tools and $companions"
if command -v lintian >/dev/null; then
    lintian --allow-root --fail-on error,warning "$deb" "$tools" "$companions" || fail lintian
fi
dpkg -f "$tools" Depends | grep -q libavformat || fail "orxzmf was built without export"
if [ "$made" != 0 ] && ! wait "$made"; then
    cat "$work/root.log"
    fail "no root could be made"
fi
say "the root is there"

in_root() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}
# install FILE...: by dpkg; the libraries of export alone are 300 MB and stay out
install() {
    for file in "$@"; do cp "$file" "$root/tmp/"; done
    in_root sh -ec 'dpkg --ignore-depends=libavcodec59,libavformat59,libavutil57,libswscale6 --force-confdef --force-confold \
        -i /tmp/*.deb; rm /tmp/*.deb' >"$work/dpkg.log" 2>&1 || {
        cat "$work/dpkg.log"
        fail "dpkg -i $*"
    }
}
mount -t proc proc "$root/proc"
install "$deb" "$tools" "$companions"

# --- Installed ---

# owned PATH MODE OWNER
owned() {
    [ "$(in_root stat -c '%a %U:%G' "$1")" = "$2 $3" ] || fail "$1: $(in_root stat -c '%a %U:%G' "$1"), not $2 $3"
}
owned /etc/orx 1770 root:orx
owned /etc/orx/orx.cfg 640 root:orx
owned /var/lib/orx 750 orx:orx
owned /var/log/orx 750 orx:orx
for unit in orx orxpull orxweb; do
    [ -L "$root/etc/systemd/system/multi-user.target.wants/$unit.service" ] || fail "$unit.service is not enabled"
done
if command -v systemd-analyze >/dev/null; then
    systemd-analyze verify --man=no --root="$root" orx.service orxpull.service orxweb.service 2>"$work/verify" || true
    # the root has no systemd of its own, and so none of its targets
    if grep 'orx[a-z]*\.service' "$work/verify" | grep -v 'sysinit.target not found'; then fail "systemd-analyze verify"; fi
    for unit in orx orxpull orxweb; do
        systemd-analyze security --offline=yes --threshold=30 "$root/lib/systemd/system/$unit.service" >"$work/security" 2>&1 ||
            fail "systemd-analyze security: $(tail -n 1 "$work/security")"
    done
fi
for program in orx orxpush orxload orxrec orxzmf orxzupo orxrelay orxctl orxpull orxweb; do
    gzip -t "$root"/usr/share/man/man?/$program.?.gz || fail "no manual page of $program"
done

# --- Started, as the unit does it ---

port=$((20000 + $$ % 9000))  # the root has the ports of the machine
url=rtsp://127.0.0.1:$port/live/demo
config=$root/etc/orx/orx.cfg
sed -i "s/^ListenPort=.*/ListenPort=$port/; s/^UdpStartPort=.*/UdpStartPort=$((port + 10))/; s/^UdpEndPort=.*/UdpEndPort=$((port + 200))/
    /^HoldPlayers=/d" "$config"

as_service="setpriv --reuid orx --regid orx --clear-groups --no-new-privs"
capabilities="-all,+sys_nice,+net_bind_service"
if in_root setpriv --bounding-set=$capabilities --inh-caps=$capabilities true 2>/dev/null; then
    as_service="$as_service --bounding-set=$capabilities --inh-caps=$capabilities --ambient-caps=$capabilities"
fi
start() {
    mkdir -p "$root/run/orx"
    in_root chown orx:orx /run/orx
    chmod 0750 "$root/run/orx" # RuntimeDirectoryMode
    # shellcheck disable=SC2086,SC2046 # lists of words
    chroot "$root" $as_service $(sed -n 's/^ExecStart=//p' "$root/lib/systemd/system/orx.service") \
        >"$work/orx.out" 2>&1 </dev/null &
    server=$!
}
# soon COMMAND...: that it succeeds within 20 seconds
soon() {
    for _ in $(seq 100); do
        if "$@" >"$work/soon.out" 2>&1; then return 0; fi
        sleep 0.2
    done
    cat "$work/soon.out" "$work/orx.out"
    fail "$*"
}

push() {
    in_root orxpush --loop --quiet --wait 20 "$url" >"$work/push.out" 2>&1 &
    pusher=$!
}

start
push
soon in_root orxload --tcp 1 --udp 1 --duration 1 --quiet "$url"
[ "$(stat -c %u "/proc/$server")" = "$(in_root id -u orx)" ] || fail "it runs as another user"
# by the socket in /run, as somebody of the service's group
as_group() {
    in_root setpriv --reuid nobody --regid orx --clear-groups orxctl -s /run/orx/orx.sock "$@"
}
soon as_group health
as_group programs | grep -q live/demo || fail "orxctl programs: $(as_group programs 2>&1)"
if in_root setpriv --reuid nobody --regid nogroup --clear-groups orxctl -s /run/orx/orx.sock status >"$work/other" 2>&1; then
    fail "everybody may ask the status socket"
fi
# beside it: another server of its kind, which is itself, is a camera like others
chroot "$root" setpriv --reuid orx --regid orx --clear-groups /usr/bin/orxpull -c /etc/orx/orx.cfg "$url" live/pulled \
    >"$work/pull.out" 2>&1 &
pull=$!
pulled() {
    as_group programs | grep live/pulled
}
soon pulled
soon in_root orxload --tcp 1 --duration 1 --quiet "rtsp://127.0.0.1:$port/live/pulled"
kill "$pull"
wait "$pull" || fail "orxpull ended with $?: $(cat "$work/pull.out")"
say "it plays, and pulls"

# --- Recorded ---

in_root orxrec start "$url" >"$work/rec.out" || fail "orxrec start: $(cat "$work/rec.out")"
in_root orxload --tcp 1 --duration 3 --quiet "$url" >/dev/null || fail "no picture while it records"
in_root orxrec stop "$url" >"$work/rec.out" || fail "orxrec stop: $(cat "$work/rec.out")"
recorded() {
    recording=$(find "$root/var/lib/orx" -name '*.zmf' -user "$(in_root id -u orx)" -size +1k | head -n 1)
    [ -n "$recording" ] && in_root orxrec list "$url" | grep 'rtsp://'
}
soon recorded
say "recorded: ${recording#"$root"}"

# --- Reloaded: pushers now need a password ---

sed -i 's/^AnnounceAuth=.*/AnnounceAuth=1/; s/^SuperUser=.*/SuperUser=boss/; s/^SuperPwd=.*/SuperPwd=secret/' "$config"
kill -HUP "$server"
refused() {
    ! in_root orxpush --quiet --duration 1 --speed 0 "rtsp://127.0.0.1:$port/live/other"
}
soon refused
in_root orxload --tcp 1 --duration 1 --quiet "$url" >/dev/null || fail "a reload ended the program"
if [ -f "$root/var/log/orx/events.log" ]; then
    in_root logrotate -f /etc/logrotate.d/orx || fail logrotate
    kill -HUP "$server"
    in_root orxload --tcp 1 --duration 1 --quiet "$url" >/dev/null
    soon test -s "$root/var/log/orx/events.log"
fi
kill "$pusher"
wait "$pusher" 2>/dev/null || true
pusher=""
kill "$server"
status=0
wait "$server" || status=$?
server=""
[ "$status" = 0 ] || fail "it ended with $status: $(cat "$work/orx.out")"
say "reloaded and stopped"

# --- Upgraded: what was edited stays ---

dpkg-deb -R "$deb" "$work/next"
sed -i 's/^Version: .*/&+next/' "$work/next/DEBIAN/control"
printf '\n; a new line of the next version\n' >>"$work/next/etc/orx/orx.cfg"
dpkg-deb --root-owner-group -b "$work/next" "$work/orx-next.deb" >/dev/null
cp "$config" "$work/edited.cfg"
in_root touch /etc/orx/guid.dat
install "$work/orx-next.deb"
cmp -s "$config" "$work/edited.cfg" || fail "the upgrade changed the configuration"
[ -f "$config.dpkg-dist" ] || fail "the new configuration is not beside the edited one"
owned /etc/orx/orx.cfg 640 root:orx
if grep -q -e '--upgrade' "$root/usr/lib/orx/bin/orx"; then
    in_root orx --check -c /etc/orx/orx.cfg >"$work/check" 2>&1 || true
    grep -q HoldPlayers "$work/check" || fail "no doubt about a key that the edited file lacks: $(cat "$work/check")"
    in_root orx --check --upgrade -c /etc/orx/orx.cfg 2>&1 | grep -q '^HoldPlayers=5' || fail "--check --upgrade"
fi
start
push_allowed() {
    in_root orxpush --quiet --user boss --password secret --duration 1 --wait 5 "$url"
}
soon push_allowed
kill "$server"
wait "$server" || true
server=""
say "upgraded"

# --- Removed, purged: recordings stay ---

mkdir -p "$root/var/cache/orx"
in_root dpkg -r orx-companions orx >"$work/dpkg.log" 2>&1 || fail "dpkg -r: $(cat "$work/dpkg.log")"
[ ! -e "$root/usr/lib/orx/bin/orx" ] || fail "the program is still there"
cmp -s "$config" "$work/edited.cfg" || fail "removing took the configuration"
in_root dpkg -P orx orx-tools orx-companions >"$work/dpkg.log" 2>&1 || fail "dpkg -P: $(cat "$work/dpkg.log")"
for path in /etc/orx /etc/logrotate.d/orx /var/log/orx /usr/lib/orx /usr/bin/orx /usr/bin/orxpush /usr/bin/orxweb \
    /usr/share/doc/orx /var/cache/orx; do
    [ ! -e "$root$path" ] || fail "purged, and $path is still there: $(ls "$root$path")"
done
[ -s "$recording" ] || fail "purging deleted a recording"
say "removed and purged, the recordings are there"
