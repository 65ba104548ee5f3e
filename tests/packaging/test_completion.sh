#!/usr/bin/env bash
# Completion answers for typical command lines, without bash-completion.
set -u
source "$(dirname "$0")/../../contrib/bash-completion/sylvane-service"

failures=0
check() { # expected-words command-line-words...
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _sylvane_service
    local got="${COMPREPLY[*]}"
    if [[ $got != "$expected" ]]; then
        printf 'FAIL: [%s] gave [%s], expected [%s]\n' "$*" "$got" "$expected"
        failures=$((failures + 1))
    fi
}

check "--saveTraceabilityConfig" sylvane-service --saveT
check "console file syslog" sylvane-service --saveTraceabilityConfig ""
check "syslog" sylvane-service --saveTraceabilityConfig s
check "UDP TCP" sylvane-service --saveTraceabilityConfig syslog 10.0.0.9 514 ""
check "" sylvane-service --saveTraceabilityConfig console ""
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/logs" && touch "$tmp/logfile"
check "$tmp/logs" sylvane-service --saveTraceabilityConfig file "$tmp/log"
check "HTTP HTTPS Socks5" sylvane-service -c 10.0.0.1:80 -t ""
check "HTTP HTTPS" sylvane-service --proxyType HT
check "" sylvane-service -a --
check "--enable --enableProxy --enableAuthenticationAudit" sylvane-service --enable
# Long-only commands work only as the first argument.
check "--enable" sylvane-service -l --enable
check "--disable --disableProxy --disableAuthenticationAudit" sylvane-service --disable

[[ $failures -eq 0 ]] && echo "completion: all cases passed"
exit $failures
