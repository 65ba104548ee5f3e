#!/usr/bin/env bash
# ansible-test sanity for the collection, limited to the tests that run
# offline with Debian's packages (the others install their linters with pip
# into virtual environments), plus ansible-doc on every module, which the
# offline set lacks. ansible-test wants the collection laid out as
# ansible_collections/NAMESPACE/NAME, so it runs on a copy.
# Usage: sanity.sh COLLECTION_DIR
set -euo pipefail
source=$(realpath "$1")
command -v ansible-test >/dev/null || { echo "ansible-test not installed; skipped."; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
collections=$work/ansible_collections
mkdir -p "$collections/sylvane"
cp -r "$source" "$collections/sylvane/transfer_agent"
find "$collections" -name __pycache__ -prune -exec rm -rf {} +

offline=(action-plugin-docs compile empty-init future-import-boilerplate ignores line-endings
         metaclass-boilerplate no-assert no-basestring no-dict-iteritems no-dict-iterkeys
         no-dict-itervalues no-get-exception no-illegal-filenames no-main-display no-smart-quotes
         no-unicode-literals replace-urlopen shebang shellcheck symlinks use-argspec-type-path
         use-compat-six)
python=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')
cd "$collections/sylvane/transfer_agent"
ansible-test sanity --color no --python "$python" "${offline[@]/#/--test=}"

status=0
for module in plugins/modules/*.py; do
    name=sylvane.transfer_agent.$(basename "$module" .py)
    if ! ANSIBLE_COLLECTIONS_PATH=$work ansible-doc -t module "$name" >"$work/doc.txt" 2>&1 ||
        ! grep -q '^EXAMPLES:' "$work/doc.txt" || ! grep -q '^RETURN VALUES:' "$work/doc.txt"; then
        echo "ansible-doc $name:" && cat "$work/doc.txt"
        status=1
    fi
done
[[ $status -eq 0 ]] && echo "ansible-doc shows options, examples and return values of every module"
exit $status
