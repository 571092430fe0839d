#!/usr/bin/env bash
# Builds torvel, fits the sample pupil function image that ships with the
# project (writing a residual image too) and prints the fitted coefficients
# beside the ones the sample was made from; then reports the fit in numbers
# and draws it (out/report.png); last, the fitted model's 3D PSF (out/psf.mrc).
# Each step prints one line; the output of a failing step is shown in full.
set -euo pipefail
trap 'echo "run-sample: stopped: \"$BASH_COMMAND\" failed (status $?)" >&2' ERR
cd "$(dirname "$0")/.."
source tools/quiet.sh
bash tools/install-deps.sh
quietly "configure build/release" build/release/configure.log \
    cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTORVEL_WERROR=ON
quietly "build the programs" build/release/sample-build.log cmake --build build/release -j"$(nproc)" \
    --target torvel_cli torvel_render torvel_psf torvel_report_cli make_sample_pupil
mkdir -p out
quietly "fit sample/pupil.mrc" out/sample_fit.log \
    ./build/release/torvel sample/pupil.mrc out/sample_fit.txt -residual=out/sample_residual.mrc
echo
./build/release/make_sample_pupil --compare out/sample_fit.txt sample/model_fit.txt
echo
./build/release/torvel-report out/sample_fit.txt -image=sample/pupil.mrc \
    -residual=out/sample_residual.mrc -png=out/report.png -json=out/fit.json -csv=out/fit.csv
# The fitted model's 3D PSF, both wavelengths, as an MRC stack (docs/psf.md).
quietly "PSF stack of the fit" out/psf.log \
    ./build/release/torvel-psf out/sample_fit.txt out/psf.mrc -size=64:64:32 -dx=65 -dz=150
cat <<END

The outputs are in out/: the fit sample_fit.txt (torvel's run in sample_fit.log),
the residual image sample_residual.mrc, the report's fit.json and fit.csv, and
the PSF stack psf.mrc of the fitted model (64 x 64 x 32 voxels, 65 nm, 150 nm).
Open out/report.png to see the fitted pupil beside the measured one and the residual.
END
