#!/usr/bin/env bash
# Installs, with apt-get, whichever of the packages torvel needs to build and
# test is missing. Needs root only when something is missing.
set -euo pipefail
packages=(g++ cmake make libopenblas-dev libopenblas0-serial libopenblas0-pthread liblapack3 libblas3 libgtest-dev libbenchmark-dev python3 python3-numpy python3-mrcfile)
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
