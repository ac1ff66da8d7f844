#!/usr/bin/env bash
# vmattach recover against the reference service on loopback. Every scenario starts from a
# cloud store made while the service was down (the row not uploaded, the upload registered,
# a copy in the cache) whose registration is then lost; each uses a data folder of its own.
set -u
vmattach=$1
vmcloudd=$2
debug=${RECOVERY_DEBUG_DIR:-}
source "$(dirname "$0")/check.sh"
setup_work
stop_service() { stop_servers; }

start_service() {  # start_service PORT: 0 picks a free port; sets $port
  start_server "$work/service.log" "$vmcloudd" --listen "127.0.0.1:$1" --data "$work/service" \
    --token sekrit
}

# The service's address is learnt first, so that the stores below can name it while it is
# down; it comes back on the same port.
start_service 0
stop_service
for scenario in cached workfile wrongkey neither; do
  data="$work/$scenario"
  "$vmattach" --data-dir "$data" scheme add cloud --type cloud \
    --api "http://127.0.0.1:$port" --token sekrit >/dev/null
  head -c 300000 /dev/urandom >"$work/$scenario.bin"
  "$vmattach" --data-dir "$data" store "$work/$scenario.bin" --scheme cloud >/dev/null 2>&1
  check "$scenario: a store while the service is down keeps its upload registered" \
    grep -q '"type": "upload"' <("$vmattach" --data-dir "$data" transfers --json)
  # The registration is lost; the work file stays where it was.
  sqlite3 "$data/attachments.sqlite" "DELETE FROM transfers"
done
# Twelve uploads that failed while the service was down stay registered beside a lost one:
# more than the ten the recovery's throttle lets wait.
data="$work/crowd"
"$vmattach" --data-dir "$data" scheme add cloud --type cloud \
  --api "http://127.0.0.1:$port" --token sekrit >/dev/null
for n in $(seq 13); do
  head -c 20000 /dev/urandom >"$work/crowd-$n.bin"
  "$vmattach" --data-dir "$data" store "$work/crowd-$n.bin" --scheme cloud >/dev/null 2>&1
done
sqlite3 "$data/attachments.sqlite" "DELETE FROM transfers WHERE id = (SELECT min(id) FROM transfers)"

# A service that takes connections and never answers: the uploads hang, the throttle waits,
# and --timeout stops the pass and ends the command (the pass stores nothing more).
node -e "require('net').createServer(() => {}).listen($port, '127.0.0.1')" &
stalled=$!
for _ in $(seq 50); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
  sleep 0.1
done
started=$(date +%s)
VM_LOG_LEVEL=info "$vmattach" --data-dir "$data" recover --timeout 3 >/dev/null 2>"$work/err"
rc=$?
kill "$stalled"
wait "$stalled" 2>/dev/null
check "stalled: recover gives up" test "$rc" -ne 0
check "stalled: saying so" grep -q 'recovery did not finish within 3 seconds' "$work/err"
check "stalled: after stopping the pass" grep -q 'Recovery pass cancelled' "$work/err"
check "stalled: soon after its timeout" test $(($(date +%s) - started)) -lt 20
start_service "$port"

id_of() { "$vmattach" --data-dir "$1" list --json | sed -n 's/.*"id": \([0-9]*\).*/\1/p'; }
retrieves_identical() {  # retrieves_identical SCENARIO: from the service, not the cache
  local data="$work/$1"
  rm -rf "$data/cache" "$work/back-$1"
  mkdir -p "$work/back-$1"
  "$vmattach" --data-dir "$data" retrieve "$(id_of "$data")" --to "$work/back-$1" >/dev/null &&
    cmp -s "$work/$1.bin" "$work/back-$1/$1.bin"
}
recover() {  # runs recover --json on $data: $work/out, $work/err, $rc; logs kept on request
  VM_LOG_LEVEL=info "$vmattach" --data-dir "$data" recover --json >"$work/out" 2>"$work/err"
  rc=$?
  [ -z "$debug" ] || cat "$work/out" "$work/err" >"$debug/$(basename "$data").log"
}
json_number() { sed -n "s/^  \"$1\": \\([0-9]*\\).*/\\1/p" "$2"; }

# A copy in the cache: stored again under a new UUID.
data="$work/cached"
old_uuid=$("$vmattach" --data-dir "$data" list --json | sed -n 's/.*"uuid": "\(.*\)".*/\1/p')
recover
check "cached: recover succeeds" test "$rc" -eq 0
check "cached: one recovered" test "$(json_number recovered "$work/out")" = 1
check "cached: nothing unrecovered" test "$(json_number unrecovered "$work/out")" = 0
check "cached: uploaded" grep -q '"uploaded": true' <("$vmattach" --data-dir "$data" list --json)
check "cached: under a new UUID" test -z "$(grep "$old_uuid" <("$vmattach" --data-dir "$data" list --json))"
check "cached: retrieves byte-identical" retrieves_identical cached

# No cached copy, the encrypted work file still there: proven and queued again.
data="$work/workfile"
rm -rf "$data/cache"
recover
check "workfile: recover succeeds" test "$rc" -eq 0
check "workfile: none from the cache" test "$(json_number recovered "$work/out")" = 0
check "workfile: nothing unrecovered" test "$(json_number unrecovered "$work/out")" = 0
check "workfile: its upload ran" grep -q '"queued": 1' "$work/out"
check "workfile: uploaded" grep -q '"uploaded": true' <("$vmattach" --data-dir "$data" list --json)
check "workfile: retrieves byte-identical" retrieves_identical workfile

# The work file's hash matches, but the record's key is not the one it was encrypted with.
data="$work/wrongkey"
rm -rf "$data/cache"
key=$(sqlite3 "$data/attachments.sqlite" "SELECT hex(encryptionData) FROM attachments")
flipped=${key:0:10}$([ "${key:10:1}" = 0 ] && echo 1 || echo 0)${key:11}
sqlite3 "$data/attachments.sqlite" "UPDATE attachments SET encryptionData = X'$flipped'"
recover
check "wrongkey: nothing queued" grep -q '"queued": 0' "$work/out"
check "wrongkey: no upload registered" \
  test -z "$(grep '"type"' <("$vmattach" --data-dir "$data" transfers --json))"
check "wrongkey: reported unrecovered" test "$(json_number unrecovered "$work/out")" = 1
check "wrongkey: not uploaded" grep -q '"uploaded": null' <("$vmattach" --data-dir "$data" list --json)

# Neither a copy nor a work file: reported, and a task is filed for the user.
data="$work/neither"
rm -rf "$data/cache" "$data/transfers"
id=$(id_of "$data")
recover
check "neither: recover succeeds" test "$rc" -eq 0
check "neither: one unrecovered" test "$(json_number unrecovered "$work/out")" = 1
check "neither: its id is listed" grep -A1 '"unrecoveredIds"' "$work/out" | grep -q "$id"
"$vmattach" --data-dir "$data" tasks --json >"$work/tasks"
check "neither: the task's title" grep -q '"title": "Re-add Files to Velmora"' "$work/tasks"
check "neither: the task's details" grep -q '"details": "1 files could not be found' "$work/tasks"
check "neither: the task is linked to the attachment" \
  grep -A2 '"attachments"' "$work/tasks" | grep -q "$id"
"$vmattach" --data-dir "$data" tasks >"$work/tasks.txt"
check "neither: tasks lists it as text" grep -q 'Re-add Files to Velmora' "$work/tasks.txt"

# The registered uploads run beside the pass, so its throttle sees them finish at once
# rather than waiting in 15-second steps.
data="$work/crowd"
check "crowd: twelve uploads registered" test "$("$vmattach" --data-dir "$data" transfers | wc -l)" = 12
started=$(date +%s)
VM_LOG_LEVEL=info "$vmattach" --data-dir "$data" recover --json --timeout 120 >"$work/out" 2>"$work/err"
rc=$?
check "crowd: recover succeeds" test "$rc" -eq 0
check "crowd: promptly" test $(($(date +%s) - started)) -lt 30
check "crowd: the lost one recovered" test "$(json_number recovered "$work/out")" = 1
check "crowd: all thirteen uploads ran" grep -q '"queued": 13' "$work/out"
check "crowd: all thirteen uploaded" \
  test "$("$vmattach" --data-dir "$data" list --json | grep -c '"uploaded": true')" = 13
check "crowd: nothing left registered" test -z "$("$vmattach" --data-dir "$data" transfers)"

# The user defaults that steer the detection, set by hand.
data="$work/neither"
"$vmattach" --data-dir "$data" defaults set VMCloudAttachmentRecoveryList "a,b" >/dev/null
check "defaults: get returns the list as written" \
  test "$("$vmattach" --data-dir "$data" defaults get VMCloudAttachmentRecoveryList)" = "a,b"
"$vmattach" --data-dir "$data" defaults delete VMCloudAttachmentRecoveryList
check "defaults: a deleted key is gone" \
  test "$("$vmattach" --data-dir "$data" defaults get VMCloudAttachmentRecoveryList 2>/dev/null; echo $?)" = 1

finish "vmattach recover"
