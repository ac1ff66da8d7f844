#!/usr/bin/env bash
# Installs Debian packages, by what they are for:
#   install-deps.sh build   building the libraries and tools (scripts/demo.sh runs this)
#   install-deps.sh test    build, plus the test suite's tools, its real servers and the npm
#                           packages pinned in tests/support/package-lock.json
#                           (scripts/test.sh runs this; it is the default)
#   install-deps.sh docs    build, plus Doxygen for the docs target
# Safe to run again; quiet when everything is already there.
set -euo pipefail

what=${1:-test}
build_packages=(
  build-essential cmake ninja-build pkg-config git help2man
  libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libsqlite3-dev libpq-dev
  libspdlog-dev libfmt-dev libboost-dev libplist-dev libcli11-dev uuid-dev
  libsystemd-dev
)
# The tests' compilers and libraries, and the real servers they start on 127.0.0.1.
test_packages=(
  clang clang-format libclang-rt-14-dev libcpp-httplib-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev gettext man-db
  sqlite3 curl samba smbclient rclone fuse3 openssh-server openssh-client postgresql
  prometheus haproxy
)

packages=("${build_packages[@]}")
case "$what" in
  build) ;;
  test)
    packages+=("${test_packages[@]}")
    # Node.js and npm (for the S3-compatible test server) come with the machine image when
    # it has them; Debian's nodejs package only when it does not.
    command -v npm >/dev/null 2>&1 || packages+=(nodejs npm)
    ;;
  docs) packages+=(doxygen) ;;
  *)
    echo "usage: $0 [build|test|docs]" >&2
    exit 2
    ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ "$what" = test ]; then
  here=$(cd "$(dirname "$0")/.." && pwd)
  support="$here/tests/support"
  if [ -f "$support/package.json" ] && [ ! -d "$support/node_modules" ]; then
    (cd "$support" && npm ci --silent --no-audit --no-fund >/dev/null)
  fi
fi
