"""torvel-psf as a user runs it: the sample's stack written as MRC and TIFF
and read back by mrcfile and tifffile (the same voxels, the spacing, each
wavelength summing to 1), the normalisations, and bad command lines reported
in one run without touching an earlier file.

Use:  python3 check_psf.py TORVEL_PSF SAMPLE_MODEL WORK_FOLDER
"""
import os
import shutil
import subprocess
import sys

import mrcfile
import numpy as np
import tifffile

binary, model, work = sys.argv[1], sys.argv[2], sys.argv[3]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(work)
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED:", what)


def run(*args):
    return subprocess.run([binary, *args], capture_output=True, text=True)


def path(name):
    return os.path.join(work, name)


# The sample's two wavelengths as MRC and TIFF: the same voxels, the spacing.
grid = ["-size=64:64:32", "-dx=65", "-dz=150"]
for name in ("psf.mrc", "psf.tif"):
    r = run(model, path(name), *grid)
    check(r.returncode == 0 and r.stdout == "" and r.stderr == "", f"{name}: {r.stderr}")
with mrcfile.open(path("psf.mrc")) as f:
    mrc = np.array(f.data)
    check(mrc.shape == (64, 64, 64), f"MRC shape {mrc.shape}")
    check(np.allclose([f.voxel_size.x, f.voxel_size.y, f.voxel_size.z], [0.65, 0.65, 1.5], rtol=1e-5)
          or np.allclose([f.voxel_size.x, f.voxel_size.y, f.voxel_size.z], [0.065, 0.065, 0.15],
                         rtol=1e-5), f"MRC voxel size {f.voxel_size}")
check(mrcfile.validate(path("psf.mrc"), print_file=open(os.devnull, "w")), "mrcfile.validate")
with tifffile.TiffFile(path("psf.tif")) as f:
    tif = f.asarray()
    description = f.imagej_metadata or {}
check(tif.dtype == np.float32 and tif.size == mrc.size, f"TIFF {tif.dtype} {tif.shape}")
# ImageJ keeps the channels of a plane together (slices, channels, y, x);
# MRC one wavelength after the other.
check(tif.shape == (32, 2, 64, 64) and np.array_equal(tif.transpose(1, 0, 2, 3).reshape(mrc.shape), mrc),
      "TIFF and MRC voxels differ")
check(abs(float(description.get("spacing", 0)) - 0.15) < 1e-6 and description.get("unit") in
      ("micron", "um", "\\u00B5m"), f"ImageJ description {description}")
for w in range(2):
    total = mrc[32 * w:32 * (w + 1)].sum(dtype=np.float64)
    check(abs(total - 1) < 1e-4, f"wavelength {w} sums to {total}")
# Both wavelengths focus near the middle plane: the sample's defocus puts
# the brightest plane within a few planes of it, the same for both, as the
# phase terms scale with 1/wavelength.
peaks = [int(np.argmax(mrc[32 * w:32 * (w + 1)].max(axis=(1, 2)))) for w in range(2)]
check(abs(peaks[0] - peaks[1]) <= 1, f"brightest planes {peaks}")

# Peak and none: the same stack scaled.
r = run(model, path("peak.mrc"), *grid, "-w=0", "-normalize=peak")
r2 = run(model, path("none.mrc"), *grid, "-w=525", "-normalize=none")
check(r.returncode == 0 and r2.returncode == 0, r.stderr + r2.stderr)
with mrcfile.open(path("peak.mrc")) as f, mrcfile.open(path("none.mrc")) as g:
    peak, none = np.array(f.data), np.array(g.data)
    check(peak.max() == 1.0, f"peak normalised to {peak.max()}")
    check(np.allclose(peak, none / none.max(), rtol=1e-5, atol=1e-7), "none / max != peak")
    check(np.allclose(peak, mrc[:32] / mrc[:32].max(), rtol=1e-4, atol=1e-6), "peak != sum / max")

# Help on standard output.
r = run("--help")
check(r.returncode == 0 and r.stdout.startswith("usage: torvel-psf") and r.stderr == "",
      "--help")

# Every problem of one command line in one run; the earlier file untouched.
with open(path("keep.mrc"), "wb") as f:
    f.write(b"earlier")
r = run(model, path("keep.mrc"), "-size=4294967312", "-dx=-5", "-model=vectorial", "-normalize=max",
        "-w=9", "-drop=focus", "-colour=red")
lines = r.stderr.splitlines()
check(r.returncode == 1 and len(lines) >= 7 and all(l.startswith("torvel-psf: ") for l in lines),
      f"bad command line: {r.stderr}")
check(open(path("keep.mrc"), "rb").read() == b"earlier", "earlier file changed")
r = run(model, path("psf.png"))
check(r.returncode == 1 and ".mrc, .tif or .tiff" in r.stderr, f"extension: {r.stderr}")
r = run(model, path("keep.mrc"), "-size=32768:32768:32768")
check(r.returncode == 1 and "memory" in r.stderr and open(path("keep.mrc"), "rb").read() ==
      b"earlier", f"huge stack: {r.stderr}")

# A coefficient that is not a number.
with open(model) as f:
    text = f.read()
with open(path("nan_fit.txt"), "w") as f:
    f.write(text.replace("  2   0 9\n", "  2   0 nan\n", 1))
r = run(path("nan_fit.txt"), path("nan.mrc"))
check(r.returncode == 1 and " is nan" in r.stderr and not os.path.exists(path("nan.mrc")),
      f"non-finite coefficient: {r.stderr}")

if failures:
    sys.exit(f"{len(failures)} check(s) failed")
print("torvel-psf: all checks passed")
