#!/bin/zsh -f
# Prints, one a line, the candidates zsh's completion system offers for the
# command line $2 (cursor at its end), with the completion function in $1.
zmodload zsh/zpty
out=$(mktemp -d)
trap 'zpty -d shell 2>/dev/null; rm -rf $out' EXIT
await() { for i in {1..200}; do [[ -e $out/$1 ]] && return; sleep 0.05; done; exit 1 }

zpty shell zsh -f -i
zpty -w shell "PS1=''; fpath=(${(q)1} \$fpath); autoload -Uz compinit; compinit -u -d $out/dump"
# Record what is added (calls that only filter, -O -A -D, pass through); a
# completion still running would be cut short by keys typed ahead of it.
zpty -w shell 'compadd() { if [[ ${(j: :)@} != *(-O|-A|-D)* ]]; then local -a h; builtin compadd -A h "$@"; print -rl -- $h >>'$out'/hits; fi; builtin compadd "$@"; }'
zpty -w shell "completed() { touch $out/completed }; comppostfuncs=(completed); touch $out/ready"
await ready
zpty -w -n shell "$2"$'\t'
await completed
[[ -e $out/hits ]] && sort -u $out/hits
exit 0
