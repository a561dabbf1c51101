#!/bin/sh
# Installs Orx on a board without packages: a built tree (of scripts/package.sh's architecture, or any that cmake built)
# or a tarball of an installation, below a prefix, started by systemd or an init script.
#   scripts/install.sh [--prefix DIR] [--no-service] BUILD_DIR|FILE.tar.gz
#   scripts/install.sh [--prefix DIR] --tarball FILE.tar.gz BUILD_DIR     makes the tarball, for the board
#   scripts/install.sh [--prefix DIR] --uninstall
# The prefix is /opt/orx unless it is given. A configuration that is there is kept, the new one lies beside it as
# orx.cfg.new; recordings (rec/) outlive an uninstallation, and so does the configuration.
# DESTDIR=DIR installs below DIR, for an image that another machine will run; nothing is started then.
set -eu

prefix=/opt/orx
service=1
uninstall=0
tarball=""
source=""
root=${DESTDIR:-}

usage() {
    sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"
}
say() {
    echo "install.sh: $*"
}
refuse() {
    echo "install.sh: $*" >&2
    exit "${2:-1}"
}

while [ $# -gt 0 ]; do
    case $1 in
    --help | -h)
        usage
        exit 0
        ;;
    --prefix | --tarball)
        [ $# -gt 1 ] || { usage >&2 && exit 2; }
        if [ "$1" = --prefix ]; then prefix=$2; else tarball=$2; fi
        shift
        ;;
    --no-service) service=0 ;;
    --uninstall) uninstall=1 ;;
    -*)
        usage >&2
        exit 2
        ;;
    *) source=$1 ;;
    esac
    shift
done
case $prefix in
/ | /usr | *..* | *[!A-Za-z0-9/._-]*) refuse "the prefix $prefix is none: give an absolute directory of its own" ;;
/*) ;;
*) refuse "the prefix $prefix is not absolute" ;;
esac
to=$root$prefix
here=$(cd "$(dirname "$0")/.." && pwd)

systemd_there() {
    [ -d "$root/run/systemd/system" ] || { [ -n "$root" ] && [ -d "$root/lib/systemd/system" ]; }
}
# live COMMAND...: does it on the machine that runs, not in an image
live() {
    [ -n "$root" ] || "$@"
}

# --- Remove ---

remove_service() {
    for unit in orxweb orxpull orx; do
        [ -f "$root/etc/systemd/system/$unit.service" ] || continue
        live systemctl disable --now "$unit.service" >/dev/null 2>&1 || true
        rm -f "$root/etc/systemd/system/$unit.service" "$root/etc/systemd/system/multi-user.target.wants/$unit.service"
        live systemctl daemon-reload || true
    done
    if [ -f "$root/etc/init.d/orx" ]; then
        live /etc/init.d/orx stop || true
        rm -f "$root/etc/init.d/orx" "$root"/etc/rc?.d/[SK]??orx
    fi
}

if [ "$uninstall" = 1 ]; then
    [ -x "$to/bin/orx" ] || refuse "there is no Orx below $prefix"
    remove_service
    rm -f "$to"/bin/orx "$to"/bin/orxpush "$to"/bin/orxload "$to"/bin/orxrec "$to"/bin/orxzmf "$to"/bin/orxzupo \
        "$to"/bin/orxrelay "$to"/bin/orxctl "$to"/bin/orxpull "$to"/bin/orxweb
    # a prefix such as /usr/local is shared: no directory goes that holds anything else
    rm -rf "$to/share/orx"
    rm -f "$to"/cache/*.clip "$to"/cache/*.clip.part
    rm -f "$to"/share/man/man?/orx*.?.gz "$to"/log/orx.log* "$to"/log/events.log* "$to/log/errors.log" \
        "$to/run/orx.sock" "$to/run/orx.pid"
    for empty in share/man/man1 share/man/man8 share/man share bin log run cache; do
        rmdir "$to/$empty" 2>/dev/null || true
    done
    say "removed; configuration ($prefix/cfg) and recordings ($prefix/rec) are still there"
    exit 0
fi

# --- Gather: what lies below the prefix ---

[ -n "$source" ] || { usage >&2 && exit 2; }
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
trap 'exit 1' HUP INT TERM

gather() {
    if [ -f "$source" ]; then
        tar -xzf "$source" -C "$stage" || refuse "$source is no tarball"
        [ -x "$stage/bin/orx" ] || refuse "$source holds no bin/orx"
        return
    fi
    [ -f "$source/cmake_install.cmake" ] || refuse "$source is no build directory and no tarball"
    DESTDIR='' cmake --install "$source" --prefix "$stage" --strip >/dev/null
    mkdir -p "$stage/etc"
    cp "$here"/packaging/orx*.service "$here/packaging/orx.init" "$stage/etc/"
    rm -rf "$stage/log"
}
gather
if [ -n "$tarball" ]; then
    cp "$0" "$stage/install.sh"
    tar -C "$stage" --owner=0 --group=0 -czf "$tarball" .
    say "made $tarball; on the board: tar -xzf ${tarball##*/} ./install.sh && ./install.sh ${tarball##*/}"
    exit 0
fi
live [ "$(id -u)" = 0 ] || refuse "only root may do this"

# --- Install ---

mkdir -p "$to/bin" "$to/cfg" "$to/log" "$to/run" "$to/rec"
# the running one is stopped once the new one is whole on the disk: a full disk leaves it running
rm -rf "$to/bin/.new"
cp -R "$stage/bin" "$to/bin/.new"
live remove_service
mv -f "$to"/bin/.new/* "$to/bin/"
rmdir "$to/bin/.new"
cp -R "$stage/share" "$to/"
if [ ! -f "$to/cfg/orx.cfg" ]; then
    sed "s|^RecordPath=.*|RecordPath=$prefix/rec|" "$stage/cfg/orx.cfg" >"$to/cfg/orx.cfg"
else
    sed "s|^RecordPath=.*|RecordPath=$prefix/rec|" "$stage/cfg/orx.cfg" >"$to/cfg/orx.cfg.new"
    say "kept $prefix/cfg/orx.cfg; what is new stands in orx.cfg.new"
fi

# its own user where the system can make one; small boards run all as root
user=root
if grep -q '^orx:' "$root/etc/passwd" 2>/dev/null; then
    user=orx
elif [ -z "$root" ] && command -v useradd >/dev/null; then
    useradd --system --user-group --home-dir "$prefix" --no-create-home --shell /bin/false orx && user=orx
elif [ -z "$root" ] && command -v adduser >/dev/null; then
    adduser -S -D -H -h "$prefix" -s /bin/false orx 2>/dev/null && user=orx
fi
if [ "$user" = orx ]; then
    ids=$(sed -n 's/^orx:[^:]*:\([0-9]*\):\([0-9]*\):.*/\1:\2/p' "$root/etc/passwd")
    chown -R "$ids" "$to/log" "$to/run" "$to/rec"
    chown "0:${ids#*:}" "$to/cfg" "$to/cfg/orx.cfg"
    chmod 1770 "$to/cfg"
fi
chmod 0640 "$to/cfg/orx.cfg"

# --- Start ---

if [ "$service" = 0 ]; then
    say "installed; start it with $prefix/bin/orx -daemond --strict"
elif systemd_there; then
    mkdir -p "$root/etc/systemd/system/multi-user.target.wants" "$to/cache"
    chown "$user" "$to/cache"
    for unit in orx orxpull orxweb; do
        [ -x "$to/bin/$unit" ] || continue
        sed "s|/usr/lib/orx|$prefix|g; s|/etc/orx/orx.cfg|$prefix/cfg/orx.cfg|g; s|^User=.*|User=$user|; s|^Group=.*|Group=$user|
            s|^ReadWritePaths=.*|ReadWritePaths=$prefix/cfg $prefix/log $prefix/run $prefix/rec|
            s|^CacheDirectory=.*|ReadWritePaths=$prefix/cache|
            /^RuntimeDirectory/d; /^StateDirectory/d; /^LogsDirectory/d; /^CacheDirectoryMode/d" \
            "$stage/etc/$unit.service" >"$root/etc/systemd/system/$unit.service"
        ln -sf "../$unit.service" "$root/etc/systemd/system/multi-user.target.wants/$unit.service"
        live systemctl daemon-reload
        live systemctl restart "$unit.service"
    done
    say "installed as the service orx of systemd"
else
    mkdir -p "$root/etc/init.d"
    sed "s|@PREFIX@|$prefix|g; s|@USER@|$user|g" "$stage/etc/orx.init" >"$root/etc/init.d/orx"
    chmod 0755 "$root/etc/init.d/orx"
    for level in 2 3 4 5; do
        [ ! -d "$root/etc/rc$level.d" ] || ln -sf ../init.d/orx "$root/etc/rc$level.d/S90orx"
    done
    live /etc/init.d/orx start
    say "installed as /etc/init.d/orx"
fi
