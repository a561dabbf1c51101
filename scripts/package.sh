#!/bin/sh
# Builds the Debian packages orx, orx-tools and orx-companions into dist/.
#   scripts/package.sh           for this machine's architecture
#   scripts/package.sh armhf     for another one: amd64, arm64 or armhf
set -eu
cd "$(dirname "$0")/.."

own=$(dpkg --print-architecture)
architecture=${1:-$own}
case $architecture in
amd64 | arm64 | armhf) ;;
*)
    echo "usage: $0 [amd64|arm64|armhf]" >&2
    exit 2
    ;;
esac
toolchain=""
purpose=build
if [ "$architecture" != "$own" ]; then
    toolchain="-DCMAKE_TOOLCHAIN_FILE=cmake/$architecture.cmake"
    purpose=$architecture
    if [ ! -f "cmake/$architecture.cmake" ]; then
        echo "$0: $architecture cannot be built on $own" >&2
        exit 2
    fi
fi
scripts/install-deps.sh "$purpose" package
if [ -n "$toolchain" ]; then
    sysroot=$PWD/build/sysroot-$architecture
    libraries=libenet-dev,libssl-dev,libavformat-dev,libavcodec-dev,libavutil-dev,libswscale-dev,libmicrohttpd-dev
    # shellcheck disable=SC1091 # the distribution's own
    [ -d "$sysroot" ] || (. /etc/os-release && mmdebstrap --quiet --variant=extract --architectures="$architecture" \
        --include="$libraries" "$VERSION_CODENAME" "$sysroot" \
        "deb http://deb.debian.org/debian $VERSION_CODENAME main")
    toolchain="$toolchain -DORX_SYSROOT=$sysroot"
fi
if command -v ccache >/dev/null; then toolchain="$toolchain -DCMAKE_CXX_COMPILER_LAUNCHER=ccache"; fi

umask 022
tree=build/package-$architecture
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH
# shellcheck disable=SC2086 # a list of words
cmake -S . -B "$tree" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF $toolchain >/dev/null
cmake --build "$tree" -j"${ORX_JOBS:-$(nproc)}"
cmake --build "$tree" --target manpages
mkdir -p dist
(cd "$tree" && rm -f ./*.deb && DEB_HOST_ARCH=$architecture cpack >cpack.log 2>&1) || {
    cat "$tree/cpack.log" >&2
    exit 1
}
mv "$tree"/*.deb dist/
ls -l dist/*_"$architecture".deb
