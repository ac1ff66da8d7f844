#!/usr/bin/env bash
# vmattach verify against what the cloud (vmcloudd on loopback), storage-folder and
# file-reference schemes stored: intact, then a flipped stored byte, a removed file, a
# hostile row and the service down, each reported for its own attachment alone, and
# nothing written by verify anywhere.
#
# usage: verify_cli_test.sh VMATTACH VMCLOUDD
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
start_cloud_service

# status_of ID: the status verify --json gave that id (in $work/out).
status_of() {
  node -e "const r=JSON.parse(require('fs').readFileSync('$work/out'));
    const e=r.find(x=>x.id===$1); console.log(e?e.status:'absent')"
}
va scheme add cloud --type cloud --api "http://127.0.0.1:$port" --token sekrit >/dev/null
va scheme add arch --type archiver --folder "$work/storage" >/dev/null
va scheme add refs --type reference >/dev/null
mkdir -p "$work/storage" "$work/in/tree/sub"
head -c 1300000 /dev/urandom >"$work/in/big.bin"
head -c 5000 /dev/urandom >"$work/in/tree/sub/a.bin"
echo hello >"$work/in/tree/b.txt"
echo note >"$work/in/note.txt"

cloud_file=$(va store "$work/in/big.bin" --scheme cloud)
cloud_tree=$(va store "$work/in/tree" --scheme cloud)
arch_file=$(va store "$work/in/big.bin" --scheme arch)
arch_other=$(va store "$work/in/note.txt" --scheme arch)
ref=$(va store "$work/in/note.txt" --scheme refs)
check "five stores gave ids" test -n "$cloud_file" -a -n "$cloud_tree" -a -n "$arch_file" \
  -a -n "$arch_other" -a -n "$ref"

# snapshot: every path under the temporary folder and the attachment cache, with each
# file's size and time (a thread sanitizer's own scratch file left out).
snapshot() {
  find "$TMPDIR" "$work/data/cache" ! -name 'tsan.rodata.*' \( -type d -printf '%p\n' -o -printf '%p %s %T@\n' \) | sort
}
before=$(snapshot)
va verify --deep --json >"$work/out"
check "verify --deep of intact attachments exits 0" test $? -eq 0
check "every attachment is reported ok" \
  test "$(node -e "const r=JSON.parse(require('fs').readFileSync('$work/out'));
    console.log(r.length, r.every(x=>x.status==='ok'),
      r.every(x=>Object.keys(x).sort().join()==='detail,id,scheme,status'))")" = "5 true true"
va verify --jobs 1 >/dev/null
check "a shallow verify exits 0" test $? -eq 0
check "verify wrote nothing in the temporary folder or the cache" test "$before" = "$(snapshot)"

# A flipped byte in the service's blob: that attachment alone is corrupt.
uuid=$(va show "$cloud_tree" --json | json .uuid)
blob=$(find "$work/service/blobs" -type f -iname "$uuid*" | head -1)
byte=$(od -An -tu1 -j20 -N1 "$blob" | tr -d ' ')
printf "\\$(printf '%03o' $((255 - byte)))" | dd of="$blob" bs=1 seek=20 conv=notrunc status=none
va verify --deep --json >"$work/out"
check "a flipped stored byte exits 1" test $? -eq 1
check "and is corrupt" test "$(status_of "$cloud_tree")" = corrupt
check "for that id alone" test "$(status_of "$cloud_file") $(status_of "$arch_file")" = "ok ok"
va verify "$cloud_tree" --json >"$work/out"
check "a shallow verify does not read the bytes" test "$(status_of "$cloud_tree")" = ok

# A removed storage-folder file is missing; a row that leads out of the folder is refused.
rm "$work/storage/$(va show "$arch_file" --json | json .attachmentPath)"
echo secret >"$work/outside.txt"
sqlite3 "$work/data/attachments.sqlite" \
  "UPDATE attachments SET attachmentPath='../outside.txt' WHERE _rowid=$arch_other"
va verify "$arch_file" "$arch_other" "$ref" --json >"$work/out"
check "a removed storage-folder file exits 1" test $? -eq 1
check "and is missing" test "$(status_of "$arch_file")" = missing
check "a row leading out of the storage folder is refused" \
  test "$(status_of "$arch_other")" = corrupt
check "only the named ids are reported" test "$(status_of "$cloud_file")" = absent
check "the reference is ok" test "$(status_of "$ref")" = ok

# An upload not done yet is pending; a storage folder that is gone cannot be reached.
sqlite3 "$work/data/attachments.sqlite" "UPDATE attachments SET uploaded=0 WHERE _rowid=$cloud_file"
mv "$work/storage" "$work/storage.away"
va verify "$cloud_file" "$arch_file" --json >"$work/out"
check "an unfinished upload is pending" test "$(status_of "$cloud_file")" = pending
check "a storage folder that is gone is unreachable" test "$(status_of "$arch_file")" = unreachable
mv "$work/storage.away" "$work/storage"
sqlite3 "$work/data/attachments.sqlite" "UPDATE attachments SET uploaded=1 WHERE _rowid=$cloud_file"

# The service down: unreachable, and the local schemes still answer.
stop_servers
va verify "$cloud_file" "$ref" --json >"$work/out"
check "the service down exits 1" test $? -eq 1
check "and is unreachable" test "$(status_of "$cloud_file")" = unreachable
check "while the reference is still ok" test "$(status_of "$ref")" = ok

va verify 999999 >/dev/null 2>&1
check "an unknown id is a usage error" test $? -eq 2
va verify --jobs 0 >/dev/null 2>&1
check "--jobs 0 is a usage error" test $? -eq 2

finish "vmattach verify"
