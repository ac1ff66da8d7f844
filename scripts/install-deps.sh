#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need: Debian packages and the
# npm packages pinned in tests/support/package-lock.json. Safe to run again; quiet when
# everything is already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git clang clang-format libclang-rt-14-dev
  libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libsqlite3-dev sqlite3
  libspdlog-dev libfmt-dev libboost-dev libplist-dev libcpp-httplib-dev libcli11-dev
  uuid-dev googletest libgtest-dev libgmock-dev libbenchmark-dev gettext
  curl samba smbclient rclone fuse3 openssh-server openssh-client libpq-dev postgresql
)
# Node.js and npm (for the S3-compatible test server) come with the machine image when it
# has them; Debian's nodejs package only when it does not.
command -v npm >/dev/null 2>&1 || packages+=(nodejs npm)

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

here=$(cd "$(dirname "$0")/.." && pwd)
support="$here/tests/support"
if [ -f "$support/package.json" ] && [ ! -d "$support/node_modules" ]; then
  (cd "$support" && npm ci --silent --no-audit --no-fund >/dev/null)
fi
