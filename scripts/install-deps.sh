#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need, only those
# missing. Runs apt-get through sudo when not root.
set -euo pipefail

# libfyaml-dev: the desired-state file; ansible-core and python3-pytest: the
# Ansible collection's tests; prometheus: promtool, which checks the metrics;
# prometheus-node-exporter: its textfile collector serves the metrics file in a
# test; zsh and fish: the completion test runs every shell it finds; lld:
# the static link puts the code of one call together.
packages=(g++ cmake ninja-build pkg-config lld libevent-dev nlohmann-json3-dev libgtest-dev libfyaml-dev
          python3 iproute2 ansible-core python3-pytest prometheus prometheus-node-exporter zsh fish
          "$@")

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
