#!/usr/bin/env bash
# End-to-end checks of vmattach with the file-reference scheme: every step is a separate
# process, so what one writes the next must read back from the data folder.
set -u
vmattach=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
data="$work/data"
source "$(dirname "$0")/check.sh"

"$vmattach" init --data-dir "$data" >/dev/null
"$vmattach" scheme add refs --type reference --data-dir "$data" >/dev/null
echo hello >"$work/hello.txt"
id=$("$vmattach" store "$work/hello.txt" --scheme refs --data-dir "$data")
check "store prints a numeric id" test -n "$id" -a "$id" -eq "$id"

uploaded=$("$vmattach" show "$id" --json --data-dir "$data" | grep -c '"uploaded": true')
check "a second process sees the row uploaded" test "$uploaded" = 1

mkdir "$work/out"
check "retrieve of an existing file succeeds" "$vmattach" retrieve "$id" --to "$work/out" --data-dir "$data"
check "retrieve touches no destination" test -z "$(ls -A "$work/out")"
check "url prints the path" test "$("$vmattach" url "$id" --data-dir "$data")" = "$work/hello.txt"

tilde_id=$("$vmattach" store '~/vmattach-test-missing.pdf' --scheme refs --data-dir "$data")
check "url expands ~ of a relative path" \
  test "$("$vmattach" url "$tilde_id" --data-dir "$data")" = "$HOME/vmattach-test-missing.pdf"

rm "$work/hello.txt"
"$vmattach" retrieve "$id" --to "$work/out" --data-dir "$data" 2>"$work/err"
status=$?
check "a missing file exits non-zero" test "$status" -ne 0
check "the failure names domain and code" grep -q 'HXFileAttachmentErrorDomain 600' "$work/err"

"$vmattach" store "$work/x" --scheme nosuch --data-dir "$data" 2>"$work/err"
check "an unknown scheme fails with code 500" grep -q ' 500)' "$work/err"

finish "vmattach"
