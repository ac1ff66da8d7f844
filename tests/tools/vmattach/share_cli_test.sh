#!/usr/bin/env bash
# End-to-end checks of vmattach with the share schemes: an archiver scheme on a local
# storage folder, and the refusals of share settings that cannot work.
set -u
vmattach=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
data="$work/data"
source "$(dirname "$0")/check.sh"

"$vmattach" init --data-dir "$data" >/dev/null
mkdir "$work/archive"
check "an archiver scheme with a folder is added" \
  "$vmattach" scheme add arch --type archiver --folder "$work/archive" --data-dir "$data"
check "it is listed as archiver" grep -q 'arch	archiver' <("$vmattach" scheme list --data-dir "$data")

head -c 300000 /dev/urandom >"$work/report.bin"
id=$("$vmattach" store "$work/report.bin" --scheme arch --data-dir "$data")
check "store prints a numeric id" test -n "$id" -a "$id" -eq "$id"
stored=$(find "$work/archive" -type f -name report.bin)
check "the file is in the storage folder" test -n "$stored"
check "the stored bytes are the file's" cmp -s "$stored" "$work/report.bin"
check "url names the stored file" test "$("$vmattach" url "$id" --data-dir "$data")" = "$stored"

check "retrieve succeeds in a new process" "$vmattach" retrieve "$id" --to "$work/out" --data-dir "$data"
check "the retrieved bytes are the stored ones" cmp -s "$work/out/report.bin" "$stored"

rm "$stored"
"$vmattach" retrieve "$id" --to "$work/out2" --data-dir "$data" 2>"$work/err"
check "a file gone from the folder, with no server, fails with 700" \
  grep -q 'VMArchiverAttachmentDomain 700' "$work/err"

"$vmattach" scheme add noserver --type afp --data-dir "$data" 2>"$work/err"
check "an afp scheme needs a server" grep -q 'needs --server' "$work/err"
"$vmattach" scheme add nofolder --type archiver --data-dir "$data" 2>"$work/err"
check "an archiver scheme needs a folder" grep -q 'needs --folder' "$work/err"

"$vmattach" scheme add ftp --type afp --server ftp://127.0.0.1/share --data-dir "$data" >/dev/null
echo x >"$work/x.txt"
"$vmattach" store "$work/x.txt" --scheme ftp --data-dir "$data" 2>"$work/err"
check "a share of an unsupported kind fails to mount" grep -q 'NSPOSIXErrorDomain' "$work/err"
check "and stores no row" test "$("$vmattach" list --data-dir "$data" | wc -l)" -eq 1

finish "vmattach shares"
