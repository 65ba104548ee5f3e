#!/usr/bin/env bash
# A short tour of sylvane-service against the Transfer Agent simulator:
# add, list, enable, list again, proxy, disable, remove; then the desired
# state: export, edit, diff, apply, apply again. Each command line is
# printed with the tool's real output; a step that does not end as expected
# fails the demo.
#
# Usage: tools/demo.sh [PATH_TO_SYLVANE_SERVICE]
# The simulator runs in a private network namespace when `unshare -rn` is
# allowed, so a real Transfer Agent on this machine is never touched.
# Otherwise it needs 127.0.0.1:11038 free and refuses to run if it is not.
# SYLV_DEMO_REQUIRE_NS=1 exits 77 (skipped) instead of using the shared port.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
tool=$(realpath -m "${1:-$here/../build/cli/sylvane-service}")
sim=$here/agent/sylvane-agent-sim

if [[ ! -x $tool ]]; then
    echo "demo: $tool is not built; run 'make build' first." >&2
    exit 1
fi

if [[ ${SYLV_DEMO_IN_NS:-} != 1 ]]; then
    if unshare -rn true 2>/dev/null; then
        SYLV_DEMO_IN_NS=1 exec unshare -rn "$0" "$tool"
    fi
    if [[ ${SYLV_DEMO_REQUIRE_NS:-} == 1 ]]; then
        echo "demo: cannot create a private network namespace here; skipped."
        exit 77
    fi
    where="127.0.0.1:11038 of this machine (no private network namespace available)"
else
    ip link set lo up || exit 1
    where="127.0.0.1:11038 in a private network namespace"
fi

work=$(mktemp -d)
sim_pid=
cleanup() {
    [[ -n $sim_pid ]] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

python3 "$sim" --step 0.4 >"$work/sim.out" 2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 50); do
    grep -q listening "$work/sim.out" && break
    if ! kill -0 "$sim_pid" 2>/dev/null; then
        sim_pid=
        cat "$work/sim.log" >&2
        echo "demo: refusing to run: something already listens on 127.0.0.1:11038 (a Transfer" \
            "Agent?) and the demo must not send it commands. Stop it, or run where" \
            "'unshare -rn' is allowed." >&2
        exit 1
    fi
    sleep 0.1
done
grep -q listening "$work/sim.out" || { echo "demo: the simulator did not start" >&2; exit 1; }

failures=0
# step EXPECTED_STATUS EXPECTED_TEXT ARGS...: runs the tool, shows its output.
step() {
    local want_status=$1 want_text=$2
    shift 2
    printf '\n$ sylvane-service %s\n' "$*"
    "$tool" "$@" 2>&1 | tee "$work/out"
    local status=${PIPESTATUS[0]}
    if [[ $status -ne $want_status ]] || ! grep -qF -- "$want_text" "$work/out"; then
        printf 'demo: unexpected result (status %d, expected %d and "%s")\n' \
            "$status" "$want_status" "$want_text" >&2
        failures=$((failures + 1))
    fi
}

key=$(printf 'DemoApiKey%.0s' {1..8})
key=${key:0:76}

echo "sylvane-service demo: $tool"
echo "Transfer Agent simulator on $where"
step 0 "No registered services yet." -l
step 0 "Service added successfully." \
    -a WebServer1 -p 127.0.0.1:8080 -f 8082 -k "$key" -u example.org,127.0.0.1
step 0 "Status:		Disabled" -l
step 0 "Service enabled and synchronized successfully." -s WebServer1
step 0 "Onion address:" -l
step 0 "Status:		Disabled" -g
step 0 "Proxy configuration successfully saved." -c 10.0.0.1:3128 -t HTTPS
step 0 "Type:		HTTPS" -g
step 0 "Service disabled successfully." -d WebServer1
step 0 "Service removed." -r WebServer1
step 0 "No registered services yet." -l

# The desired-state tour: export, edit, diff, apply, apply again.
echo
echo "Desired state: keep the services in a file, see the difference, apply it."
step 0 "Service added successfully." -a WebServer1 -p 127.0.0.1:8080 -k "$key"
step 0 "WebServer1:" --export
cd "$work" || exit 1
"$tool" --export >services.yaml 2>/dev/null
sed -i -e 's/target: 127.0.0.1:8080/target: 127.0.0.1:8081/' \
    -e 's/^services:$/services:\n  Backup:\n    target: 127.0.0.1:2222\n    enabled: true/' services.yaml
printf '\n$ cat services.yaml   # edited: WebServer1 moved to port 8081, Backup added\n'
cat services.yaml
step 4 "Plan: 1 to create, 1 to update, 1 to enable" --diff services.yaml
SYLVANE_API_KEY=$key step 0 "Applied: 1 created, 1 updated, 1 enabled" --apply services.yaml
step 0 "Nothing to do" --apply services.yaml

echo
if [[ $failures -ne 0 ]]; then
    echo "demo: $failures step(s) did not end as expected; simulator log:" >&2
    cat "$work/sim.log" >&2
    exit 1
fi
echo "demo: done, 16 commands, simulator stopped."
