#!/bin/sh
# Builds the fuzz targets into fuzz-build/ (next to this folder) and runs each
# one from its seed corpus.
#   fuzz/run.sh            build, then 2000 runs per target (a smoke test)
#   fuzz/run.sh 600        build, then 600 seconds per target, all in parallel
# Found inputs go to fuzz-build/corpus/<target>/, crashes to fuzz-build/.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build="$here/../fuzz-build"
seconds=${1:-0}
targets="${TARGETS:-fuzz_frame_reader fuzz_handshake fuzz_json fuzz_parsing fuzz_desired}"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j "${JOBS:-2}"

pids=""
for target in $targets; do
    corpus="$build/corpus/$target"
    mkdir -p "$corpus"
    if [ "$seconds" -gt 0 ]; then
        limit="-max_total_time=$seconds"
    else
        limit="-runs=2000"
    fi
    # The seed folder comes second, so libFuzzer only ever writes to $corpus.
    "$build/$target" "$limit" -timeout=10 -rss_limit_mb=1024 -print_final_stats=1 \
        -artifact_prefix="$build/$target-" "$corpus" "$here/corpus/$target" \
        >"$build/$target.log" 2>&1 &
    pids="$pids $target:$!"
done

status=0
for entry in $pids; do
    target=${entry%%:*}
    if wait "${entry#*:}"; then
        result=ok
    else
        result=FAILED
        status=1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$target.log")
    echo "$target: $result, ${runs:-?} executions (log: fuzz-build/$target.log)"
    [ "$result" = ok ] || tail -n 30 "$build/$target.log"
done
exit $status
