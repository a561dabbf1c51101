#!/bin/sh
# Builds the server, installs it under ./out, starts it on port 8554 with the shipped configuration, plays a demo
# program into it, and says what to open. Ends with Ctrl-C or "quit".
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh build
cmake -S . -B build/run -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build build/run -j"$(nproc)"
cmake --install build/run --prefix out >/dev/null

port=$(sed -n 's/^ListenPort=//p' out/cfg/orx.cfg)
host=$(hostname -I 2>/dev/null | cut -d' ' -f1)
host=${host:-127.0.0.1}
pusher=""
trap '[ -z "$pusher" ] || kill "$pusher" 2>/dev/null || true' EXIT
trap 'exit 0' INT TERM

(
    sleep 2
    echo
    echo "The demo program plays. Open it with, for example:"
    echo "    ffplay rtsp://$host:$port/live/demo"
    echo "Push your own camera to rtsp://$host:$port/live/NAME. \"stat\" shows who is there, \"quit\" ends."
    exec out/bin/orxpush --loop --quiet "rtsp://127.0.0.1:$port/live/demo"
) &
pusher=$!

out/bin/orx
