#!/usr/bin/env bash
# Packs the already built tree into a .deb and checks what a user gets:
# the files, the control fields, a binary that runs from the package, and
# lintian's verdict (no error, no warning) when lintian is installed.
# Usage: check_package.sh BUILD_DIR SOURCE_DIR
set -u
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log"
    exit 1
fi
deb=$(ls "$work"/*.deb)
status=0
fail() { echo "FAIL: $*"; status=1; }

contents=$(dpkg-deb -c "$deb")
doc=./usr/share/doc/sylvane-service
# Where Ansible finds collections without ANSIBLE_COLLECTIONS_PATH.
collections=/usr/share/ansible/collections
collection=.$collections/ansible_collections/sylvane/transfer_agent
for path in ./usr/bin/sylvane-service ./usr/share/man/man1/sylvane-service.1.gz \
    "./usr/lib/nagios/plugins/check_sylvane -> ../../../bin/sylvane-service" \
    ./usr/share/bash-completion/completions/sylvane-service \
    ./usr/share/zsh/vendor-completions/_sylvane-service \
    ./usr/share/fish/vendor_completions.d/sylvane-service.fish \
    $doc/copyright $doc/changelog.Debian.gz $doc/json.md.gz \
    $collection/galaxy.yml $collection/meta/runtime.yml \
    $collection/plugins/module_utils/sylvane_service.py \
    $collection/plugins/modules/{service,proxy,apply,info}.py; do
    grep -q " $path\$" <<<"$contents" || fail "$path missing from the package"
done

field() { dpkg-deb -f "$deb" "$1"; }
[[ $(field Package) == sylvane-service ]] || fail "wrong package name"
[[ $(field Maintainer) == *\<*@*\> ]] || fail "maintainer without an address: $(field Maintainer)"
[[ $(field Recommends) == *bash-completion* ]] || fail "bash-completion not recommended"
[[ $(field Suggests) == *ansible* ]] || fail "ansible not suggested"
[[ $(field Depends) != *ansible* ]] || fail "the package depends on Ansible: $(field Depends)"
dpkg-deb -x "$deb" "$work/root"
# A library the binary loads must be a dependency, and one it has linked in
# (the default static runtime) must not be.
depends=$(dpkg-deb -f "$deb" Depends)
needed=$(objdump -p "$work/root/usr/bin/sylvane-service" | awk '$1 == "NEEDED" {print $2}')
for pair in libc.so:libc6 libevent_core:libevent-core-2.1-7 libstdc++:libstdc++6 libgcc_s:libgcc-s1; do
    library=${pair%%:*} package=${pair#*:}
    if grep -qF "$library" <<<"$needed"; then
        grep -qF "$package" <<<"$depends" || fail "loads $library, Depends lacks $package: $depends"
    elif grep -qF "$package" <<<"$depends"; then
        fail "Depends names $package, which the binary does not load: $depends"
    fi
done
[[ $(zcat "$work/root/$doc/changelog.Debian.gz" | head -1) == "sylvane-service ($(field Version))"* ]] ||
    fail "the changelog's last entry is not version $(field Version)"

zcat "$work/root/usr/share/man/man1/sylvane-service.1.gz" | cmp -s - "$source/docs/sylvane-service.1" ||
    fail "packaged man page differs from docs/sylvane-service.1"
usage=$("$work/root/usr/bin/sylvane-service" -h) || fail "packaged binary: -h exited non-zero"
# The monitoring plugin is the binary under its own name, where Debian keeps plugins.
plugin=$work/root/usr/lib/nagios/plugins/check_sylvane
[[ $(readlink "$plugin") == ../../../bin/sylvane-service ]] ||
    fail "check_sylvane is not a relative link to the binary: $(readlink "$plugin")"
[[ $("$plugin" -V) == "check_sylvane (sylvane-service $(field Version | cut -d- -f1))" ]] ||
    fail "packaged check_sylvane -V: $("$plugin" -V)"
[[ $usage == Usage:* ]] || fail "packaged binary does not print its usage"

# ansible-doc finds the modules in the unpacked tree at the default place.
if command -v ansible-doc >/dev/null; then
    for module in service proxy apply info; do
        ANSIBLE_COLLECTIONS_PATH=$work/root$collections ansible-doc -t module \
            sylvane.transfer_agent.$module >/dev/null 2>"$work/doc.err" ||
            fail "ansible-doc sylvane.transfer_agent.$module: $(cat "$work/doc.err")"
    done
fi
grep -q '__pycache__\|/tests/' <<<"$contents" && fail "the package holds the collection's tests or caches"

if command -v lintian >/dev/null; then
    verdict=$(lintian "$deb" 2>&1 | grep -E '^[EW]: ')
    [[ -z $verdict ]] || fail "lintian: $verdict"
else
    echo "SKIP: lintian not installed"
fi

[[ $status -eq 0 ]] && echo "package ok: $(basename "$deb"), Depends: $(field Depends)"
exit $status
