#!/bin/sh
# Installs the Debian packages that the named purposes need and that are not there yet.
#   scripts/install-deps.sh build   to build and run the server
#   scripts/install-deps.sh package to make Debian packages
#   scripts/install-deps.sh test    to build and run every test as well
#   scripts/install-deps.sh armhf   to build for armhf, or arm64, and to run those tests; on such a machine: as test
set -eu

build="g++ make cmake libenet-dev"
tools="libssl-dev libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev libmicrohttpd-dev"
package="dpkg-dev gzip mmdebstrap"
test="git libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev python3 procps valgrind
      ffmpeg mpv gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps
      gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
      gstreamer1.0-rtsp python3-gi gir1.2-gst-rtsp-server-1.0
      chromium chromium-driver python3-selenium
      iproute2 nftables stunnel4 openssl $package lintian shellcheck logrotate systemd"
own=$(dpkg --print-architecture)

# cross COMPILER ARCHITECTURE: the compiler is this machine's, libraries and what programs are linked with are the other's
cross() {
    [ "$own" != "$2" ] || return 0
    dpkg --print-foreign-architectures | grep -qx "$2" || foreign="$foreign $2"
    wanted="$wanted make cmake git qemu-user qemu-user-static $1
            libenet-dev:$2 libgtest-dev:$2 libgmock-dev:$2 libstdc++6:$2"
}

wanted=""
foreign=""
for purpose in "${@:-}"; do
    case "$purpose" in
    build) wanted="$wanted $build $tools" ;;
    package) wanted="$wanted $package" ;;
    test) wanted="$wanted $build $tools $test" ;;
    "$own") wanted="$wanted $build $tools $test" ;;
    armhf) cross g++-arm-linux-gnueabihf armhf ;;
    arm64) cross g++-aarch64-linux-gnu arm64 ;;
    *)
        echo "usage: $0 build|test|package|armhf|arm64 ..." >&2
        exit 2
        ;;
    esac
done

missing=""
for package in $wanted; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

echo "Installing:$missing"
as_root=""
[ "$(id -u)" -eq 0 ] || as_root="sudo"
for architecture in $foreign; do
    $as_root dpkg --add-architecture "$architecture"
done
# a mirror in the middle of its own update lacks some lists, mostly not those that are needed
$as_root apt-get update -q -o Acquire::Retries=3 || echo "$0: going on with the package lists that there are" >&2
# shellcheck disable=SC2086 # the list is one of words
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -q --no-install-recommends $missing
