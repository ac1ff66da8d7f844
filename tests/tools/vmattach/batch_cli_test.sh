#!/usr/bin/env bash
# vmattach store and retrieve of many files in one command: through the cloud scheme
# (vmcloudd on loopback) with several transfers at once, ids in argument order and bytes
# back intact; a file that cannot be stored fails alone, named; the storage-folder and
# file-reference schemes take many files too.
#
# usage: batch_cli_test.sh VMATTACH VMCLOUDD
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
start_cloud_service

va scheme add cloud --type cloud --api "http://127.0.0.1:$port" --token sekrit >/dev/null
va scheme add arch --type archiver --folder "$work/storage" >/dev/null
va scheme add refs --type reference >/dev/null
mkdir -p "$work/storage" "$work/in"
files=()
for i in $(seq 1 50); do
  head -c $((1000 + i * 997)) /dev/urandom >"$work/in/f$i.bin"
  files+=("$work/in/f$i.bin")
done

# 50 files in one command, 8 at once; then all 50 back in one command.
va store "${files[@]}" --scheme cloud --jobs 8 >"$work/ids"
check "a store of 50 files exits 0" test $? -eq 0
mapfile -t ids <"$work/ids"
check "it prints 50 ids" test "${#ids[@]}" -eq 50
names=$(for id in "${ids[@]}"; do va show "$id" --json | json .name; done)
check "in argument order" test "$names" = "$(for i in $(seq 1 50); do echo "f$i.bin"; done)"
va retrieve "${ids[@]}" --to "$work/out" --jobs 8 >"$work/retrieved"
check "a retrieval of 50 ids exits 0" test $? -eq 0
check "it prints one line per id, in order" \
  test "$(cut -f1 "$work/retrieved")" = "$(printf '%s\n' "${ids[@]}")"
same=0
for i in $(seq 1 50); do cmp -s "$work/in/f$i.bin" "$work/out/f$i.bin" && same=$((same + 1)); done
check "every file comes back byte-identical" test "$same" -eq 50
va retrieve "${ids[0]}" "${ids[1]}" --to "$work/out" 2>"$work/err" >/dev/null
check "copies already there are refused without --force" test $? -eq 1
check "each named by its id" \
  test "$(grep -c -e "^vmattach: ${ids[0]}: .*--force" -e "^vmattach: ${ids[1]}: .*--force" "$work/err")" -eq 2
va retrieve "${ids[0]}" 999999999 --to "$work/out" --force --json >"$work/out.json" 2>"$work/err"
check "an unknown id fails alone" test $? -eq 1
check "named in the message" grep -q "^vmattach: 999999999: no attachment with id 999999999" "$work/err"
check "the other is retrieved, as an array of one" \
  test "$(json ".map(x=>x.id+' '+x.status).join()" <"$work/out.json")" = "${ids[0]} finished"
va retrieve "${ids[0]}" "${ids[0]}" --to "$work/out" >/dev/null 2>&1
check "an id named twice is a usage error" test $? -eq 2

# One file among them cannot be stored: a missing path and a FIFO each fail alone.
mkfifo "$work/in/fifo"
rm "$work/in/f10.bin"
va store "${files[@]}" "$work/in/fifo" --scheme cloud --jobs 8 >"$work/ids" 2>"$work/err"
check "a store with failing files exits 1" test $? -eq 1
check "the 49 others are stored" test "$(wc -l <"$work/ids")" -eq 49
check "the missing file is named" grep -q "^vmattach: $work/in/f10.bin: " "$work/err"
check "and the FIFO" grep -q "^vmattach: $work/in/fifo: .*not a regular file" "$work/err"
check "no row is left for them" \
  test "$(va list | grep -c -e 'f10.bin' -e 'fifo')" -eq 1
check "nothing is left pending" test -z "$(va transfers)"

# The storage-folder and file-reference schemes, with --json: an array of the rows.
va store "$work/in/f1.bin" "$work/in/f2.bin" "$work/in/f3.bin" --scheme arch --json >"$work/arch.json"
check "a store through the storage folder exits 0" test $? -eq 0
check "--json gives an array of the three rows, in order" \
  test "$(json ".map(x=>x.name).join()" <"$work/arch.json")" = "f1.bin,f2.bin,f3.bin"
va retrieve $(json ".map(x=>x.id).join(' ')" <"$work/arch.json") --to "$work/arch-out" >/dev/null
check "and they come back" cmp -s "$work/in/f3.bin" "$work/arch-out/f3.bin"
va store "$work/in/f4.bin" "$work/in/none" "$work/in/f5.bin" --scheme refs >"$work/ids" 2>/dev/null
check "references are recorded for any path" test $? -eq 0 -a "$(wc -l <"$work/ids")" -eq 3
va store "$work/in/f4.bin" --scheme cloud --json >"$work/one.json"
check "a single file still gives one object" test "$(json " instanceof Array" <"$work/one.json")" = false
va store "$work/in/f4.bin" "$work/in/f5.bin" --scheme cloud --jobs 0 >/dev/null 2>&1
check "--jobs 0 is a usage error" test $? -eq 2

finish batch_cli_test
