#!/bin/bash
# Writes cli/hot_symbols.txt, the order in which the static link puts
# symbols first: the code and data one call touches (-l first, then -g,
# human and --json, against native_agent 3, as valgrind's lackey traces
# them; bench/hot_symbols.py says in what order). The code and data one
# call runs then lie together in a few pages instead of across the binary.
#   bench/hot_symbols.sh TOOL BENCH_BUILD      (run by hand after big changes)
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
    valgrind --tool=lackey --trace-mem=yes --log-file="$out/\$n.trace" \
        "$tool" \$args >/dev/null 2>&1
    sleep 0.05
done
kill \$agent
EOF
unshare -rn sh -c 'ip link set lo up && exec sh "$0"' "$out/run.sh"

python3 "$root/bench/hot_symbols.py" "$tool" "$out"/[0-9].trace >"$root/cli/hot_symbols.txt"
wc -l "$root/cli/hot_symbols.txt"
