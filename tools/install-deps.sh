#!/usr/bin/env bash
# Installs, with apt-get, whichever of the packages torvel needs to build and
# test is missing, and any packages named as arguments. Needs root only when
# something is missing. apt-get's output goes to build/install-deps.log and is
# shown only when it fails.
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/quiet.sh
# OpenBLAS, in its OpenMP build, is the LAPACK torvel links; the reference
# LAPACK and the other OpenBLAS builds are there for the test that results do
# not depend on the build. Making the Debian packages needs file and dpkg-dev
# (dpkg-shlibdeps, dpkg-buildflags); their test needs lintian. pybind11,
# Python's headers and pytest build and test the Python module.
packages=(g++ cmake make libopenblas-openmp-dev libopenblas0-serial libopenblas0-pthread liblapack3
          libblas3 libgtest-dev libbenchmark-dev python3 python3-numpy python3-mrcfile pkgconf
          man-db groff-base libcairo2-dev nlohmann-json3-dev fonts-dejavu-core libfftw3-dev libtiff-dev
          python3-tifffile file dpkg-dev lintian pybind11-dev python3-dev python3-pytest "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]} > 0)); then
    export DEBIAN_FRONTEND=noninteractive
    quietly "installing ${missing[*]}" build/install-deps.log sh -c \
        'apt-get update && apt-get install -y --no-install-recommends "$@"' sh "${missing[@]}"
fi
