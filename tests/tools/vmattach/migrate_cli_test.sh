#!/usr/bin/env bash
# vmattach migrate between a storage folder, the cloud (vmcloudd on loopback, its blob
# addresses behind a throttling proxy) and file references: ids and bytes kept, old copies
# gone, failures alone; then killed (SIGKILL) while it retrieves, while it uploads, once the
# target copy is stored and once the row is switched: every attachment stays retrievable
# from where its row says, and the next run finishes the move without storing twice.
#
# usage: migrate_cli_test.sh VMATTACH VMCLOUDD
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
mkdir -p "$work/storage"

echo 0 >"$work/rate"
echo 0 >"$work/down"
start_proxied_cloud_service "$work/rate" "$work/forwarded" "$work/down"

va scheme add cloud --type cloud --api "http://127.0.0.1:$port" --token sekrit >/dev/null
va scheme add arch --type archiver --folder "$work/storage" >/dev/null
va scheme add refs --type reference >/dev/null

# What the storages hold: files in the storage folder; blobs of uploads the service took
# as finished (a killed PUT's bytes may still drain through the proxy into an upload never
# confirmed, which the service's stale-upload sweep removes).
blobs() {
  local n=0 uuid
  for uuid in $(sqlite3 "$work/service/attachments.sqlite" "SELECT uuid FROM attachments WHERE state = 'uploaded'"); do
    [ -f "$work/service/blobs/$uuid" ] && n=$((n + 1))
  done
  echo "$n"
}
stored() { find "$work/storage" -type f | wc -l; }
scheme_of() { va show "$1" --json | json '["scheme"]'; }
# retrievable ID...: each comes back byte-identical to the file of the same name in in/.
round=0
retrievable() {
  local id name
  round=$((round + 1))
  for id in "$@"; do
    name=$(va show "$id" --json | json '["name"]')
    va retrieve "$id" --to "$work/out$round" >/dev/null || return 1
    diff -r "$work/in/$name" "$work/out$round/$name" >/dev/null || return 1
  done
}
# killed_at POINT PID: waits (bounded) until PID stopped itself at the test hook, kills it.
killed_at() {
  local state
  for _ in $(seq 1200); do
    state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null)
    [ "$state" = T ] && break
    [ -z "$state" ] && return 1
    sleep 0.05
  done
  kill -KILL "$1"
  wait "$1" 2>/dev/null
  test "$state" = T
}

mkdir -p "$work/in/tree/sub"
head -c 3000000 /dev/urandom >"$work/in/big.bin"
echo note >"$work/in/note.txt"
head -c 5000 /dev/urandom >"$work/in/tree/sub/a.bin"
echo hello >"$work/in/tree/b.txt"
big=$(va store "$work/in/big.bin" --scheme arch)
note=$(va store "$work/in/note.txt" --scheme arch)
tree=$(va store "$work/in/tree" --scheme refs)

# Usage errors, before anything moves.
for args in "$big --to refs" "$big --to nowhere" "$big --from arch --to cloud" "--to cloud" \
  "$big" "999999999 --to cloud"; do
  # shellcheck disable=SC2086
  va migrate $args >/dev/null 2>&1
  check "migrate $args is a usage error" test $? -eq 2
done
check "a usage error moved nothing" test "$(stored) $(scheme_of "$big")" = "2 arch"

# To the cloud and back: ids and bytes kept, the old copies gone.
va migrate --from arch --to cloud --json >"$work/out.json"
check "arch to cloud exits 0" test $? -eq 0
check "both are moved" test "$(json '.moved.sort().join()' <"$work/out.json") $(json '.failed.length' <"$work/out.json")" \
  = "$(printf '%s\n' "$big" "$note" | sort | paste -sd,) 0"
check "on the cloud, under their ids" test "$(scheme_of "$big") $(scheme_of "$note")" = "cloud cloud"
check "the storage folder is empty (and kept), the service holds two blobs" \
  test "$(stored) $(blobs) $(ls -A "$work/storage" 2>&1)" = "0 2 "
check "the folder reference moves to the cloud" test "$(va migrate "$tree" --to cloud)" = "$tree	moved"
check "and the user's folder stays" test -f "$work/in/tree/sub/a.bin"
check "the three come back from the cloud" retrievable "$big" "$note" "$tree"
va migrate "$big" "$note" "$tree" --to arch --json >"$work/out.json"
check "a folder cannot go into a storage folder: exit 1" test $? -eq 1
check "it fails alone" test "$(json '.failed.map(f=>f.id).join()' <"$work/out.json") $(json '.moved.length' <"$work/out.json")" = "$tree 2"
check "it stays on the cloud" test "$(scheme_of "$tree") $(stored) $(blobs)" = "cloud 2 1"
check "all come back after the move back" retrievable "$big" "$note" "$tree"
check "again: skipped" test "$(va migrate "$big" --to arch --json | json '.skipped.join()')" = "$big"
check "no staging row or work file is left" \
  test "$(va list | wc -l) $(find "$work/data/migrating" -mindepth 1 | wc -l)" = "3 0"

# Killed during the retrieval (the cloud's download held slow): the attachment stays on
# the cloud; the next run moves it, leaving one copy.
va migrate "$big" --to cloud >/dev/null
echo 100000 >"$work/down"
"$vmattach" --data-dir "$work/data" migrate "$big" --to arch >/dev/null 2>&1 &
downloading() {
  [ "$(sqlite3 "$work/data/attachments.sqlite" 'SELECT count(*) FROM transfers WHERE operationType = 1' 2>/dev/null)" = 1 ]
}
check "killed while downloading" kill_once downloading $! 1200
echo 0 >"$work/down"
check "after a kill in the retrieval, still on the cloud" test "$(scheme_of "$big")" = cloud
check "and retrievable" retrievable "$big" "$note" "$tree"
check "the next run moves it" test "$(va migrate "$big" --to arch)" = "$big	moved"
check "one copy of each" test "$(stored) $(blobs)" = "2 1"

# Killed during the upload: retrievable from the storage folder; the next run resumes the
# staged upload (the service takes a whole PUT again) and does not stage a second one.
echo 100000 >"$work/rate"
before=$(cat "$work/forwarded")
"$vmattach" --data-dir "$work/data" migrate "$big" --to cloud >/dev/null 2>&1 &
uploading() { [ "$(cat "$work/forwarded")" -gt $((before + 300000)) ]; }
check "killed while uploading" kill_once uploading $! 1200
echo 0 >"$work/rate"
check "after a kill in the upload, still in the storage folder" test "$(scheme_of "$big")" = arch
check "and retrievable" retrievable "$big" "$note" "$tree"
before=$(cat "$work/forwarded")
check "the next run moves it" test "$(va migrate "$big" --to cloud)" = "$big	moved"
check "sending the file once more at most" test $(($(cat "$work/forwarded") - before)) -lt 6000000
check "one copy of each after the resumed upload" test "$(stored) $(blobs)" = "1 2"

# Killed between the save and the deletion: the row says the storage folder already and
# the old copy is kept until the next run deletes it.
va migrate "$note" --to cloud >/dev/null
export VMATTACH_TEST_STOP_AT=saved
"$vmattach" --data-dir "$work/data" migrate "$note" --to arch >/dev/null 2>&1 &
check "stopped between the save and the deletion" killed_at $!
check "the row already says the storage folder" test "$(scheme_of "$note")" = arch
check "the old copy is still on the service" test "$(stored) $(blobs)" = "1 3"
check "all retrievable" retrievable "$big" "$note" "$tree"
# Killed once the target copy is stored, before it is verified (the run finishes the
# earlier move first): the next run reuses the staged copy.
VMATTACH_TEST_STOP_AT=staged
"$vmattach" --data-dir "$work/data" migrate "$big" --to arch >/dev/null 2>&1 &
check "stopped once the copy is staged" killed_at $!
unset VMATTACH_TEST_STOP_AT
check "still on the cloud, the earlier move finished" \
  test "$(scheme_of "$big") $(scheme_of "$note") $(stored) $(blobs)" = "cloud arch 2 2"
check "and retrievable" retrievable "$big" "$note" "$tree"
staged=$(cd "$work/storage" && find . -name big.bin | cut -c3-)
check "the next run finishes the move" test "$(va migrate "$big" "$note" --to arch --json | json '.moved.join()')" = "$big"
check "reusing the staged copy: one copy of each" \
  test "$(stored) $(blobs) $(va show "$big" --json | json '["attachmentPath"]')" = "2 1 $staged"
check "no staging row, journal entry, transfer or work file is left" \
  test "$(va list | wc -l) $(sqlite3 "$work/data/attachments.sqlite" 'SELECT count(*) FROM migrations') $(va transfers | wc -l) $(find "$work/data/migrating" -mindepth 1 | wc -l)" = "3 0 0 0"
check "all retrievable at the end" retrievable "$big" "$note" "$tree"

# A pending upload cannot be moved away.
echo 100000 >"$work/rate"
before=$(cat "$work/forwarded")
"$vmattach" --data-dir "$work/data" store "$work/in/big.bin" --scheme cloud >/dev/null 2>&1 &
kill_once uploading $! 1200
echo 0 >"$work/rate"
pending=$(va transfers --json | json '[0]["id"]')
va migrate "$pending" --to arch --json >"$work/out.json"
check "a pending upload fails: exit 1" test $? -eq 1
check "telling to resume transfers first" grep -q 'resume transfers first' "$work/out.json"

finish migrate_cli_test
