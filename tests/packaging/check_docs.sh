#!/usr/bin/env bash
# The man page renders without a single warning; it and the bash completion
# name every option of the usage text, and it and the zsh and fish ones every
# long option the bash one offers (the scripting ones are not in the usage).
# Usage: check_docs.sh MAN_PAGE COMPLETION [TOOL]
set -u
page=$1 completion=$2 tool=${3:-}
status=0

if command -v man >/dev/null; then
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)
else
    warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
fi
if [[ -n $warnings ]]; then
    printf 'man page warnings:\n%s\n' "$warnings"
    status=1
fi

if [[ -n $tool && -x $tool ]]; then
    # Usage errors print the usage text and exit 0.
    usage=$("$tool" -h) || { echo "'$tool -h' exited non-zero"; status=1; }
    options=$(grep -oE -- '--?[[:alpha:]]+' <<<"$usage" | grep -xE -- '-[[:alpha:]]|--[[:alpha:]]{2,}' | sort -u)
    rendered=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$page" 2>/dev/null || groff -man -Tutf8 "$page")
    for opt in $options; do
        grep -qE -- "(^|[^[:alnum:]-])$opt([^[:alnum:]]|$)" <<<"$rendered" || { echo "man page lacks $opt"; status=1; }
        ! grep -qw -- "$opt" "$completion" && { echo "completion lacks $opt"; status=1; }
    done
    echo "checked $(wc -w <<<"$options") options from the usage text"
fi
contrib=$(dirname "$completion")/..
rendered=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$page" 2>/dev/null || groff -man -Tutf8 "$page")
for opt in $(grep -oE -- '--[[:alnum:]-]+' "$completion" | sort -u); do
    grep -qE -- "(^|[^[:alnum:]-])$opt([^[:alnum:]-]|$)" <<<"$rendered" || { echo "man page lacks $opt"; status=1; }
    for other in "$contrib/zsh/_sylvane-service" "$contrib/fish/sylvane-service.fish"; do
        grep -qE -- "(^|[^[:alnum:]-])(${opt#--}|$opt)([^[:alnum:]-]|$)" "$other" || { echo "$other lacks $opt"; status=1; }
    done
done
[[ $status -eq 0 ]] && echo "docs: ok"
exit $status
