#!/usr/bin/env bash
# The main job: builds the plug-in, the reference framework with its qzfi
# program and the QzVM simulator, then runs whole backups through the plug-in
# on a simulated storage network with hosts A, B and C, every step a qzfi
# command on its host:
#   1. rebuild on another host: the volume's disks split from A to B, the copy
#      rebuilt on B from the snapshot record, released after the backup; its
#      commands go through the hosts' agents ("qzfi serve" on A and on B, the
#      plug-in loaded once in each), as a framework runs them;
#   2. the intact copy moved on: rebuilt on B, deported intact, imported on C;
#   3. rebuild on the same host: the copy beside the still-imported source;
#   4. the resource flow: plain disks formatted, brought online, unformatted.
# Each flow shows that the copy holds the source's data at split time
# (checksums) and that nothing is left behind (no stray groups, qzsim check);
# a summary table ends it. The other flows run one qzfi process per command.
# Each host's journal then holds one JSON line per changing command run there
# (checked, and printed with qzfi journal).
# shellcheck disable=SC2317 # the flows are called through run_flow
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"

QZSIM_ROOT=$(mktemp -d /tmp/qzsim-demo.XXXXXX)
export QZSIM_ROOT
work=$(mktemp -d /tmp/qzfi-demo.XXXXXX)
trap 'rm -rf "$QZSIM_ROOT" "$work"' EXIT
qzsim=$PWD/build/sim/qzsim
qzfi=$PWD/build/bin/qzfi

step() { echo; echo "== $*"; }
check() {  # check WHAT CONDITION...: a condition the flow must meet
  local what=$1
  shift
  if "$@"; then
    echo "   ok: $what"
  else
    echo "   NOT OK: $what" >&2
    return 1
  fi
}
# A tool run as a host, outside qzfi.
on() { local host=$1; shift; "$qzsim" run --host "$host" "$@"; }
# qzfi on a host: through the host's agent while one runs (agent_on), else a
# process of its own in the simulator's sandbox. Its tool runs are added up
# in $work/runs for the flow's line of the summary.
declare -A agent_pid=()
qzfi_on() {
  local host=$1 before after status=0
  shift
  case $1 in  # the changing commands: each has its line in the host's journal
    prepare | deport | import | move | release | access | format | online | unformat)
      echo "$host" >>"$work/journaled" ;;
  esac
  before=$("$qzsim" log --total)
  if [ -n "${agent_pid[$host]:-}" ]; then
    echo "[$host] qzfi --agent $work/run/$host.sock $*"
    "$qzfi" --agent "$work/run/$host.sock" "$@" || status=$?
  else
    echo "[$host] qzfi $*"
    "$qzsim" host "$host" -- "$qzfi" "$@" || status=$?
  fi
  after=$("$qzsim" log --total)
  echo $((after - before)) >>"$work/runs"
  return "$status"
}
# Where the backup of RECORD stands, asked on HOST as an administrator would:
# status reads only, so none of its tool runs may change anything, and they
# are not the flow's.
status_on() {  # status_on HOST RECORD EXPECTED_EXIT NEXT_COMMAND
  local host=$1 record=$2 expected=$3 next=$4 changed status=0
  changed=$("$qzsim" log --changed | wc -l)
  echo "[$host] qzfi status --record $record"
  "$qzsim" host "$host" -- "$qzfi" status --record "$record" | tee "$work/status" || status=$?
  check "status on $host: exit $expected, no changing tool run" \
    [ "$status/$("$qzsim" log --changed | wc -l)" = "$expected/$changed" ]
  check "status on $host names the next command: $next" grep -q -- "$next" "$work/status"
}
# The agent of a host: "qzfi serve" in the host's sandbox, its socket in a
# folder of root's only; ready once it says where it serves.
agent_on() {  # agent_on HOST
  local host=$1 tries=0
  [ -d "$work/run" ] || mkdir -m 0700 "$work/run"
  "$qzsim" host "$host" -- "$qzfi" serve --socket "$work/run/$host.sock" \
    >"$work/agent-$host.out" 2>"$work/agent-$host.log" &
  agent_pid[$host]=$!
  until grep -q "serving on" "$work/agent-$host.out"; do
    if [ $((tries += 1)) -gt 100 ] || ! kill -0 "${agent_pid[$host]}" 2>/dev/null; then
      cat "$work/agent-$host.log" >&2
      return 1
    fi
    sleep 0.1
  done
  echo "[$host] $(cat "$work/agent-$host.out")"
}
# The agents still running, ended.
agents_end() {
  local pid
  for pid in "${agent_pid[@]}"; do
    kill -TERM "$pid"
    wait "$pid" || true
  done
}
# SIGTERM to a host's agent: it finalises the plug-in and exits 0.
agent_stop() {  # agent_stop HOST
  local host=$1 status=0
  kill -TERM "${agent_pid[$host]}"
  wait "${agent_pid[$host]}" || status=$?
  unset "agent_pid[$host]"
  echo "[$host] the agent ended with exit code $status after $(grep -c ': exit ' "$work/agent-$host.log") commands"
  check "the agent on $host ended cleanly" [ "$status" -eq 0 ]
}
# Of the host's journal: how many lines are JSON objects, and how many lines
# it has ("VALID ALL"). python3 comes with clang (setup.sh).
# shellcheck disable=SC2016 # $QZFI_LOG_DIR is the sandbox's, expanded there
journal_counts() {  # journal_counts HOST
  "$qzsim" host "$1" -- sh -c 'cat "$QZFI_LOG_DIR/journal.json"' | python3 -c '
import json, sys
lines = sys.stdin.read().splitlines()
valid = 0
for line in lines:
    try:
        valid += isinstance(json.loads(line), dict)
    except ValueError:
        pass
print(valid, len(lines))'
}
# The device path that qzfi import, format or online printed on a line of its own.
device_of() { grep -x '/dev/[^ ]*' "$1" | tail -n 1; }
groups_on() { on "$1" qzdg list | awk 'NR > 1 {print $1}' | sort | tr '\n' ' ' | sed 's/ $//'; }
checksum() { "$qzsim" volume checksum --host "$1" "$2" "$3"; }
# The node of each of the record's sub-objects (OS paths of host A), in order.
nodes_of_record() {
  local disk
  sed -n '/"sub_objects"/,/]/p' "$1" | grep -o '/dev/[a-z0-9]*' | while read -r disk; do
    "$qzsim" disk list | awk -v os="A:${disk#/dev/}" '
      NR > 1 { n = split($NF, paths, ","); for (i = 1; i <= n; i++) if (paths[i] == os) print $2 }'
  done | paste -sd, -
}
# The first OS path of each disk that "qzsim disk add|attach" or "array split"
# printed ("LUN NODE HOST=os,os"), as a --secondary list.
secondary_of() { awk '{split($3, p, "="); split(p[2], os, ","); print "/dev/" os[1]}' "$1" | paste -sd, -; }
luns_of() { awk '{print $1}' "$1"; }
# The LUNs that "qzsim disk add" printed carry no volume manager format.
plain_again() {
  local lun
  for lun in $(luns_of "$1"); do
    "$qzsim" disk list | awk -v lun="$lun" '$1 == lun && $4 != "auto:none" {bad = 1} END {exit bad}' ||
      return 1
  done
}
path_a=/dev/qz/dsk/dg1/vol1

step "A storage network: hosts A, B and C, and two LUNs seen by A over two paths each"
"$qzsim" init >/dev/null
for host in A B C; do "$qzsim" host add "$host"; done
"$qzsim" disk add --count 2 --size 64m --hosts A --paths 2

step "Host A: disk group dg1 with a 32 MB volume vol1 (with a DCO log), owned by 1001:1002"
on A qzdisk scandisks
on A qzdisk -f init qzarr0_0 type=auto
on A qzdisk -f init qzarr0_1 type=auto
on A qzdg init dg1 qzarr0_0 qzarr0_1
on A qzassist -g dg1 make vol1 32m logtype=dco
"$qzsim" host A -- chown 1001:1002 /dev/qz/dsk/dg1/vol1 /dev/qz/rdsk/dg1/vol1
"$qzsim" host A -- ls -ln /dev/qz/dsk/dg1/vol1
"$qzfi" --version
"$qzsim" host A -- "$qzfi" info


# One backup from dg1/vol1 with its copy on host TO: prepare, the array's
# split, deport; the source written again after the split. Sets split_sum
# (the source's data at split time) and leaves the split's output in
# $work/split-N.
backup_to() {  # backup_to TO RECORD SEED
  local to=$1 record=$2 seed=$3
  "$qzsim" volume write --host A dg1 vol1 --seed "$seed"
  split_sum=$(checksum A dg1 vol1)
  echo "   checksum of dg1/vol1 on A before the split: $split_sum"
  qzfi_on A prepare "$path_a" --record "$record"
  echo "[array] split $(nodes_of_record "$record") from A to $to"
  "$qzsim" array split --disks "$(nodes_of_record "$record")" --from-host A --to-host "$to" \
    | tee "$work/split"
  "$qzsim" volume write --host A dg1 vol1 --seed $((seed + 100))
  echo "   dg1/vol1 on A written again after the split: $(checksum A dg1 vol1)"
  qzfi_on A deport --record "$record"
}

# The copy at DEVICE on HOST holds the data of the split.
check_copy() {  # check_copy HOST DEVICE
  local host=$1 device=$2 group volume sum
  group=$(basename "$(dirname "$device")")
  volume=$(basename "$device")
  sum=$(checksum "$host" "$group" "$volume")
  echo "   checksum of $group/$volume on $host: $sum"
  check "the copy holds the source's data at split time" [ "$sum" = "$split_sum" ]
  check "the copy's device nodes are owned by 1001:1002, as the source's" \
    [ "$("$qzsim" host "$host" -- stat -c %u:%g "$device" "${device/\/dsk\///rdsk/}" | sort -u)" = 1001:1002 ]
}

check_clean() {  # check_clean: no stray groups, a consistent simulation
  check "A holds only dg1, B and C hold no group" \
    [ "$(groups_on A)/$(groups_on B)/$(groups_on C)" = "dg1//" ]
  "$qzsim" check >"$work/check" || { cat "$work/check"; return 1; }
  check "qzsim check: $(cat "$work/check")" true
}

flow_rebuild() {
  local record=$work/rebuild.json
  # The flow's subshell ends the agents that a failed step left running.
  trap agents_end EXIT
  agent_on A
  agent_on B
  backup_to B "$record" 7
  qzfi_on B import --record "$record" --secondary "$(secondary_of "$work/split")" | tee "$work/out"
  local copy
  copy=$(device_of "$work/out")
  check_copy B "$copy"
  check "dg1 on A is untouched" [ "$(groups_on A)" = dg1 ]
  qzfi_on B release --record "$record"
  agent_stop A
  agent_stop B
  check_clean
}

flow_move() {
  local record=$work/move.json
  backup_to B "$record" 17
  qzfi_on B import --record "$record" --secondary "$(secondary_of "$work/split")"
  qzfi_on B move --record "$record"
  check "the copy's group left B intact" [ -z "$(groups_on B)" ]
  status_on B "$record" 0 "qzfi import --record $record --secondary"
  echo "[array] the copy's LUNs presented to C instead of B"
  : >"$work/attached"
  for lun in $(luns_of "$work/split"); do
    "$qzsim" disk detach "$lun" --host B
    "$qzsim" disk attach "$lun" --host C --paths 2 | tee -a "$work/attached"
  done
  qzfi_on C import --record "$record" --secondary "$(secondary_of "$work/attached")" \
    | tee "$work/out"
  check_copy C "$(device_of "$work/out")"
  status_on C "$record" 0 "qzfi release --record $record"
  qzfi_on C release --record "$record"
  check_clean
}

flow_same_host() {
  local record=$work/same.json
  backup_to A "$record" 27
  local source_now
  source_now=$(checksum A dg1 vol1)
  qzfi_on A import --record "$record" --secondary "$(secondary_of "$work/split")" | tee "$work/out"
  local copy
  copy=$(device_of "$work/out")
  check_copy A "$copy"
  check "dg1/vol1 beside it still holds its own data" [ "$(checksum A dg1 vol1)" = "$source_now" ]
  qzfi_on A release --record "$record"
  check_clean
}

flow_resources() {
  "$qzsim" disk add --count 2 --size 64m --hosts A | tee "$work/plain"
  echo "   (new LUNs the volume manager has not scanned yet: format waits for them, a progress"
  echo "   line tells the wait, and the plug-in scans the disks after its pause)"
  local disks
  disks=$(secondary_of "$work/plain" | tr ',' ' ')
  # shellcheck disable=SC2086 # the disks are separate arguments
  qzfi_on A format --group rdg --volume rvol $disks | tee "$work/out"
  check "format gave /dev/qz/dsk/rdg/rvol" [ "$(device_of "$work/out")" = /dev/qz/dsk/rdg/rvol ]
  "$qzsim" volume write --host A rdg rvol --seed 37
  split_sum=$(checksum A rdg rvol)
  echo "   checksum of rdg/rvol: $split_sum"
  on A qzdg deport rdg
  # shellcheck disable=SC2086
  qzfi_on A online $disks | tee "$work/out"
  check "online found rdg/rvol on the disks with its data" \
    [ "$(checksum A rdg rvol)" = "$split_sum" ]
  # shellcheck disable=SC2086
  qzfi_on A unformat $disks
  check "the disks are plain again" plain_again "$work/plain"
  check_clean
}

# Each flow runs with errexit in its own subshell; a failed flow is reported
# and the next one runs.
summary=()
failed=0
run_flow() {  # run_flow TITLE FUNCTION
  local title=$1 started=$EPOCHREALTIME status=0 seconds runs result=ok
  step "Flow: $title"
  : >"$work/runs"
  set +e
  (set -e; "$2")
  status=$?
  set -e
  seconds=$(awk -v from="$started" -v to="$EPOCHREALTIME" 'BEGIN {printf "%.1f", to - from}')
  runs=$(awk '{n += $1} END {print n + 0}' "$work/runs")
  if [ $status -ne 0 ]; then
    result=FAILED
    failed=1
  fi
  summary+=("$(printf '%-42s %-7s %9s %8s' "$title" "$result" "$runs" "$seconds")")
}

run_flow "rebuild on another host (A to B), agents" flow_rebuild
run_flow "intact copy moved on (A to B to C)" flow_move
run_flow "rebuild on the same host (A)" flow_same_host
run_flow "resources on plain disks (A)" flow_resources

step "The simulator's state after every flow"
"$qzsim" check
echo "tool runs of the whole job: $("$qzsim" log --total)"

step "The journal of each host: one JSON line per changing command run there"
for host in A B C; do
  expected=$(grep -cx "$host" "$work/journaled" || true)
  counts=$(journal_counts "$host")
  check "$host's journal: $expected changing commands, $expected valid JSON lines (valid, all: $counts)" \
    [ "$counts" = "$expected $expected" ] || failed=1
  echo "[$host] qzfi journal"
  "$qzsim" host "$host" -- "$qzfi" journal
done

step "The backups' records: qzfi list"
"$qzfi" list "$work"

step "Summary"
printf '%-42s %-7s %9s %8s\n' flow result "tool runs" seconds
printf '%s\n' "${summary[@]}"
echo
echo "Built: build/bin/qzfi (the framework's program, man/qzfi.1), build/lib/qzfi/plugins/libqzvmfi.so"
echo "(the plug-in), build/lib/libqzfi_pdk.so (the reference framework), build/sim/qzsim (the simulator)."
exit $failed
