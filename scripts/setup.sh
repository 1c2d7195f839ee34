#!/usr/bin/env bash
# Installs what building, running and testing assetman needs on Debian 12.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config clang-format
  liblua5.1-0-dev lua5.1 luajit libtolua++5.1-dev lua-busted lua-cjson
  libboost-thread-dev libssl-dev libkmod-dev librpm-dev libsqlite3-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev libzip-dev libcurl4-openssl-dev clang ccache
  rpm db5.3-util kmod systemd iproute2 procps passwd login cron debsums python3-psutil facter strace
  zip unzip default-jdk-headless python3-venv golang-go
  dpkg-dev fakeroot lintian file bc python3-jsonschema clickhouse-server clickhouse-client
  nginx apache2 redis-server memcached podman runc uidmap slirp4netns fuse-overlayfs
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f '${db:Status-Abbrev}' "$p" 2>/dev/null | grep -q '^ii' || missing+=("$p")
done
# npm fetches the CycloneDX schema; a Node.js from elsewhere may bring its own.
command -v npm >/dev/null 2>&1 || missing+=(npm)
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
