#!/usr/bin/env bash
# Installs what building and testing ndmpc needs on Debian, skipping what is
# already there. Runs as root, or through sudo when that is available.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-dev libgtest-dev libgmock-dev libbenchmark-dev
          libsqlite3-dev openssl rpcsvc-proto libtirpc-dev)
if [ "${1:-}" = "--tests" ]; then
  # Independent NDMP peers the interop and wire-conformance suites run against.
  packages+=(tshark amanda-server)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# tshark asks whether non-root users may capture; the answer does not matter here.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $sudo debconf-set-selections || true
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
