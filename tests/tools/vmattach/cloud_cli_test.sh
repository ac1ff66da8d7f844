#!/usr/bin/env bash
# vmattach's cloud commands against the reference service on loopback: what one process
# uploads, the next downloads and deletes.
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
start_cloud_service
api=(--api "http://127.0.0.1:$port" --token sekrit)
head -c 200000 /dev/urandom >"$work/file"

uuid=$("$vmattach" cloud upload "$work/file" "${api[@]}")
check "upload prints a lower-case UUID" grep -Eq '^[0-9a-f-]{36}$' <<<"$uuid"
check "download brings the same bytes" "$vmattach" cloud download "$uuid" "$work/back" "${api[@]}"
check "the bytes match" cmp -s "$work/file" "$work/back"
"$vmattach" cloud download "$uuid" "$work/back" "${api[@]}" 2>"$work/err"
check "an existing destination fails with EEXIST" grep -q 'NSPOSIXErrorDomain 17' "$work/err"
"$vmattach" cloud delete "$uuid" --api "http://127.0.0.1:$port" --token wrong 2>"$work/err"
check "a delete with a wrong token fails" test $? -ne 0
check "and says the service's status" grep -q 'HTTP status 401' "$work/err"
check "and the attachment is still there" "$vmattach" cloud download "$uuid" "$work/still" "${api[@]}"
check "delete succeeds" "$vmattach" cloud delete "$uuid" "${api[@]}"
"$vmattach" cloud delete 00000000-0000-4000-8000-000000000000 "${api[@]}" 2>"$work/err"
check "deleting an unknown UUID is refused" test $? -ne 0
check "with the service's status" grep -q 'HTTP status 404' "$work/err"
check "a deleted attachment cannot be downloaded" \
  test "$("$vmattach" cloud download "$uuid" "$work/gone" "${api[@]}" 2>/dev/null; echo $?)" -ne 0
"$vmattach" cloud upload "$work/file" --api "http://127.0.0.1:$port" --token wrong 2>"$work/err"
check "a refused token exits non-zero with an error" grep -q 'vmattach: .*(' "$work/err"
"$vmattach" scheme add cloud --type cloud --api "http://127.0.0.1:$port" --token sekrit \
  --data-dir "$work/data" >/dev/null
check "the data folder's cloud scheme names the service and the token" \
  "$vmattach" cloud upload "$work/file" --data-dir "$work/data"

finish "vmattach cloud"
