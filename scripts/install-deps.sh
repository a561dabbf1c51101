#!/bin/sh
# Installs the Debian packages that the named purpose needs and that are not there yet.
#   scripts/install-deps.sh build   to build and run the server
#   scripts/install-deps.sh package to make Debian packages
#   scripts/install-deps.sh test    to build and run every test as well
set -eu

build="g++ make cmake libenet-dev"
tools="libavformat-dev libavcodec-dev libavutil-dev"
package="dpkg-dev gzip"
test="git libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev python3 procps
      ffmpeg mpv gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps
      gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
      gstreamer1.0-rtsp
      iproute2 nftables $package mmdebstrap lintian shellcheck logrotate systemd"

case "${1:-}" in
build) wanted="$build $tools" ;;
package) wanted="$build $tools $package" ;;
test) wanted="$build $tools $test" ;;
*)
    echo "usage: $0 build|package|test" >&2
    exit 2
    ;;
esac

missing=""
for package in $wanted; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

echo "Installing:$missing"
as_root=""
[ "$(id -u)" -eq 0 ] || as_root="sudo"
$as_root apt-get update -q
# shellcheck disable=SC2086 # the list is one of words
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -q --no-install-recommends $missing
