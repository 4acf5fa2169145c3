#!/bin/sh
# kel's main job on its embedded single-host default.
set -eu
cd "$(dirname "$0")/.."
build=build/release
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target kelctl
kelctl="$build/cli/kelctl"
echo "== kelctl conf check examples/kel.conf"
"$kelctl" conf check examples/kel.conf
echo "== kelctl conf format examples/kel.conf"
"$kelctl" conf format examples/kel.conf
