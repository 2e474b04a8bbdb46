#!/usr/bin/env bash
# The main job: build the library and its client, start a private slapd on
# loopback (with an ldaps listener and certificates it makes), and run a session
# of the command-line client against it, then a session over ldaps.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo
exec build/bin/with_slapd --tls -- bash scripts/demo-session.sh
