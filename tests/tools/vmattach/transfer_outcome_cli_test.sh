#!/usr/bin/env bash
# vmattach's downloads against vmcloudd on loopback when they go wrong: a storage provider
# that cuts the answer short fails the retrieval at once and leaves nothing behind; an
# attachment keeps one download registration however often it fails; a resumed download
# replaces the cached copy or keeps it, and says which; a transfer row of an unknown type
# is refused without holding up the others. Blob URLs lead through a proxy that can cut.
#
# usage: transfer_outcome_cli_test.sh VMATTACH VMCLOUDD
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work

echo 0 >"$work/rate"
echo 0 >"$work/cut"
start_proxied_cloud_service "$work/rate" "$work/forwarded" "" "$work/cut"

downloads() { va transfers --json | grep -c '"type": "download"'; }
va scheme add cloud --type cloud --api "http://127.0.0.1:$port" --token sekrit >/dev/null
head -c 600000 /dev/urandom >"$work/report.bin"
row=$(va store "$work/report.bin" --scheme cloud --json)
id=$(json '["id"]' <<<"$row")
uuid=$(json '["uuid"]' <<<"$row")
cached="$work/data/cache/${uuid:0:2}/$uuid"
check "the store succeeds" test -n "$id"

# Cut after 100 kB of the answer: the retrieval fails at once, twice, with one
# registration, and nothing of it stays in the temporary folder or the cache.
rm -rf "$cached"
echo 100000 >"$work/cut"
for attempt in 1 2; do
  started=$(date +%s)
  timeout 90 "$vmattach" --data-dir "$work/data" retrieve "$id" --to "$work/out" >/dev/null 2>"$work/err"
  rc=$?
  check "cut $attempt: the retrieval fails" test "$rc" -ne 0
  check "cut $attempt: within a minute" test $(($(date +%s) - started)) -lt 60
  check "cut $attempt: saying the connection was lost" grep -q 'connection was lost' "$work/err"
  check "cut $attempt: one download registered" test "$(downloads)" = 1
  check "cut $attempt: no file left in the temporary folder" test -z "$(find "$TMPDIR" -type f)"
  check "cut $attempt: no folder of its own either" test -z "$(find "$TMPDIR" -name "$uuid")"
  check "cut $attempt: nothing in the cache" test -z "$(ls -A "$cached" 2>/dev/null)"
  check "cut $attempt: nothing at the destination" test -z "$(ls -A "$work/out" 2>/dev/null)"
done

# The registered download resumed once the provider answers in full.
echo 0 >"$work/cut"
check "resume: finishes" grep -q 'finished' <(va transfers resume "$id")
check "resume: nothing left registered" test -z "$(va transfers)"
check "resume: the cached copy is whole" cmp -s "$work/report.bin" "$cached/report.bin"

# A download registered while a cached copy exists (the cut retrieval put the copy back):
# resuming it replaces that copy, and leaves no second decrypted copy beside it.
echo 100000 >"$work/cut"
va retrieve "$id" --to "$work/out" >/dev/null 2>&1
check "cached: the cut retrieval keeps the cached copy" cmp -s "$work/report.bin" "$cached/report.bin"
printf 'older' >"$cached/report.bin"
echo 0 >"$work/cut"
va transfers resume "$id" >"$work/out.txt" 2>"$work/err"
check "cached: the resume succeeds" grep -q 'finished' "$work/out.txt"
check "cached: and says nothing is kept" test -z "$(grep -e 'kept' -e 'Failed' "$work/err")"
check "cached: the copy is replaced" cmp -s "$work/report.bin" "$cached/report.bin"
check "cached: the copy is the only item there" test "$(ls -A "$cached")" = report.bin
check "cached: nothing set aside is left" test ! -e "$cached.previous"
check "cached: nothing left registered" test -z "$(va transfers)"

# Rows an earlier version left: the same download three times, and a type no scheme knows.
# The duplicates go at the next open; the unknown type is refused at once, naming its
# attachment, and the download beside it still runs.
path="$TMPDIR/HXAttachmentCache/${uuid:0:2}/$uuid/$uuid/vmattachmentdownload"
for _ in 1 2 3; do
  sqlite3 "$work/data/attachments.sqlite" "INSERT INTO transfers (attachmentID, attachmentPK, \
    operationType, path) VALUES ('$uuid', $id, 1, '$path')"
done
sqlite3 "$work/data/attachments.sqlite" "INSERT INTO transfers (attachmentID, attachmentPK, \
  operationType, path) VALUES ('$uuid', $id, 7, '')"
check "duplicates: one download listed" test "$(downloads)" = 1
check "duplicates: the rows are gone" test "$(sqlite3 "$work/data/attachments.sqlite" \
  "SELECT count(*) FROM transfers WHERE operationType = 1")" = 1
started=$(date +%s)
va transfers resume >"$work/out.txt" 2>"$work/err"
rc=$?
check "unknown type: resume exits non-zero" test "$rc" -ne 0
check "unknown type: at once" test $(($(date +%s) - started)) -lt 30
check "unknown type: the error names the row" \
  grep -q "transfer row of attachment $id ($uuid) has the unknown operation type 7" "$work/err"
check "unknown type: the download beside it finished" grep -q "download	finished" "$work/out.txt"

finish "vmattach transfer outcomes"
