#!/usr/bin/env bash
# The collection's playbooks against the Transfer Agent simulator, in a
# private network namespace: a whole run in check and diff mode that changes
# nothing, the same run for real (changes), again (changed=0 on every task),
# the scenarios playbook, then a refused key and an unreachable agent.
# Exits 77 (skipped) without namespaces, without ansible-playbook, or while
# the tool does not understand --diff.
# Usage: run.sh PATH_TO_SYLVANE_SERVICE
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tool=$(realpath "$1")

if [[ ${SYLV_ANSIBLE_IN_NS:-} != 1 ]]; then
    unshare -rn true 2>/dev/null || { echo "no private network namespace; skipped."; exit 77; }
    SYLV_ANSIBLE_IN_NS=1 exec unshare -rn "$0" "$@"
fi
ip link set lo up || exit 1
command -v ansible-playbook >/dev/null || { echo "ansible-playbook not installed; skipped."; exit 77; }
# A file with a wrong version is refused before connecting; a tool without
# --diff calls it a usage error (2).
printf 'version: 0\n' | "$tool" --json --diff - >/dev/null 2>&1
[[ $? -eq 2 ]] && { echo "sylvane-service does not understand --diff yet; skipped."; exit 77; }

work=$(mktemp -d)
sim_pid=
stop_sim() {
    [[ -n $sim_pid ]] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    sim_pid=
}
trap 'stop_sim; rm -rf "$work"' EXIT
# start_sim [OPTIONS...]: the simulator on 127.0.0.1:11038, fast timelines.
start_sim() {
    python3 "$here/../../../tools/agent/sylvane-agent-sim" --step 0.05 --quiet "$@" >"$work/sim.out" &
    sim_pid=$!
    for _ in $(seq 50); do grep -q listening "$work/sim.out" && return; sleep 0.1; done
    echo "the simulator did not start" >&2
    exit 1
}

mkdir -p "$work/collections/ansible_collections/sylvane" "$work/bin"
ln -s "$(realpath "$here/../..")" "$work/collections/ansible_collections/sylvane/transfer_agent"
ln -s "$tool" "$work/bin/sylvane-service" # the modules find it on PATH
key=$(printf 'PlaybookApiKey%.0s' {1..6} | head -c 76)
install -m 600 /dev/null "$work/key" && printf '%s\n' "$key" >"$work/key"
export PATH=$work/bin:$PATH ANSIBLE_COLLECTIONS_PATH=$work/collections ANSIBLE_HOME=$work/home \
    ANSIBLE_LOCAL_TEMP=$work/tmp ANSIBLE_NOCOLOR=1 ANSIBLE_RETRY_FILES_ENABLED=0

failures=0
# play EXPECTED_CHANGED PLAYBOOK [OPTIONS...]: runs a playbook against
# localhost; it must succeed, and its recap must say changed=0 (0) or more (+).
play() {
    local want=$1 playbook=$2
    shift 2
    echo "== ansible-playbook $playbook $*"
    ansible-playbook -i localhost, -c local -e ansible_python_interpreter=/usr/bin/python3 \
        -e api_key="$key" -e api_key_file="$work/key" "$here/$playbook" "$@" >"$work/out" 2>&1
    local status=$?
    cat "$work/out"
    local changed
    changed=$(sed -n 's/^localhost *: .*changed=\([0-9]*\).*/\1/p' "$work/out")
    if [[ $status -ne 0 || -z $changed ]] || [[ $want == 0 && $changed -ne 0 ]] ||
        [[ $want == + && $changed -eq 0 ]]; then
        echo "FAIL: $playbook $*: status $status, changed=${changed:-?}, expected changed${want/+/>0}"
        failures=$((failures + 1))
    fi
}

start_sim
play + converge.yml --check --diff
grep -q '^+++ after' "$work/out" || { echo "FAIL: check mode showed no diff"; failures=$((failures + 1)); }
[[ $("$tool" --json -l) == *'"services": []'* ]] ||
    { echo "FAIL: check mode changed the agent"; failures=$((failures + 1)); }
play + converge.yml
play 0 converge.yml
play + scenarios.yml
stop_sim

start_sim --refuse-key "Invalid API key."
play 0 failures.yml -e expected_error=refused -e "expected_reason='Invalid API key.'"
stop_sim
play 0 failures.yml -e expected_error=unreachable

[[ $failures -eq 0 ]] && echo "ansible integration: every playbook ran as expected"
exit $((failures != 0))
