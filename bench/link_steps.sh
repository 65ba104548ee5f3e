#!/bin/bash
# Relinks the Release objects of build-bench/ (made by bench/run.sh) once per
# start-up step and times `-l` with 3 services of every variant against the
# raw client, all in turn in one run. Each step adds to the one before; the
# last is the default build. The change columns are medians minus the step
# before's; CPU time (user + system) is the steadier signal.
#   bench/link_steps.sh [RUNS]        (default 600 runs of each)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
runs=${1:-600}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# The default link line as CMake writes it (a static PIE), taken apart.
line=$(ninja -C "$build" -t commands cli/sylvane-service | tail -n 1 |
       sed -e 's/^: && //' -e 's/ && :$//' -e 's| -o cli/sylvane-service | |')
archive=$(tr ' ' '\n' <<<"$line" | grep 'libevent_core\.a$')
static=$(tr ' ' '\n' <<<"$line" | grep -e '^-static-pie$' -e '--wrap=' | tr '\n' ' ')
gc="-Wl,--gc-sections"
with_archive=$line
for flag in $static $gc; do
    with_archive=${with_archive/ $flag / }
done
shared=${with_archive/$archive/${archive%.a}.so}
runtime="-static-libstdc++ -static-libgcc"
libm="-Wl,-Bstatic,-lm,-Bdynamic"

names=()
variant() {  # name, link command
    if ! (cd "$build" && $2 -o "$out/$1") >"$out/$1.log" 2>&1; then
        cat "$out/$1.log"
        exit 1
    fi
    strip -o "$out/$1.stripped" "$out/$1"
    names+=("$1")
}
variant 0-shared "$shared"
variant 1-libstdc++,libgcc "$shared $runtime"
variant 2-libevent_core.a "$with_archive $runtime"
variant 3-libm.a "$with_archive $runtime $libm"
variant 4-gc-sections "$with_archive $runtime $libm $gc"
variant 5-static-pie "$with_archive $gc $static"

commands="$build/bench/raw_client get_tenants"
for name in "${names[@]}"; do
    commands="$commands -- $out/$name -l"
done
results=$(unshare -rn sh -c "ip link set lo up
    '$build/bench/native_agent' 3 >/dev/null & agent=\$!
    sleep 0.3
    '$build/bench/bench_command' $runs $commands
    kill \$agent")
sizes=$(for name in raw "${names[@]}"; do
    [ "$name" = raw ] && echo 0 || stat -c %s "$out/$name.stripped"; done)
paste -d ' ' <(printf '%s\n' raw "${names[@]}") <(echo "$results") <(echo "$sizes") | awk '
    { wall[NR] = $3; cpu[NR] = $7 }
    { base = NR > 1 ? NR - 1 : 1 }
    { printf "%-20s wall %6.3f ms  ratio to raw %.3f  change %+6.3f ms | cpu %6.3f ms  change %+6.3f ms | peak RSS %5d KiB  stripped %7d B  failed %d\n",
             $1, $3, $3 / wall[1], $3 - wall[base], $7, $7 - cpu[base], $5, $8, $6 }'
