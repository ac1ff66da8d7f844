#!/usr/bin/env bash
# install_test.sh BUILD_DIR SOURCE_DIR
# Installs BUILD_DIR into a scratch prefix and checks what a host application and an
# operator get: the installed headers stand alone, examples/host builds against the prefix
# with CMake and with pkg-config alone and runs against a vmcloudd from the prefix, the
# installed vmattach stores and retrieves through it, and the Debian packages unpack into
# tools that run.
set -euo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)

work=$(mktemp -d)
service=""
cleanup() {
  if [ -n "$service" ]; then
    kill "$service" 2>/dev/null || true
    wait "$service" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "install_test: $*" >&2
  exit 1
}
step() { echo "--- $*"; }

prefix=$work/prefix
step "install into a scratch prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/vmattach bin/vmcloudd share/man/man1/vmattach.1 share/man/man8/vmcloudd.8 \
  lib/cmake/VMAttachments/VMAttachmentsConfig.cmake \
  lib/cmake/VMAttachments/VMAttachmentsConfigVersion.cmake lib/pkgconfig/vmattachments.pc \
  include/vmattachments/VMAttachments/archive/VMArchiver.h \
  include/vmattachments/host/sqlite/SqliteObjectContext.h \
  include/vmattachments/BWCryptographer/BWCryptographer.h; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
man -l "$prefix/share/man/man1/vmattach.1" 2>/dev/null | grep -q -- '--data-dir' ||
  fail "vmattach(1) does not describe --data-dir"

step "installed headers"
includes=$prefix/include/vmattachments
if found=$(find "$includes" -path '*internal*' -print -quit) && [ -n "$found" ]; then
  fail "an internal header is installed: $found"
fi
if grep -rnE '#include *"(tests|bench|fuzz|tools|services)/|#include *"[^"]*internal/' "$includes"; then
  fail "an installed header includes a header that is not installed"
fi
# Every installed header compiles with the installed include folder alone: a header that
# includes one that was not installed fails here.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
(cd "$includes" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include "\1"|') >"$work/all_headers.cpp"
# shellcheck disable=SC2046
g++ -fsyntax-only "$work/all_headers.cpp" $(pkg-config --cflags vmattachments) ||
  fail "the installed headers do not compile on their own"

step "build examples/host with CMake against the prefix"
cmake -S "$source_dir/examples/host" -B "$work/example" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >"$work/example-configure.log" ||
  { cat "$work/example-configure.log"; fail "configuring the example failed"; }
cmake --build "$work/example" >"$work/example-build.log" 2>&1 ||
  { cat "$work/example-build.log"; fail "building the example failed"; }

step "build examples/host as one file with pkg-config"
# shellcheck disable=SC2046
g++ "$source_dir/examples/host/main.cpp" $(pkg-config --cflags --libs vmattachments) \
  -o "$work/example-pc" || fail "the pkg-config build failed"

step "run both against the installed vmcloudd"
token=install-test-token
"$prefix/bin/vmcloudd" --listen 127.0.0.1:0 --data "$work/service" --token "$token" \
  >"$work/vmcloudd.out" 2>"$work/vmcloudd.log" &
service=$!
for _ in $(seq 100); do
  grep -q '^listening on' "$work/vmcloudd.out" 2>/dev/null && break
  kill -0 "$service" 2>/dev/null || { cat "$work/vmcloudd.log"; fail "vmcloudd did not start"; }
  sleep 0.1
done
address=$(sed -n 's/^listening on //p' "$work/vmcloudd.out")
[ -n "$address" ] || fail "vmcloudd did not say where it listens"
api=http://$address
# A shared build's libraries are found through the prefix (the CMake build records them).
export LD_LIBRARY_PATH=$prefix/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
"$work/example/vm_example_host" "$work/run-cmake" "$api" "$token" || fail "the CMake-built example failed"
"$work/example-pc" "$work/run-pc" "$api" "$token" || fail "the pkg-config-built example failed"

step "the installed vmattach stores and retrieves through the installed vmcloudd"
vmattach() { "$prefix/bin/vmattach" --data-dir "$work/vmattach-data" "$@"; }
vmattach init >/dev/null
vmattach scheme add cloud --type cloud --api "$api" --token "$token" >/dev/null
head -c 200000 /dev/urandom >"$work/scan.bin"
id=$(vmattach store "$work/scan.bin" --scheme cloud 2>/dev/null)
mkdir "$work/retrieved"
vmattach retrieve "$id" --to "$work/retrieved" >/dev/null 2>&1 || fail "vmattach retrieve failed"
cmp "$work/scan.bin" "$work/retrieved/scan.bin" || fail "vmattach retrieved other bytes"

step "cpack -G DEB, unpacked with dpkg-deb -x"
(cd "$build" && cpack -G DEB -B "$work/debs" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
tools_deb=$(find "$work/debs" -maxdepth 1 -name 'vmattachments_*.deb')
dev_deb=$(find "$work/debs" -maxdepth 1 -name 'vmattachments-dev_*.deb')
if [ -z "$tools_deb" ] || [ -z "$dev_deb" ]; then
  fail "expected vmattachments and vmattachments-dev packages"
fi
dpkg-deb -f "$tools_deb" Depends >"$work/depends"
grep -q libc6 "$work/depends" || fail "the tools package names no run-time dependencies"
dpkg-deb -c "$dev_deb" >"$work/dev-contents"
for f in usr/lib/pkgconfig/vmattachments.pc usr/lib/cmake/VMAttachments/VMAttachmentsConfig.cmake \
  usr/include/vmattachments/VMAttachments/archive/VMArchiver.h usr/lib/libvm_attachments.a; do
  grep -q "$f" "$work/dev-contents" || fail "vmattachments-dev lacks $f"
done
root=$work/root
dpkg-deb -x "$tools_deb" "$root"
dpkg-deb -x "$dev_deb" "$root"
export LD_LIBRARY_PATH=$root/usr/lib:$LD_LIBRARY_PATH
"$root/usr/bin/vmattach" --data-dir "$work/deb-data" init >/dev/null || fail "the packaged vmattach does not run"
"$root/usr/bin/vmcloudd" --help | grep -q -- '--listen' || fail "the packaged vmcloudd does not run"
echo "install test passed"
