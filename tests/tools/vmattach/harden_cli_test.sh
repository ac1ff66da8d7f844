#!/usr/bin/env bash
# End-to-end checks of what vmattach does with hostile or careless input: it refuses
# clearly, never hangs or crashes, never writes outside its folders, never replaces a
# person's file, never prints a secret or a raw control character.
set -u
vmattach=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
data="$work/data"
source "$(dirname "$0")/check.sh"
v() { timeout 20 "$vmattach" "$@" --data-dir "$data"; }
quiet() { "$@" >/dev/null 2>&1; }

mkdir -p "$work/parent" && chmod 755 "$work/parent"
data="$work/parent/data"
v init >/dev/null
check "a new data folder is 0700" test "$(stat -c %a "$data")" = 700
check "its database is 0600" test "$(stat -c %a "$data/attachments.sqlite")" = 600
chmod 755 "$data"
v list 2>"$work/err" >/dev/null
check "a wider data folder is tightened" test "$(stat -c %a "$data")" = 700
check "with a notice" grep -q 'tightened the permissions' "$work/err"

mkdir "$work/archive"
v scheme add refs --type reference >/dev/null
v scheme add arch --type archiver --folder "$work/archive" --password 'pa55word' >/dev/null
v scheme add cl --type cloud --api http://127.0.0.1:9/ --token 'T0KEN-VALUE' >/dev/null
out=$(v scheme list; v scheme list --json)
check "scheme list shows that a password is set" grep -q 'password set' <<<"$out"
check "and that a token is set" grep -q '"tokenSet": true' <<<"$out"
check "but never their values" test "$(grep -c 'pa55word\|T0KEN-VALUE' <<<"$out")" = 0

# Command-line values that are empty or not what they claim to be.
refuses() {  # refuses NAME ARGS...: exits non-zero, within the time limit, without a crash
  local name=$1
  shift
  timeout 20 "$vmattach" "$@" >/dev/null 2>"$work/err"
  local status=$?
  check "$name is refused" test "$status" -ne 0 -a "$status" -lt 124
}
echo data >"$work/f.txt"
mkfifo "$work/fifo"
refuses 'store ""' store "" --scheme arch --data-dir "$data"
refuses 'a FIFO stored by copy' store "$work/fifo" --scheme arch --data-dir "$data"
check "with a clear message" grep -q 'not a regular file or a folder' "$work/err"
refuses 'a device stored by copy' store /dev/null --scheme arch --data-dir "$data"
refuses '--data-dir ""' list --data-dir ""
refuses 'an empty scheme name' scheme add "" --type reference --data-dir "$data"
refuses 'store --scheme ""' store "$work/f.txt" --scheme "" --data-dir "$data"
for id in -1 0x10 1e3 " 7" 18446744073709551616; do
  for command in show retrieve delete "transfers cancel"; do
    # shellcheck disable=SC2086 # "transfers cancel" is two words on purpose
    refuses "$command id \"$id\"" $command "$id" --data-dir "$data"
  done
done
check "a FIFO is recorded by the file-reference scheme" quiet v store "$work/fifo" --scheme refs

id=$(v store "$work/f.txt" --scheme arch)
check "a leading zero is decimal, not octal" quiet v show "0$id"

# --path that would leave the storage folder.
echo precious >"$work/victim"
for path in ../ "../../$(basename "$work")" /tmp; do
  v store "$work/victim" --scheme arch --path "$path" 2>"$work/err" >/dev/null
  check "--path $path fails with EINVAL" grep -q 'NSPOSIXErrorDomain 22' "$work/err"
done
check "the file beside the folder is untouched" test "$(cat "$work/victim")" = precious
v store "$work/f.txt" --scheme arch --path same >/dev/null
mkdir "$work/other" && echo other >"$work/other/f.txt"
v store "$work/other/f.txt" --scheme arch --path same 2>"$work/err" >/dev/null
check "a same-named stored file fails with EEXIST" grep -q 'NSPOSIXErrorDomain 17' "$work/err"
check "and keeps its bytes" test "$(cat "$work/archive/same/f.txt")" = data

# retrieve --to never replaces silently.
mkdir "$work/out"
echo mine >"$work/out/f.txt"
ln -s "$work/victim" "$work/out/link"
v retrieve "$id" --to "$work/out" 2>"$work/err" >/dev/null
check "retrieve over an existing file fails with EEXIST" grep -q 'NSPOSIXErrorDomain 17' "$work/err"
check "and keeps it" test "$(cat "$work/out/f.txt")" = mine
check "--force replaces it" quiet v retrieve "$id" --to "$work/out" --force
check "delete reads a leading zero as decimal too" quiet v delete "0$id"
check "with the stored bytes" test "$(cat "$work/out/f.txt")" = data

# Names with control characters cannot forge rows.
evil="$work/$(printf 'evil\n999\tarch\tstored\tforged')"
echo x >"$evil"
v store "$evil" --scheme refs >/dev/null
check "list shows one row per attachment" test "$(v list | wc -l)" = "$(v list --json | grep -c '"id"')"
check "with the control characters escaped" grep -qF 'evil\n999\tarch' <(v list)

# A store refused after its folders were made (a folder cannot be copied) leaves none.
mkdir "$work/a-folder"
before=$(find "$work/archive" -type d | wc -l)
v store "$work/a-folder" --scheme arch >/dev/null 2>&1
check "a refused store leaves no empty folders" test "$(find "$work/archive" -type d | wc -l)" = "$before"

finish "vmattach hardening"
