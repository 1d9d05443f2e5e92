#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is missing. Silent when all are
# there; safe to run again.
set -euo pipefail

packages=(cmake ninja-build g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev python3
          libexpat1-dev libxml2-dev libxml2-utils libboost-dev libssl-dev libcrypt-dev libsqlite3-dev
          libpq-dev postgresql)
if [[ "${MORPHEL_SETUP_EXTRA:-}" != "" ]]; then
    read -r -a extra <<<"$MORPHEL_SETUP_EXTRA"
    packages+=("${extra[@]}")
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "setup: installing ${missing[*]}" >&2
sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq >/dev/null
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
