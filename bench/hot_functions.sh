#!/bin/bash
# Writes cli/hot_functions.txt, the order in which the static link puts
# functions first: every function a single call runs (-l and -g, human and
# --json, against native_agent 3, as callgrind names them), libc's IFUNC
# resolvers (all run at start-up), and the EVEX and AVX-512 string functions
# that valgrind's CPU does not select but the machine may. The code one call
# runs then lies together in a few pages instead of across the whole binary.
#   bench/hot_functions.sh TOOL BENCH_BUILD      (run by hand after big changes)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tool=$1
bench=$2
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

cat >"$out/run.sh" <<EOF
"$bench/native_agent" 3 >/dev/null & agent=\$!
sleep 0.3
n=0
for args in "-l" "-g" "--json -l" "--json -g"; do
    n=\$((n + 1))
    valgrind --tool=callgrind --demangle=no --callgrind-out-file="$out/\$n.out" \
        "$tool" \$args >/dev/null 2>&1
    sleep 0.05
done
kill \$agent
EOF
unshare -rn sh -c 'ip link set lo up && exec sh "$0"' "$out/run.sh"

{
    echo "# Functions one call runs, placed first by the static link (bench/hot_functions.sh)."
    echo _start
    nm "$tool" | awk '$2 == "i" || $3 ~ /_ifunc$/ { print $3 }' | sort -u
    cat "$out"/[0-9].out | sed -nE "s/^c?fn=\([0-9]+\) //p" | sed -E "s/'[0-9]+$//"
    cat "$out"/[0-9].out | sed -nE "s/^c?fn=\([0-9]+\) //p" |
        sed -nE 's/^(__[a-z]+)_(avx2|avx|sse2).*/\1/p' | sort -u |
        while read -r base; do
            nm "$tool" | awk -v b="$base" 'index($3, b "_evex") == 1 || index($3, b "_avx512") == 1 { print $3 }'
        done
} | grep -v '^0x' | awk '!seen[$0]++' >"$root/cli/hot_functions.txt"
wc -l "$root/cli/hot_functions.txt"
