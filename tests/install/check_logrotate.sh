#!/usr/bin/env bash
# check_logrotate.sh SOURCE QZFI: the package's rotation rules
# (packaging/qzfi.logrotate) run by logrotate itself, forced, on a copy of
# the log folder in a temporary folder: the traces are copied and truncated,
# the journal is renamed and made afresh with its mode, kept uncompressed for
# one rotation, and qzfi journal reads the rotated part before the new one.
set -euo pipefail
source=$(realpath "$1")
qzfi=$2

work=$(mktemp -d /tmp/qzfi-logrotate.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

logs="$work/log"
mkdir -m 0755 "$logs"
# The rules as installed, pointed at the copy; a user other than root makes
# the journal its own, since only root can give it to root:adm.
owner="root adm"
[ "$(id -u)" -eq 0 ] || owner="$(id -un) $(id -gn)"
sed -e "s|/var/log/qzfi/|$logs/|" -e "s|create 0640 root adm|create 0640 $owner|" \
  "$source/packaging/qzfi.logrotate" >"$work/rules"
rotate() { logrotate --force --state "$work/state" "$work/rules" || fail "logrotate refused the rules"; }

line() {
  printf '{"time":"%s","host":{"name":"A","machine_id":"0"},"uid":0,"user":"root","pid":1,"agent":false,"command":"%s","arguments":["%s"],"record":"","result":"done","exit_code":0,"tool_runs":1,"seconds":0.1}\n' "$1" "$2" "$2"
}
line 2026-11-01T01:00:00Z format >"$logs/journal.json"
echo "trace" >"$logs/qzfi.log"
chmod 0640 "$logs/journal.json"
rotate

[ -f "$logs/journal.json.1" ] || fail "the journal was not rotated"
grep -q '"format"' "$logs/journal.json.1" || fail "the rotated journal lost its line"
[ -f "$logs/journal.json" ] || fail "no new journal was made"
[ ! -s "$logs/journal.json" ] || fail "the new journal is not empty"
[ "$(stat -c %a "$logs/journal.json")" = 640 ] || fail "the new journal's mode is $(stat -c %a "$logs/journal.json"), not 640"
{ [ -f "$logs/qzfi.log.1" ] && [ ! -s "$logs/qzfi.log" ]; } || fail "the trace was not copied and truncated"
[ ! -e "$logs/journal.json.1.log.1" ] || fail "the traces' rule took the journal"

line 2026-11-02T01:00:00Z online >>"$logs/journal.json"
printed=$(QZFI_LOG_DIR="$logs" "$qzfi" journal --json)
[ "$(sed -n 's/.*"command":"\([a-z]*\)".*/\1/p' <<<"$printed" | tr '\n' ' ')" = "format online " ] ||
  fail "qzfi journal did not read the rotated journal before the new one: $printed"

# The next rotation compresses the part left uncompressed.
rotate
[ -f "$logs/journal.json.2.gz" ] || fail "the second rotation did not compress the first part"
echo "ok: logrotate rotates the traces and the journal as qzfi reads them"
