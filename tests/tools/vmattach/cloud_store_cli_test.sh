#!/usr/bin/env bash
# vmattach storing through a cloud scheme against vmcloudd on loopback, as a user runs it:
# round trips, deletion, and uploads that survive a killed process or a service that is
# down. MODE "s3" puts the bytes in s3rver behind vmcloudd; "embedded" (the default) in
# vmcloudd's own store, where the upload also passes a throttling proxy so that the test
# can kill the tool while its PUT runs.
#
# usage: cloud_store_cli_test.sh VMATTACH VMCLOUDD [embedded|s3]
set -u
vmattach=$1
vmcloudd=$2
mode=${3:-embedded}
here=$(cd "$(dirname "$0")" && pwd)
source "$here/check.sh"
setup_work

service=("$vmcloudd")
service_args=(--data "$work/service" --token sekrit)
if [ "$mode" = s3 ]; then
  s3rver=$here/../../support/node_modules/.bin/s3rver
  mkdir -p "$work/s3"
  start_server "$work/s3rver.log" "$s3rver" --address 127.0.0.1 --port 0 \
    --directory "$work/s3" --configure-bucket vmtest
  service_args+=(--s3-endpoint "http://127.0.0.1:$port" --s3-bucket vmtest
    --s3-access-key S3RVER --s3-path-style)
  # The secret comes from the environment, as an operator keeps it off the command line.
  service=(env VMCLOUDD_S3_SECRET=S3RVER "$vmcloudd")
else
  # Blob URLs lead through the proxy; the web API is reached directly.
  echo 0 >"$work/rate"
  start_server "$work/proxy.log" node "$here/throttle_proxy.js" "$work/target" "$work/rate" \
    "$work/forwarded"
  service_args+=(--public-url "http://127.0.0.1:$port")
fi
start_server "$work/vmcloudd.log" "${service[@]}" --listen 127.0.0.1:0 "${service_args[@]}"
service_port=$port
service_pid=$server_pid
echo "127.0.0.1:$service_port" >"$work/target"
if [ "$mode" = s3 ]; then
  # s3rver does not check V4 signatures: this shows that the secret was taken from the
  # environment (vmcloudd refuses to start without one), not that its value was used.
  check "vmcloudd takes the S3 secret from VMCLOUDD_S3_SECRET without a warning" \
    test -z "$(grep -- '--s3-secret' "$work/vmcloudd.log")"
fi

va scheme add cloud --type cloud --api "http://127.0.0.1:$service_port" --token sekrit >/dev/null

# Round trips: a file, an empty file and a folder tree with nested folders, an empty file
# and an executable.
mkdir -p "$work/in/tree/docs/drafts" "$work/in/tree/empty folder" "$work/out"
# Over a megabyte and not a whole number of blocks, so that copies meet a ragged end.
head -c 2621447 /dev/urandom >"$work/in/photo.jpg"
: >"$work/in/empty.txt"
: >"$work/in/tree/docs/drafts/nothing yet"
head -c 5000 /dev/urandom >"$work/in/tree/docs/plan.bin"
printf '#!/bin/sh\necho hi\n' >"$work/in/tree/run.sh"
chmod 755 "$work/in/tree/run.sh"
for item in photo.jpg empty.txt tree; do
  row=$(va store "$work/in/$item" --scheme cloud --json)
  check "store $item succeeds" test -n "$row"
  id=$(json '["id"]' <<<"$row")
  check "store $item: the row is uploaded" test "$(json '["uploaded"]' <<<"$row")" = true
  check "store $item: hashes are lower-case hex" \
    grep -Eq '^[0-9a-f]{40} [0-9a-f]{40}$' <<<"$(json '["sourceHash"]' <<<"$row") $(json '["cryptedHash"]' <<<"$row")"
  check "store $item: uuid and storage type" \
    grep -Eq '^[0-9a-f-]{36} [12]$' <<<"$(json '["uuid"]' <<<"$row") $(json '["storageType"]' <<<"$row")"
  uuid=$(json '["uuid"]' <<<"$row")
  check "store $item leaves a copy in the cache under the service's UUID" \
    diff -r "$work/in/$item" "$work/data/cache/${uuid:0:2}/$uuid/$item"
  check "retrieve $item succeeds" va retrieve "$id" --to "$work/out" >/dev/null
  check "retrieve $item gives the same bytes" diff -r "$work/in/$item" "$work/out/$item"
  check "retrieve $item leaves no decryption or download folder" \
    test -z "$(find "$TMPDIR" -name "$uuid")"
  eval "id_${item%%.*}=$id"
done
check "nothing is left queued" test -z "$(va transfers)"
check "no staged cache copy is left" test -z "$(find "$work/data/cache" -maxdepth 1 -name '.store-*')"
check "no plain or encrypted copy is left in the temporary folder" \
  test -z "$(find "$TMPDIR" -type f)"
va retrieve "$id_photo" --to "$work/out" 2>"$work/err"
check "retrieve never replaces a file" grep -q 'NSPOSIXErrorDomain 17' "$work/err"

uuid=$(va show "$id_photo" --json | json '["uuid"]')
check "delete succeeds" va delete "$id_photo" >/dev/null
check "the row is gone" test "$(va show "$id_photo" 2>/dev/null; echo $?)" -ne 0
check "the service no longer serves the bytes" test "$("$vmattach" cloud download "$uuid" \
  "$work/gone" --api "http://127.0.0.1:$service_port" --token sekrit 2>/dev/null; echo $?)" -ne 0

if [ "$mode" = embedded ]; then
  # What the storage keeps is the ciphertext whose SHA-1 is the row's crypted hash; a
  # flipped byte there makes the retrieval fail and leave nothing behind.
  row=$(va show "$id_empty" --json)
  blob=$(find "$work/service/blobs" -type f -iname "$(json '["uuid"]' <<<"$row")*" | head -1)
  check "the stored bytes hash to the crypted hash" \
    test "$(sha1sum <"$blob" | cut -c1-40)" = "$(json '["cryptedHash"]' <<<"$row")"
  blob=$(find "$work/service/blobs" -type f -iname "$(va show "$id_tree" --json | json '["uuid"]')*" | head -1)
  # The byte's bits inverted, so that it always changes.
  byte=$(od -An -tu1 -j20 -N1 "$blob" | tr -d ' ')
  printf "\\$(printf '%03o' $((255 - byte)))" | dd of="$blob" bs=1 seek=20 conv=notrunc status=none
  va retrieve "$id_tree" --to "$work/flipped" 2>"$work/err"
  check "a flipped stored byte fails the retrieval" grep -q 'Failed to save downloaded file.' "$work/err"
  check "and leaves nothing at the destination" test -z "$(ls -A "$work/flipped" 2>/dev/null)"

  # Killed while the PUT runs: the next process lists the upload and completes it.
  head -c 3000000 /dev/urandom >"$work/in/big.bin"
  # 30 s for the whole PUT: the kill lands well inside it however late the test wakes.
  echo 100000 >"$work/rate"
  # The proxy counts every byte it ever forwarded; nothing is sending now, so the count is
  # final and the wait is for this upload's own bytes.
  before=$(cat "$work/forwarded")
  # vmattach itself, not a shell running it, so that the kill reaches the process.
  "$vmattach" --data-dir "$work/data" store "$work/in/big.bin" --scheme cloud >/dev/null 2>&1 &
  putting() { [ "$(cat "$work/forwarded")" -gt $((before + 300000)) ]; }
  check "the upload's PUT runs through the proxy" kill_once putting $! 2400
  listed=$(va transfers --json)
  check "the killed upload is listed" test "$(json '[0]["type"]' <<<"$listed")" = upload
  check "with its file and size" test "$(json '[0]["size"]' <<<"$listed")" -gt 3000000
  id_big=$(json '[0]["id"]' <<<"$listed")
  echo 0 >"$work/rate"
  check "transfers resume completes it" va transfers resume >/dev/null
  check "nothing is left queued after the resume" test -z "$(va transfers)"
  check "the resumed upload comes back byte-identical" va retrieve "$id_big" --to "$work/out" >/dev/null
  check "big.bin matches" cmp -s "$work/in/big.bin" "$work/out/big.bin"
fi

# The service is down: the upload fails, stays queued, and completes once it is back.
stop_server "$service_pid"
printf 'written while offline\n' >"$work/in/offline.txt"
va store "$work/in/offline.txt" --scheme cloud >"$work/out.txt" 2>"$work/err"
check "a store while the service is down exits non-zero" test $? -ne 0
check "and says the transfer is kept and how to resume it" \
  grep -q 'transfer is kept; resume it with: vmattach transfers resume' "$work/err"
id_offline=$(va transfers --json | json '[0]["id"]')
check "the scheme answers suspend with yes" grep -q 'answered yes' <(va transfers suspend "$id_offline")
check "and cancel with no" grep -q 'answered no' <(va transfers cancel "$id_offline")
start_server "$work/vmcloudd2.log" "${service[@]}" --listen "127.0.0.1:$service_port" \
  "${service_args[@]}"
check "transfers resume ID completes it" va transfers resume "$id_offline" >/dev/null
check "the offline file comes back" va retrieve "$id_offline" --to "$work/out" >/dev/null
check "offline.txt matches" cmp -s "$work/in/offline.txt" "$work/out/offline.txt"

finish "vmattach cloud store ($mode)"
