#!/usr/bin/env bash
# check_completion.sh SOURCE [QZFI]: qzfi's bash completion
# (packaging/qzfi.bash-completion), sourced into this bash as the package's
# users get it, without the bash-completion package: the function it
# registers for qzfi is called the way bash calls it at a <TAB>, with
# COMP_WORDS and COMP_CWORD, and its COMPREPLY is checked for commands,
# options, option values, records, disks, plug-ins and folders, all in a
# temporary folder. With QZFI, the program built, every command and option
# that "qzfi help" names must be completed too, so that the two cannot drift
# apart.
set -euo pipefail
source=$(realpath "$1")
qzfi=${2:-}

work=$(mktemp -d /tmp/qzfi-completion.XXXXXX)
trap 'rm -rf "$work"' EXIT
step() { echo "== $*"; }
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# shellcheck disable=SC1091 # given as an argument; shellcheck checks it on its own
. "$source/packaging/qzfi.bash-completion"
registered=$(complete -p qzfi) || fail "the completion registers nothing for qzfi"
function=$(sed -n 's/.* -F \([^ ]*\) .*/\1/p' <<<"$registered")
[ -n "$function" ] || fail "the completion of qzfi is no function: $registered"

# What a <TAB> at the end of LINE offers, sorted, one a line. A LINE ending
# with a space completes a new, empty word.
offered() {  # offered LINE
  local line=$1
  COMP_LINE=$line
  COMP_POINT=${#line}
  read -r -a COMP_WORDS <<<"$line"
  [[ $line == *' ' ]] && COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  "$function" qzfi "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" 2>"$work/stderr" ||
    fail "'$line<TAB>' failed"
  [ ! -s "$work/stderr" ] || fail "'$line<TAB>' wrote to standard error: $(cat "$work/stderr")"
  if ((${#COMPREPLY[@]} > 0)); then
    printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort
  fi
}
expect() {  # expect LINE OFFERED...: a <TAB> at the end of LINE offers exactly these
  local expected actual
  expected=$(if (($# > 1)); then printf '%s\n' "${@:2}" | LC_ALL=C sort; fi)
  actual=$(offered "$1")
  [ "$actual" = "$expected" ] ||
    fail "'$1<TAB>': expected"$'\n'"${expected:-(nothing)}"$'\n'"got"$'\n'"${actual:-(nothing)}"
}
expect_among() {  # expect_among LINE WORD...: a <TAB> at the end of LINE offers these, maybe more
  local actual word
  actual=$(offered "$1")
  for word in "${@:2}"; do
    grep -qxF -- "$word" <<<"$actual" || fail "'$1<TAB>' does not offer $word; it offers"$'\n'"$actual"
  done
}

step "commands and global options"
expect "qzfi st" status
expect "qzfi s" serve status
expect "qzfi j" journal
expect "qzfi l" list
expect "qzfi --json re" release
expect "qzfi --plugin qzvmfi im" import
expect "qzfi --agent /run/qzfi/agent.sock st" status
expect "qzfi --agent st" status
expect "qzfi --j" --json
expect "qzfi --v" --verbose --version
expect "qzfi --a" --agent

step "the options of each command"
expect "qzfi status --r" --record
expect "qzfi status --record x " 
expect "qzfi status --record x --" --json --plugin --quiet --verbose
expect "qzfi import --record x --s" --secondary
expect "qzfi import --record x --secondary /dev/sdf --r" --raw
expect "qzfi release --record x --d" --disposition
expect "qzfi release --record x --t" --this-host-was
expect "qzfi access on --f" --flags
expect "qzfi format --" --group --volume --json --plugin --quiet --verbose
expect "qzfi online --p" --persistent --plugin
expect "qzfi unformat --pe" --persistent
expect "qzfi serve --s" --socket
expect "qzfi journal --" --record --since --json --plugin --quiet --verbose
expect "qzfi journal --since 2h --" --record --json --plugin --quiet --verbose
expect "qzfi list --" --json --plugin --quiet --verbose
expect "qzfi info --" --json --plugin --quiet --verbose

step "option values and plain arguments"
expect "qzfi access " on off
expect "qzfi access o" on off
expect "qzfi access --record x o" on off
expect "qzfi access on " 
expect "qzfi release --disposition " 0 1 2 3
expect "qzfi release --record x --disposition 2" 2
expect "qzfi access on --record x --flags " 
expect "qzfi journal --since " 
expect "qzfi status " 

step "records"
records=$work/records
mkdir -p "$records/older" "$records/empty"
touch "$records/vol1.json" "$records/dg1.rec.json" "$records/notes.txt" "$records/.vol1.json.running" \
  "$records/older/vol0.json" "$records/empty/README"
expect "qzfi status --record $records/" "$records/dg1.rec.json" "$records/empty" "$records/older" \
  "$records/vol1.json"
expect "qzfi status --record $records/v" "$records/vol1.json"
expect "qzfi import --secondary /dev/sdf --record $records/d" "$records/dg1.rec.json"
expect "qzfi journal --record $records/older/" "$records/older/vol0.json"
# A record named otherwise: every file, when no folder or JSON file matches.
expect "qzfi release --record $records/empty/" "$records/empty/README"
expect "qzfi release --record $records/n" "$records/notes.txt"

step "disks"
disks=$work/dev
mkdir -p "$disks/qz"
touch "$disks/sdf" "$disks/sdg" "$disks/vda"
expect "qzfi import --record x --secondary $disks/sd" "$disks/sdf" "$disks/sdg"
expect "qzfi import --record x --secondary $disks/sdf,$disks/sd" "$disks/sdf,$disks/sdf" \
  "$disks/sdf,$disks/sdg"
expect "qzfi import --record x --secondary $disks/sdf,$disks/q" "$disks/sdf,$disks/qz/"
expect "qzfi format --group dg1 $disks/v" "$disks/vda"
expect "qzfi online --persistent $disks/sdf $disks/sd" "$disks/sdf" "$disks/sdg"
expect "qzfi claim $disks/v" "$disks/vda"
expect "qzfi claim $disks/vda " 
expect_among "qzfi unformat " /dev/null

step "folders of list"
expect "qzfi list $records/" "$records/empty" "$records/older"
expect "qzfi list $records/older " 

step "plug-ins"
prefix=$work/usr
mkdir -p "$prefix/bin" "$prefix/lib/x86_64-linux-gnu/qzfi/plugins" "$prefix/lib/plugins"
printf '#!/bin/sh\n' >"$prefix/bin/qzfi"
chmod +x "$prefix/bin/qzfi"
touch "$prefix/lib/x86_64-linux-gnu/qzfi/plugins/libqzvmfi.so" \
  "$prefix/lib/x86_64-linux-gnu/qzfi/plugins/libtinyfi.so" "$prefix/lib/plugins/libmyfi.so"
PATH=$prefix/bin:$PATH expect "qzfi --plugin " qzvmfi tinyfi
PATH=$prefix/bin:$PATH expect "qzfi info --plugin q" qzvmfi
expect "qzfi --plugin $prefix/lib/plugins/" "$prefix/lib/plugins/libmyfi.so"

if [ -n "$qzfi" ]; then
  step "every command and option of qzfi help"
  help=$("$qzfi" help) || fail "qzfi help failed"
  # The commands' usage lines: the first column of the section "Commands".
  usage=$(sed -n '/^Commands:/,/^[^ ]/{/^  [a-z]/p}' <<<"$help" | sed 's/^  //; s/  .*//')
  [ -n "$usage" ] || fail "qzfi help lists no commands:"$'\n'"$help"
  commands=$(sed 's/,//; s/ .*//' <<<"$usage"; sed -n 's/^[a-z]*, \([a-z]*\)$/\1/p' <<<"$usage")
  for command in $commands; do
    expect_among "qzfi " "$command"
    options=$(grep -E "^$command( |,|$)" <<<"$usage" | grep -oE -- '--[a-z-]+' || true)
    for option in $options; do
      expect_among "qzfi $command --" "$option"
    done
  done
  # The options of the usages at the top that go before the command (the
  # first plain word after the program's name).
  leading=$(sed -n '/^Usage:/,/^$/p' <<<"$help" | sed 's/^Usage://' | awk '{
    for (i = 2; i <= NF && $i !~ /^[A-Za-z]+$/; i++) print $i }' | grep -oE -- '--[a-z-]+' | sort -u)
  [ -n "$leading" ] || fail "qzfi help has no usage with options"
  for option in $leading; do
    expect_among "qzfi --" "$option"
  done
  # --this-host-was, for the commands that "Hosts" names.
  hosts=$(sed -n '/^  --this-host-was/,/^  [^ ]/p' <<<"$help" | grep -oE '^ +[a-z, ]+:' | head -1 |
    tr -d ' :' | tr ',' ' ')
  [ -n "$hosts" ] || fail "qzfi help names no command of --this-host-was"
  for command in $hosts; do
    expect_among "qzfi $command --" --this-host-was
  done
fi

echo "bash completion of qzfi: OK"
