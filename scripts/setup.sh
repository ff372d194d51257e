#!/usr/bin/env bash
# Installs what is missing to build and test, as Debian packages, as root or through sudo.
set -euo pipefail

packages=(
  g++ clang cmake ninja-build ccache git python3 openssl perl iproute2 nftables
  libace-dev libomniorb4-dev omniidl omniorb-idl omniorb libssl-dev
  libcli11-dev nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev
  libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup.sh: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
