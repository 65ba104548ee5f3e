#!/usr/bin/env bash
# Completion answers for typical command lines in bash (without the
# bash-completion package), zsh and fish; a shell not installed is skipped.
set -u
here=$(dirname "$0")
contrib=$here/../../contrib
source "$contrib/bash-completion/sylvane-service"
shells=(bash)
for shell in zsh fish; do
    if command -v $shell >/dev/null; then shells+=($shell); else echo "SKIP: $shell not installed"; fi
done

# Candidates as sorted base names, so that the shells' ways of showing paths
# ("dir/", "dir", "/tmp/x/dir") compare equal.
candidates() { # shell command-line-words...: one candidate a line
    local shell=$1
    shift
    case $shell in
        bash) COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) && _sylvane_service &&
            printf '%s\n' "${COMPREPLY[@]}" ;;
        # zsh offers a name with a blank quoted, as the one word it inserts.
        zsh) zsh -f "$here/zsh_complete.zsh" "$contrib/zsh" "$*" | sed 's/\\\(.\)/\1/g' ;;
        fish) fish --no-config -c "source $contrib/fish/sylvane-service.fish"'; complete -C "$argv"' \
            -- "$*" | cut -f1 ;;
    esac | sed 's|/$||; s|.*/||' | grep . | sort -u
}
offered() { candidates "$@" | paste -sd' '; }

failures=0
check() { # expected-words command-line-words... (ONLY="shells" to restrict)
    expected=$(tr -s ' \n' '\n' <<<"$1" | grep . | sort -u | paste -sd' ')
    shift
    for shell in ${ONLY:-${shells[*]}}; do
        got=$(offered "$shell" "$@")
        if [[ $got != "$expected" ]]; then
            printf 'FAIL (%s): [%s] gave [%s], expected [%s]\n' "$shell" "$*" "$got" "$expected"
            failures=$((failures + 1))
        fi
    done
}

check "--saveTraceabilityConfig" sylvane-service --saveT
check "console file syslog" sylvane-service --saveTraceabilityConfig ""
check "UDP TCP" sylvane-service --saveTraceabilityConfig syslog 10.0.0.9 514 ""
check "" sylvane-service --saveTraceabilityConfig console ""
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/logs" && touch "$tmp/logfile"
check "logs" sylvane-service --saveTraceabilityConfig file "$tmp/log"
check "logfile logs" sylvane-service -l --api-key-file "$tmp/log"
# A file name with a blank is one candidate.
touch "$tmp/my key" && mkdir "$tmp/my logs"
for shell in ${shells[*]}; do
    for words in "-l --api-key-file $tmp/my" "--saveTraceabilityConfig file $tmp/my"; do
        name=$([[ $words == -l* ]] && echo "my key" || echo "my logs")
        # shellcheck disable=SC2086
        if ! candidates "$shell" sylvane-service $words | grep -qFx "$name"; then
            printf 'FAIL (%s): [%s] does not offer [%s] whole\n' "$shell" "$words" "$name"
            failures=$((failures + 1))
        fi
    done
done
check "HTTP HTTPS Socks5" sylvane-service -c 10.0.0.1:80 -t ""
check "HTTP HTTPS" sylvane-service --proxyType HT
# fish offers options where an option's argument is due.
ONLY="bash zsh" check "" sylvane-service -a --
check "--enable --enableProxy --enableAuthenticationAudit" sylvane-service --enable
# Long-only commands work only as the first argument; every other long
# option is offered anywhere.
check "--enable" sylvane-service -l --enable
check "--help --list --add --ptr --forwarding --key --url --remove --enable --disable --edit
    --configProxy --proxyType --getProxy --api-key-file --agent-uid --json --version --events
    --wait --no-wait --check --verbose --metrics --metrics-file --diff --apply --export --prune
    --dry-run" sylvane-service web1 --
check "logfile logs" sylvane-service --metrics-file "$tmp/log"

[[ $failures -eq 0 ]] && echo "completion: all cases passed in ${shells[*]}"
exit $failures
