#!/bin/bash
# Relinks the Release objects of build-bench/ (made by bench/run.sh) once per
# start-up step and times `-l` with 3 services of every variant against the
# raw client, all in turn in one run. Steps 1 to 4 add to the step before
# (4 is the default build); steps 5 to 8 each try one more thing on top of
# step 4 and are compared with it. The change columns are medians minus the
# compared step's medians; CPU time (user + system) is the steadier signal.
#   bench/link_steps.sh [RUNS]        (default 600 runs of each)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
runs=${1:-600}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# The link line of the tool as CMake writes it, then without the static runtime.
line=$(ninja -C "$build" -t commands cli/sylvane-service | tail -n 1 |
       sed -e 's/^: && //' -e 's/ && :$//' -e 's| -o cli/sylvane-service | |')
archive=$(tr ' ' '\n' <<<"$line" | grep 'libevent_core\.a$')
runtime="-static-libstdc++ -static-libgcc"
libm="-Wl,-Bstatic,-lm,-Bdynamic"
gc="-Wl,--gc-sections"
with_archive=${line/$runtime/}
with_archive=${with_archive/$libm/}
with_archive=${with_archive/$gc/}
shared=${with_archive/$archive/${archive%.a}.so}

names=()
variant() {  # name, link command
    if ! (cd "$build" && $2 -o "$out/$1") >"$out/$1.log" 2>&1; then
        cat "$out/$1.log"
        exit 1
    fi
    names+=("$1")
}
variant 0-shared "$shared"
variant 1-libstdc++,libgcc "$shared $runtime"
variant 2-libevent_core.a "$with_archive $runtime"
variant 3-libm.a "$with_archive $runtime $libm"
variant 4-gc-sections "$with_archive $runtime $libm $gc"
variant 5-z-now "$with_archive $runtime $libm $gc -Wl,-z,now"
variant 6-noseparate-code "$with_archive $runtime $libm $gc -Wl,-z,noseparate-code"
variant 7-no-pie "$with_archive $runtime $libm $gc -no-pie"
variant 8-static-pie "$with_archive $gc -static-pie"

commands="$build/bench/raw_client get_tenants"
for name in "${names[@]}"; do
    commands="$commands -- $out/$name -l"
done
results=$(unshare -rn sh -c "ip link set lo up
    '$build/bench/native_agent' 3 >/dev/null & agent=\$!
    sleep 0.3
    '$build/bench/bench_command' $runs $commands
    kill \$agent")
paste -d ' ' <(printf '%s\n' raw "${names[@]}") <(echo "$results") | awk '
    { wall[NR] = $3; cpu[NR] = $7 }
    NR == 1 { base = 1 }
    NR > 1 && NR <= 6 { base = NR - 1 }
    NR > 6 { base = 6 }
    { printf "%-20s wall %6.3f ms  ratio to raw %.3f  change %+6.3f ms | cpu %6.3f ms  change %+6.3f ms | peak RSS %5d KiB  failed %d\n",
             $1, $3, $3 / wall[1], $3 - wall[base], $7, $7 - cpu[base], $5, $6 }'
