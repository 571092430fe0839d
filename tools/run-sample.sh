#!/usr/bin/env bash
# Builds torvel, fits the sample pupil function image that ships with the
# project (writing a residual image too) and prints the fitted coefficients
# beside the ones the sample was made from; then reports the fit in numbers
# and draws it (out/report.png).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTORVEL_WERROR=ON >/dev/null
cmake --build build/release -j"$(nproc)" --target torvel_cli torvel_render torvel_report_cli make_sample_pupil
mkdir -p out
./build/release/torvel sample/pupil.mrc out/sample_fit.txt -residual=out/sample_residual.mrc
echo
./build/release/make_sample_pupil --compare out/sample_fit.txt sample/model_fit.txt
echo
./build/release/torvel-report out/sample_fit.txt -image=sample/pupil.mrc \
    -residual=out/sample_residual.mrc -png=out/report.png -json=out/fit.json -csv=out/fit.csv
