#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configure (once) and build one configuration.
set -euo pipefail
dir=$1
shift
root=$(cd "$(dirname "$0")/.." && pwd)
if [ ! -f "$root/$dir/build.ninja" ]; then
  cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
fi
cmake --build "$root/$dir" -- -j"$(nproc)"
