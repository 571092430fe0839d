#!/usr/bin/env bash
# Installs, with apt-get, whichever of the packages torvel needs to build and
# test is missing. Needs root only when something is missing.
set -euo pipefail
packages=(g++ cmake make pkg-config liblapack-dev libgtest-dev libbenchmark-dev libcairo2-dev
          nlohmann-json3-dev fonts-dejavu-core python3 python3-numpy python3-mrcfile)
missing=()
for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]} > 0)); then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
