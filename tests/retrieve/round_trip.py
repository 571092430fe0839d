#!/usr/bin/python3
"""torvel-retrieve's round trip: a pupil model with astigmatism, coma,
spherical aberration and an apodised amplitude at NA 1.4 in oil -> torvel-psf
-> Poisson noise (peak 1e4 photons over a background of 100) -> torvel-retrieve
-> torvel, whose fit must give the model back: the phase within λ/300 RMS of
wavefront (λ/1000 without noise), piston, tilt and defocus left out; the
amplitude within 5% RMS over the disc. From MRC and from TIFF, scalar and
vector; a bead off the pixel grid gives the same pupil up to tilt; every bad
input is refused with one line, exit 1 and no output.

The model is sample/bead_model.txt, the docs' example.

With --paths-only (the sanitizer build) the accuracy runs are left out: a
short retrieval of a small stack, scalar and vector, with -psf= and -log=,
must run cleanly and give a pupil torvel fits, and the bad inputs are run.

usage: round_trip.py torvel-psf torvel-retrieve torvel bead_model.txt work_dir [--paths-only]
"""
import math
import os
import subprocess
import sys
import warnings

import mrcfile
import numpy as np
import tifffile

PSF, RETRIEVE, TORVEL, MODEL_FILE, WORK = sys.argv[1:6]
os.makedirs(WORK, exist_ok=True)
FAILURES = []

# 64 x 64 x 41 voxels of 65 nm x 150 nm, 600 nm.
GRID = ["-size=64:64:41", "-dx=65", "-dz=150", "-normalize=none"]
# 100 iterations: the error has settled by then (docs/retrieve.md), and the
# test stays quick.
OPTICS = ["-na=1.4", "-n=1.515", "-iterations=100"]


def path(name):
    return os.path.join(WORK, name)


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what)
    if not condition:
        FAILURES.append(what)


def run(args):
    return subprocess.run(args, capture_output=True, text=True)


def read_fit(name):
    """The coefficient blocks of a fit file: {block: {(n, m, 'c'|'s'): value}}."""
    blocks, current = {}, None
    for line in open(name):
        if line.startswith("#zernike_coeff_"):
            current = blocks.setdefault(line[len("#zernike_coeff_"):].strip(), {})
        elif line.startswith("#"):
            current = None
        elif current is not None:
            f = line.split()
            n, m = int(f[0]), int(f[1])
            current[(n, m, "c")] = float(f[2])
            if m > 0:
                current[(n, m, "s")] = float(f[3])
    return blocks


def phase_error_waves(a, b):
    """RMS wavefront difference of two phase series, in waves, without
    piston, tilt and defocus: the unnormalised terms' squared RMS over the
    disc is 1/(n+1) (m = 0) or 1/(2(n+1))."""
    total = 0.0
    for key in set(a) | set(b):
        n, m, _ = key
        if (n, m) in ((0, 0), (1, 1), (2, 0)):
            continue
        d = a.get(key, 0.0) - b.get(key, 0.0)
        total += d * d / ((n + 1) * (1 if m == 0 else 2))
    return math.sqrt(total) / (2 * math.pi)


def radial(n, m, rho):
    return sum((-1) ** k * math.factorial(n - k) /
               (math.factorial(k) * math.factorial((n + m) // 2 - k) * math.factorial((n - m) // 2 - k))
               * rho ** (n - 2 * k) for k in range((n - m) // 2 + 1))


def amplitude_error(a, b):
    """RMS relative difference of two amplitude series over the disc, each
    scaled to mean 1 (the retrieval does not know the bead's brightness)."""
    rho, theta = np.meshgrid(np.linspace(0, 1, 41), np.linspace(0, 2 * np.pi, 72, endpoint=False))
    def evaluate(series):
        v = np.zeros_like(rho)
        for (n, m, cs), c in series.items():
            v += c * radial(n, m, rho) * (np.cos(m * theta) if cs == "c" else np.sin(m * theta))
        return v / np.average(v, weights=rho)
    va, vb = evaluate(a), evaluate(b)
    return math.sqrt(np.average(((va - vb) / vb) ** 2, weights=rho))


def make_stack(name, model_name, extra=()):
    r = run([PSF, model_name, path(name), *GRID, *extra])
    assert r.returncode == 0, r.stderr


def add_noise(source, target, seed):
    """Poisson counts for a peak of 1e4 photons over a background of 100,
    written as an MRC file that names no wavelength (so -w= is needed)."""
    with mrcfile.open(path(source)) as f:
        clean, voxel = f.data.astype(np.float64), f.voxel_size
    counts = np.random.default_rng(seed).poisson(clean / clean.max() * 1e4 + 100)
    with mrcfile.new(path(target), overwrite=True) as f:
        f.set_data(counts.astype(np.float32))
        f.voxel_size = voxel


def tiff_to_mrc(source, target):
    """The same voxels as an MRC file that names no wavelength."""
    voxels = tifffile.imread(path(source)).astype(np.float32)
    with mrcfile.new(path(target), overwrite=True) as f:
        f.set_data(voxels.reshape(-1, voxels.shape[-2], voxels.shape[-1]))
        f.voxel_size = (0.065, 0.065, 0.15)


def retrieve_and_fit(stack, tag, options=()):
    pupil, fit = path(tag + "_pupil.mrc"), path(tag + "_fit.txt")
    r = run([RETRIEVE, path(stack), pupil, *OPTICS, *options])
    assert r.returncode == 0, r.stderr
    r = run([TORVEL, pupil, fit])
    assert r.returncode == 0, r.stdout + r.stderr
    return read_fit(fit)


def round_trips(truth):
    make_stack("scalar.tif", path("model.txt"))
    make_stack("vector.mrc", path("model.txt"), ["-model=vector"])
    add_noise("vector.mrc", "vector_noisy.mrc", 1)
    tiff_to_mrc("scalar.tif", "scalar.mrc")
    add_noise("scalar.mrc", "scalar_noisy.mrc", 2)
    # A TIFF stack names no wavelength: -w= gives it.
    cases = [("scalar.tif", "scalar_tif", ["-w=600"], 1000),
             ("scalar_noisy.mrc", "scalar_noisy", ["-w=600"], 300),
             ("vector_noisy.mrc", "vector_noisy", ["-w=600", "-model=vector"], 300)]
    fits = {}
    for stack, tag, options, fraction in cases:
        fit = retrieve_and_fit(stack, tag, options)
        fits[tag] = fit
        phase = phase_error_waves(fit["phase_0"], truth["phase_0"])
        amplitude = amplitude_error(fit["amplitude_0"], truth["amplitude_0"])
        check(phase < 1 / fraction, f"{tag}: phase within lambda/{fraction} (lambda/{1 / phase:.0f})")
        check(amplitude < 0.05, f"{tag}: amplitude within 5% ({100 * amplitude:.2f}%)")
    return fits


def off_centre(centred):
    """A bead 0.4 pixel off along x and 0.2 along y (a tilt of the model) gives
    the pupil of the centred bead up to tilt."""
    shift_x, shift_y = 0.4 * 0.065, 0.2 * 0.065
    cutoff = 1.4 / 0.6
    tilt = f"{2 * math.pi * cutoff * shift_x:.6f} {2 * math.pi * cutoff * shift_y:.6f}"
    model = open(MODEL_FILE).read()
    amplitude, phase = model.split("#zernike_coeff_phase_0")
    phase = phase.replace("  1   1 0 0", "  1   1 " + tilt, 1)
    open(path("model_off.txt"), "w").write(amplitude + "#zernike_coeff_phase_0" + phase)
    make_stack("off.tif", path("model_off.txt"))
    fit = retrieve_and_fit("off.tif", "off", ["-w=600"])
    difference = phase_error_waves(fit["phase_0"], centred["phase_0"])
    check(difference < 1 / 1000, f"off-centre bead: same pupil up to tilt (lambda/{1 / difference:.0f})")


def bad_inputs():
    """Each refused with one line naming the program, exit 1, no output."""
    flat = path("flat.mrc")
    with mrcfile.new(flat, overwrite=True) as f:
        f.set_data(np.full((9, 64, 64), 100, np.float32))
        f.voxel_size = (0.065, 0.065, 0.15)
    with mrcfile.open(path("scalar.mrc")) as f:
        good = f.data.copy()
    def stack(name, data, voxel=(0.065, 0.065, 0.15)):
        with mrcfile.new(path(name), overwrite=True) as f:
            f.set_data(data.astype(np.float32))
            f.voxel_size = voxel
        return path(name)
    edge = good.copy()
    edge[len(edge) // 2, 0, 5] = good.max() * 10
    nan = good.copy()
    nan[3, 4, 5] = np.nan
    warnings.filterwarnings("ignore", "Data array contains NaN", RuntimeWarning)
    cases = {
        "no spacing": [stack("nospacing.mrc", good, (0, 0, 0)), "-w=600"],
        "no wavelength": [path("scalar.mrc")],
        "two planes": [stack("two.mrc", good[:2]), "-w=600"],
        "all background": [flat, "-w=600"],
        "brightest voxel on the edge": [stack("edge.mrc", edge), "-w=600"],
        "NA above the index": [path("scalar.tif"), "-na=1.6", "-n=1.515", "-w=600"],
        "non-finite voxel": [stack("nan.mrc", nan), "-w=600"],
        "crop larger than the image": [path("scalar.tif"), "-size=96", "-w=600"],
        "unknown option": [path("scalar.tif"), "-w=600", "-bogus=1"],
    }
    output = path("refused.mrc")
    for what, args in cases.items():
        optics = [] if any(a.startswith("-na=") for a in args) else OPTICS
        r = run([RETRIEVE, args[0], output, *optics, *args[1:]])
        lines = r.stderr.strip().splitlines()
        check(r.returncode == 1 and len(lines) == 1 and lines[0].startswith("torvel-retrieve: ")
              and not os.path.exists(output), f"refused, one line: {what}: {r.stderr.strip()}")


def paths_only():
    r = run([PSF, path("model.txt"), path("small.mrc"), "-size=32:32:9", "-dx=65", "-dz=150"])
    assert r.returncode == 0, r.stderr
    for model in ("scalar", "vector"):
        pupil = path(model + "_small_pupil.mrc")
        r = run([RETRIEVE, path("small.mrc"), pupil, "-na=1.4", "-n=1.515", "-size=32",
                 "-iterations=5", "-model=" + model, "-psf=" + path("small_psf.tif"),
                 "-log=" + path("small_log.csv")])
        check(r.returncode == 0 and run([TORVEL, pupil, path("small_fit.txt")]).returncode == 0,
              f"{model}: a short retrieval runs and torvel fits its pupil {r.stderr.strip()}")
    r = run([PSF, path("model.txt"), path("scalar.tif"), "-size=64:64:9", "-dx=65", "-dz=150"])
    assert r.returncode == 0, r.stderr
    tiff_to_mrc("scalar.tif", "scalar.mrc")
    bad_inputs()


def main():
    open(path("model.txt"), "w").write(open(MODEL_FILE).read())
    if "--paths-only" in sys.argv:
        paths_only()
    else:
        truth = read_fit(path("model.txt"))
        fits = round_trips(truth)
        off_centre(fits["scalar_tif"])
        bad_inputs()
    if FAILURES:
        print(f"{len(FAILURES)} check(s) failed")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
