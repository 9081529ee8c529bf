#!/usr/bin/env bash
# Installs the Debian packages the build needs.  With --if-missing it does
# nothing when they are all present, so `make test` stays quick.
set -euo pipefail
packages=(cmake make g++ clang libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libsqlite3-dev
  pybind11-dev python3-dev python3-pytest)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ "${1:-}" = "--if-missing" ] && [ ${#missing[@]} -eq 0 ]; then exit 0; fi
[ ${#missing[@]} -eq 0 ] && { echo "all build packages are installed"; exit 0; }
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
