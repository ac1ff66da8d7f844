#!/usr/bin/env bash
# The main job on a fresh machine: installs, builds, then stores and retrieves attachments
# with vmattach in a throw-away data folder, on the embedded defaults. Installs only what
# building needs (no test servers) and builds the tools without the test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh build
cmake --preset demo >/dev/null
cmake --build --preset demo -j"$(nproc)" --target vmattach vmcloudd >/dev/null
bin=build/demo

demo=$(mktemp -d)
trap 'rm -rf "$demo"' EXIT
vmattach() { "$bin/tools/vmattach/vmattach" --data-dir "$demo/data" "$@"; }
say() { printf '\n$ vmattach %s\n' "$*"; vmattach "$@"; }

mkdir -p "$demo/files" "$demo/retrieved"
printf 'Quarterly figures\n' >"$demo/files/report.txt"

say init
say scheme add references --type reference
say scheme list
id=$(vmattach store "$demo/files/report.txt" --scheme references)
printf '\n$ vmattach store %s --scheme references\n%s\n' "$demo/files/report.txt" "$id"
say list
say show "$id"
say url "$id"
say retrieve "$id" --to "$demo/retrieved"

echo
echo "Removing the referenced file; retrieving it now fails with the host's code 600:"
rm "$demo/files/report.txt"
if vmattach retrieve "$id" --to "$demo/retrieved"; then
  echo "unexpected success" >&2
  exit 1
fi
echo
echo "A storage-folder scheme copies the file into its folder and back:"
printf 'Minutes of the meeting\n' >"$demo/files/minutes.txt"
say scheme add archive --type archiver --folder "$demo/storage"
id=$(vmattach store "$demo/files/minutes.txt" --scheme archive)
printf '\n$ vmattach store %s --scheme archive\n%s\n' "$demo/files/minutes.txt" "$id"
say url "$id"
say retrieve "$id" --to "$demo/retrieved"
cmp "$demo/files/minutes.txt" "$demo/retrieved/minutes.txt"
echo "retrieved copy is identical"

echo
echo "The reference attachment service keeps bytes behind signed, expiring URLs:"
"$bin/services/vmcloudd/vmcloudd" --listen 127.0.0.1:0 --data "$demo/service" --token demo-token \
  >"$demo/vmcloudd.out" 2>"$demo/vmcloudd.log" &
service=$!
trap 'kill "$service" 2>/dev/null; wait "$service" 2>/dev/null; rm -rf "$demo"' EXIT
for _ in $(seq 100); do
  grep -q '^listening on' "$demo/vmcloudd.out" 2>/dev/null && break
  sleep 0.1
done
address=$(sed -n 's/^listening on //p' "$demo/vmcloudd.out")
say scheme add cloud --type cloud --api "http://$address" --token demo-token
head -c 3000000 /dev/urandom >"$demo/files/scan.bin"
uuid=$(vmattach cloud upload "$demo/files/scan.bin")
printf '\n$ vmattach cloud upload %s\n%s\n' "$demo/files/scan.bin" "$uuid"
say cloud download "$uuid" "$demo/retrieved/scan.bin"
cmp "$demo/files/scan.bin" "$demo/retrieved/scan.bin"
echo "downloaded copy is identical"
say cloud delete "$uuid"

echo
echo "Storing through the cloud scheme encrypts the file, uploads it and keeps a cached copy;"
echo "retrieving downloads, checks and decrypts it, and copies it out:"
id=$(vmattach store "$demo/files/scan.bin" --scheme cloud)
printf '\n$ vmattach store %s --scheme cloud\n%s\n' "$demo/files/scan.bin" "$id"
say show "$id"
mkdir -p "$demo/from-cloud"
say retrieve "$id" --to "$demo/from-cloud"
cmp "$demo/files/scan.bin" "$demo/from-cloud/scan.bin"
echo "retrieved copy is identical"
echo
echo "A folder is packed into one archive first, and comes back as a folder:"
mkdir -p "$demo/files/Project/docs"
printf 'Plan\n' >"$demo/files/Project/docs/plan.txt"
printf '#!/bin/sh\necho built\n' >"$demo/files/Project/build.sh"
id=$(vmattach store "$demo/files/Project" --scheme cloud)
printf '\n$ vmattach store %s --scheme cloud\n%s\n' "$demo/files/Project" "$id"
say retrieve "$id" --to "$demo/from-cloud"
diff -r "$demo/files/Project" "$demo/from-cloud/Project"
echo "retrieved folder is identical"
say transfers
say delete "$id"

echo
echo "demo finished"
