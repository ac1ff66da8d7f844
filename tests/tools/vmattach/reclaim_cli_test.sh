#!/usr/bin/env bash
# What a vmattach killed with SIGKILL leaves behind (work files, partial downloads, partial
# cache copies) is removed by the next command that stores, retrieves or resumes. vmcloudd
# runs on loopback behind a throttling proxy, so that the test can kill each writer while
# it writes.
#
# usage: reclaim_cli_test.sh VMATTACH VMCLOUDD
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
mkdir -p "$work/in" "$work/out"

echo 0 >"$work/up"
echo 0 >"$work/down"
start_proxied_cloud_service "$work/up" "$work/forwarded" "$work/down"

id_of() { sed -n 's/.*"id": \([0-9]*\).*/\1/p' | head -1; }
va scheme add cloud --type cloud --api "http://127.0.0.1:$port" --token sekrit >/dev/null
# Large enough that encrypting and decrypting take a moment to catch.
head -c 100000000 /dev/urandom >"$work/in/large.bin"
head -c 3000000 /dev/urandom >"$work/in/medium.bin"
echo small >"$work/in/small.txt"

# kill_when PATTERN COMMAND...: runs vmattach COMMAND, kills it with SIGKILL as soon as a
# path matching the glob PATTERN exists, and says whether it caught it there.
kill_when() {
  pattern=$1
  shift
  "$vmattach" --data-dir "$work/data" "$@" >/dev/null 2>&1 &
  kill_once pattern_exists $! 3000 0.01
}
pattern_exists() { compgen -G "$pattern" >/dev/null; }
# Whether no work file, partial download or partial cache copy is left: no file in the
# temporary folder, no attachment's work folder below a database's, no folder named as
# attachment $1 (a decryption's), nothing staged or set aside in the cache.
nothing_left() {
  test -z "$(find "$TMPDIR" -type f)" &&
    test -z "$(find "$TMPDIR" -mindepth 2 -maxdepth 2 -type d ! -path "$TMPDIR/HXAttachmentCache/*")" &&
    test -z "$(find "$TMPDIR" -iname "${1:-none}")" &&
    test -z "$(find "$work/data/cache" \( -name '.store-*' -o -name '*.previous' \
      -o -name '*.vmattach-partial' \))"
}

check "a store killed while it encrypts" kill_when "$TMPDIR/*/*/crypt" store "$work/in/large.bin" --scheme cloud
check "the next store succeeds" va store "$work/in/small.txt" --scheme cloud >/dev/null
check "and reclaims the killed store's work files" nothing_left

echo 100000 >"$work/up"
check "a store killed while it uploads" \
  kill_when "$work/data/cache/.store-*/medium.bin" store "$work/in/medium.bin" --scheme cloud
echo 0 >"$work/up"
check "the next store succeeds" va store "$work/in/small.txt" --scheme cloud >/dev/null
check "and reclaims the killed store's staged cache copy" nothing_left
check "the killed upload still resumes" va transfers resume >/dev/null

id_medium=$(va list --json | node -e "let s='';process.stdin.on('data',d=>s+=d).on('end',()=>
  console.log(JSON.parse(s).find(r=>r.name==='medium.bin').id))")
# A first retrieval leaves a cached copy, which the next one sets aside while it downloads.
check "a first retrieval succeeds" va retrieve "$id_medium" --to "$work/first" >/dev/null
echo 100000 >"$work/down"
check "a retrieval killed while it downloads" \
  kill_when "$TMPDIR/HXAttachmentCache/*/*/*/.vm-download-*" retrieve "$id_medium" --to "$work/killed"
check "with the older cached copy set aside" test -n "$(find "$work/data/cache" -name '*.previous')"
echo 0 >"$work/down"
check "the next retrieval succeeds" va retrieve "$id_medium" --to "$work/out" >/dev/null
check "and gives the same bytes" cmp -s "$work/in/medium.bin" "$work/out/medium.bin"
check "and reclaims the partial download and the set-aside copy" nothing_left

id_large=$(va store "$work/in/large.bin" --scheme cloud --json | id_of)
check "a retrieval killed while it decrypts" \
  kill_when "$TMPDIR/*-*-*-*-*/crypt" retrieve "$id_large" --to "$work/killed"
check "the next retrieval succeeds" va retrieve "$id_large" --to "$work/out" >/dev/null
check "and gives the same bytes" cmp -s "$work/in/large.bin" "$work/out/large.bin"
check "and reclaims the partial decryption" nothing_left "$(va show "$id_large" --json |
  sed -n 's/.*"uuid": "\(.*\)".*/\1/p')"

# A lost upload (its blob URL unreachable, then its registration and cached copy gone),
# which recover proves by decrypting a trial copy of its work file.
echo "127.0.0.1:1" >"$work/target"
va store "$work/in/large.bin" --scheme cloud >/dev/null 2>&1
lost=$(sqlite3 "$work/data/attachments.sqlite" "SELECT attachmentUUID FROM attachments WHERE uploaded = 0")
sqlite3 "$work/data/attachments.sqlite" "DELETE FROM transfers"
rm -rf "$work/data/cache/${lost:0:2}/$lost"
check "a recover killed while it decrypts its trial copy" \
  kill_when "$TMPDIR/*-*-*-*-*/testDecrypt" recover
echo "127.0.0.1:$port" >"$work/target"
check "the next recover succeeds" va recover >/dev/null
check "and reclaims the trial copy" nothing_left

# Several processes at once on one data folder, each reclaiming at start what others
# abandoned: none may take what another one is still writing (a store's work folder or
# the database's folder it is made in, a decryption folder, a staged cache copy).
mkdir -p "$work/many" "$work/many-out"
rounds=6 writers=8
# run_together OUTPUT: runs each line of stdin as arguments of vmattach, $writers at a
# time; each process's stdout and stderr go to OUTPUT.N. Fails, showing what the failed
# ones said, when any did.
run_together() {
  local out=$1 n=0 failed=0 line pids=() names=()
  while read -r line; do
    # shellcheck disable=SC2086
    va $line >"$out.$n" 2>&1 &
    pids+=($!) names+=("$out.$n") n=$((n + 1))
    [ "${#pids[@]}" -lt "$writers" ] || reap_together
  done
  reap_together
  return $failed
}
reap_together() {  # waits for run_together's processes, in its variables
  local i
  for i in "${!pids[@]}"; do
    wait "${pids[$i]}" || { failed=1 && echo "FAILED: $(cat "${names[$i]}")"; }
  done
  pids=() names=()
}
for i in $(seq $((rounds * writers))); do head -c 20000 /dev/urandom >"$work/many/f$i.bin"; done
check "concurrent stores on one data folder all succeed" run_together "$work/store-out" < <(
  for i in $(seq $((rounds * writers))); do echo "store $work/many/f$i.bin --scheme cloud"; done)
check "and say nothing on stderr" test -z "$(grep -hv '^[0-9]' "$work"/store-out.*)"
ids=$(va list --json | json ".filter(r=>/^f[0-9]+\.bin$/.test(r.name)).map(r=>r.id).join(' ')")
check "and all are stored" test "$(echo $ids | wc -w)" -eq $((rounds * writers))
# shellcheck disable=SC2086
check "and verify all ok" va verify $ids >/dev/null
# Without cached copies, each retrieval downloads and decrypts in a folder of its own.
rm -rf "$work/data/cache"
check "concurrent retrievals all succeed" run_together "$work/retrieve-out" < <(
  for id in $ids; do echo "retrieve $id --to $work/many-out/$id"; done)
same=0
for i in $(seq $((rounds * writers))); do
  cmp -s "$work/many/f$i.bin" "$(find "$work/many-out" -name "f$i.bin")" && same=$((same + 1))
done
check "and give the same bytes" test "$same" -eq $((rounds * writers))
check "and leave nothing behind" nothing_left

finish "vmattach reclaiming"
