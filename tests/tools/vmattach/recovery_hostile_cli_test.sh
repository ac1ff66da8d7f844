#!/usr/bin/env bash
# vmattach recover with a hostile row: its attachment UUID, as a cache folder, climbs out
# of the data folder to a private file of the user's. Nothing of it may reach the service.
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
start_cloud_service

# The cache folder of UUID U is data/cache/<first two of U>/U: "../../private" names
# $work/home/private, beside the data folder.
data="$work/home/vm/data"
mkdir -p "$work/home/private"
echo "private to the user" >"$work/home/private/secret.txt"
"$vmattach" --data-dir "$data" scheme add cloud --type cloud \
  --api "http://127.0.0.1:$port" --token sekrit >/dev/null
echo "an attachment" >"$work/plain.txt"
"$vmattach" --data-dir "$data" store "$work/plain.txt" --scheme cloud >/dev/null
# The row is made hostile: not uploaded, its UUID climbing out, its name the private file's.
sqlite3 "$data/attachments.sqlite" "UPDATE attachments SET uploaded = 0,
  attachmentUUID = '../../private', name = 'secret.txt'; DELETE FROM transfers"
rm -rf "$data/cache" "$data/transfers"
service_rows() { sqlite3 "$work/service/attachments.sqlite" "SELECT count(*) FROM attachments"; }
rows_before=$(service_rows)

VM_LOG_LEVEL=info "$vmattach" --data-dir "$data" recover --json >"$work/out" 2>"$work/err"
rc=$?
check "recover succeeds" test "$rc" -eq 0
check "the row is reported unrecovered" grep -q '"unrecovered": 1' "$work/out"
check "nothing recovered" grep -q '"recovered": 0' "$work/out"
check "the row is not in the cache" grep -q 'not in file attachments cache' "$work/err"
check "the service received nothing" test "$(service_rows)" -eq "$rows_before"
check "no upload is registered" \
  test -z "$(grep '"type"' <("$vmattach" --data-dir "$data" transfers --json))"
check "the private file is untouched" \
  test "$(cat "$work/home/private/secret.txt")" = "private to the user"
check "the row stays as it was" \
  test "$(sqlite3 "$data/attachments.sqlite" "SELECT attachmentUUID FROM attachments")" = "../../private"

finish "vmattach recover with a hostile row"
