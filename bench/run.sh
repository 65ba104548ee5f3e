#!/bin/sh
# Builds the tool (Release, as packaged) and the benchmarks into
# build-bench/, runs them and writes bench/RESULTS.md. The agent listens on
# the Transfer Agent's fixed port, so everything runs in a private network
# namespace when possible.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSYLV_TESTS=OFF >/dev/null
cmake --build "$build" -j "${JOBS:-2}" --target sylvane-service
cmake -S "$root/bench" -B "$build/bench" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build/bench" -j "${JOBS:-2}"
set -- python3 "$root/bench/bench.py" "$build/cli/sylvane-service" "$build/bench"
if unshare -rn sh -c 'ip link set lo up' 2>/dev/null; then
    exec unshare -rn sh -c 'ip link set lo up && exec "$0" "$@"' "$@"
fi
exec "$@"
