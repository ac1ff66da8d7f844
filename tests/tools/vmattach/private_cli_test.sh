#!/usr/bin/env bash
# What stays private: a retrieved folder's items, the service's records, and the token,
# which can be given without putting it on a command line.
set -u
vmattach=$1
vmcloudd=$2
source "$(dirname "$0")/check.sh"
setup_work
start_service() { start_cloud_service; }
stop_service() { stop_servers; }

# The service's data folder and records are its owner's alone, and tightened when found
# wider.
umask 022
start_service
check "the service's data folder is 0700" test "$(stat -c %a "$work/service")" = 700
check "its records are 0600" test "$(stat -c %a "$work/service/attachments.sqlite")" = 600
for journal in -wal -shm; do
  [ -e "$work/service/attachments.sqlite$journal" ] &&
    check "and so is $journal" test "$(stat -c %a "$work/service/attachments.sqlite$journal")" = 600
done
stop_service
chmod 755 "$work/service"
chmod 644 "$work/service/attachments.sqlite"
start_service
check "a wider data folder is tightened" test "$(stat -c %a "$work/service")" = 700
check "and wider records" test "$(stat -c %a "$work/service/attachments.sqlite")" = 600
check "with a notice" grep -q 'tightened the permissions of the data folder' "$work/service.log"
api="http://127.0.0.1:$port"

# A cloud scheme without a token says so, and how to set one, before anything is stored.
unset VELMORA_TOKEN
data="$work/data"
va() { timeout 60 "$vmattach" --data-dir "$data" "$@"; }
quiet() { "$@" >/dev/null; }
va scheme add cloud --type cloud --api "$api" >/dev/null
echo "a file" >"$work/file.txt"
va store "$work/file.txt" --scheme cloud >/dev/null 2>"$work/err"
check "a store without a token fails" test $? -ne 0
check "naming the scheme" grep -q 'no token set for scheme cloud' "$work/err"
check "and how to set one" grep -q -- '--token-file FILE' "$work/err"
check "and stores nothing" test "$(va list | wc -l)" = 0

# --token-file: one trailing newline is dropped; adding the scheme again sets the token.
printf 'sekrit\n' >"$work/token"
va scheme add cloud --type cloud --api "$api" --token-file "$work/missing" 2>"$work/err"
check "a missing token file is refused" grep -q 'cannot read the token file' "$work/err"
va scheme add cloud --type cloud --api "$api" --token x --token-file "$work/token" 2>/dev/null
check "--token and --token-file together are refused" test $? -ne 0
check "a token file sets the token" quiet va scheme add cloud --type cloud --api "$api" --token-file "$work/token"
check "with which the store succeeds" quiet va store "$work/file.txt" --scheme cloud

# VELMORA_TOKEN when neither option is given.
data="$work/data-env"
VELMORA_TOKEN=sekrit va scheme add cloud --type cloud --api "$api" >/dev/null
check "VELMORA_TOKEN sets the token" quiet va store "$work/file.txt" --scheme cloud

# A folder's private items come back private: folders 0700, files 0600, whatever the umask.
mkdir -p "$work/tree/inner"
echo private >"$work/tree/inner/secret.txt"
echo open >"$work/tree/open.txt"
chmod 700 "$work/tree/inner" && chmod 600 "$work/tree/inner/secret.txt"
id=$(va store "$work/tree" --scheme cloud)
va retrieve "$id" --to "$work/out" >/dev/null
check "the folder is retrieved" test "$(cat "$work/out/tree/inner/secret.txt")" = private
check "its folders are 0700" test "$(find "$work/out/tree" -type d ! -perm 700 | wc -l)" = 0
check "its files are 0600" test "$(find "$work/out/tree" -type f ! -perm 600 | wc -l)" = 0

finish "vmattach private"
