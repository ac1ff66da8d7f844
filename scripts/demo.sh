#!/usr/bin/env bash
# The main job on a fresh machine: installs, builds, then stores and retrieves attachments
# with vmattach in a throw-away data folder, on the embedded defaults.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)" >/dev/null
bin=build/default

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
echo "demo finished"
