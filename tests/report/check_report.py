#!/usr/bin/env python3
"""torvel-report against answers planted in fit files and computed here
independently: figures of merit from the definitions on a fine grid (numpy),
the Noll and OSA/ANSI indices of the first 36 terms from the published
tables, the JSON and CSV read back against the fit file, and the PNG decoded
with the disc where the layout puts it.

usage: check_report.py torvel-report torvel pupil.mrc work_dir
"""
import csv
import ctypes
import ctypes.util
import json
import math
import os
import subprocess
import sys

import numpy as np

REPORT, TORVEL, PUPIL, WORK = sys.argv[1:5]
os.makedirs(WORK, exist_ok=True)
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def close(a, b, rel, what):
    check(abs(a - b) <= rel * abs(b) + 1e-9, f"{what}: {a} != {b}")


def fit_file(name, wavelengths_um, phase_set, phase_terms, amplitude_set=(0, 0),
             amplitude_terms=None):
    """Writes a fit file; *_terms[w] maps (n, m) to a value or a (cos, sin) pair."""
    lines = ["#parametric_pupil_format 0", "#numerical_aperture 1.400",
             "#immersion_refractive_index 1.51500", "#lens_id 3",
             "#zernike_set_for_amplitude %d %d" % amplitude_set,
             "#zernike_set_for_phase %d %d" % phase_set,
             "#polar_fourier_set_for_amplitude -1 -1", "#polar_fourier_set_for_phase -1 -1",
             "#wavelength_count %d" % len(wavelengths_um),
             "#wavelengths_um " + " ".join("%f" % w for w in wavelengths_um)]

    def block(header, n_top, m_top, terms):
        lines.append(header)
        for n in range(n_top + 1):
            for m in range(n % 2, (n if n < n_top else m_top) + 1, 2):
                v = terms.get((n, m), 0.0 if m == 0 else (0.0, 0.0))
                lines.append("%3d %3d " % (n, m) + (repr(v) if m == 0 else "%r %r" % v))

    for w in range(len(wavelengths_um)):
        block("#zernike_coeff_amplitude_%d" % w, *amplitude_set,
              (amplitude_terms or [{(0, 0): 1.0}] * len(wavelengths_um))[w])
        block("#zernike_coeff_phase_%d" % w, *phase_set, phase_terms[w])
    path = os.path.join(WORK, name)
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
    return path


def run(*args):
    return subprocess.run([REPORT, *args], capture_output=True, text=True)


# ---- figures of merit: only defocus, then only spherical aberration ----------
# On a fine grid of the unit disc, from the definitions: the wavefront with
# piston and tilt (and defocus) removed by least squares, its RMS and P-V; the
# Strehl estimate exp(-sigma^2); the amplitude's mean and relative RMS.
grid = np.linspace(-1.0, 1.0, 2001)
x, y = np.meshgrid(grid, grid)
inside = x * x + y * y <= 1.0
x, y = x[inside], y[inside]
r2 = x * x + y * y


def removed(w, with_defocus):
    basis = [np.ones_like(x), x, y] + ([2 * r2 - 1] if with_defocus else [])
    a = np.stack(basis, axis=1)
    return w - a @ np.linalg.solve(a.T @ a, a.T @ w)


amplitude = 0.8 - 0.05 * (2 * r2 - 1) + 0.02 * (x * x - y * y)  # 0.8 R00 - 0.05 R20 + 0.02 R22 cos
for label, phase_terms, w_of in [
        ("defocus", {(0, 0): 0.7, (1, 1): (0.3, -0.2), (2, 0): 1.3}, lambda: 1.3 * (2 * r2 - 1)),
        ("spherical", {(4, 0): -0.9}, lambda: -0.9 * (6 * r2 * r2 - 6 * r2 + 1))]:
    path = fit_file(label + ".txt", [0.55], (4, 0), [phase_terms], (2, 2),
                    [{(0, 0): 0.8, (2, 0): -0.05, (2, 2): (0.02, 0.0)}])
    out_json = os.path.join(WORK, label + ".json")
    result = run(path, "-json=" + out_json)
    check(result.returncode == 0, f"{label}: exit {result.returncode}: {result.stderr}")
    m = json.load(open(out_json))["fits"][0]["wavelengths"][0]["metrics"]
    w = w_of() + 0.7 + 0.3 * x - 0.2 * y if label == "defocus" else w_of()
    for suffix, with_defocus in (("", False), ("_nodefocus", True)):
        rest = removed(w, with_defocus)
        sigma = math.sqrt(np.mean(rest ** 2))
        close(m["rms" + suffix + "_rad"], sigma, 2e-3, f"{label} rms{suffix}")
        close(m["rms" + suffix + "_nm"], sigma / (2 * math.pi) * 550, 2e-3,
              f"{label} rms{suffix} nm")
        close(m["pv" + suffix + "_nm"], (rest.max() - rest.min()) / (2 * math.pi) * 550, 2e-3,
              f"{label} pv{suffix} nm")
        close(m["strehl" + suffix], math.exp(-sigma ** 2), 2e-3, f"{label} strehl{suffix}")
    close(m["mean_amplitude"], np.mean(amplitude), 1e-4, f"{label} mean amplitude")
    close(m["amplitude_relative_rms"], np.std(amplitude) / np.mean(amplitude), 2e-3,
          f"{label} amplitude relative rms")

# ---- indices of the first 36 terms, JSON and CSV against the fit file ----------
# Noll (J. Opt. Soc. Am. 66, 207 (1976)): j -> (n, m), m < 0 for the sine term.
NOLL = [(0, 0), (1, 1), (1, -1), (2, 0), (2, -2), (2, 2), (3, -1), (3, 1), (3, -3), (3, 3),
        (4, 0), (4, 2), (4, -2), (4, 4), (4, -4), (5, 1), (5, -1), (5, 3), (5, -3), (5, 5),
        (5, -5), (6, 0), (6, -2), (6, 2), (6, -4), (6, 4), (6, -6), (6, 6), (7, -1), (7, 1),
        (7, -3), (7, 3), (7, -5), (7, 5), (7, -7), (7, 7)]
# OSA/ANSI Z80.28 from 0: j -> (n, m).
OSA = [(0, 0), (1, -1), (1, 1), (2, -2), (2, 0), (2, 2), (3, -3), (3, -1), (3, 1), (3, 3),
       (4, -4), (4, -2), (4, 0), (4, 2), (4, 4), (5, -5), (5, -3), (5, -1), (5, 1), (5, 3),
       (5, 5), (6, -6), (6, -4), (6, -2), (6, 0), (6, 2), (6, 4), (6, 6), (7, -7), (7, -5),
       (7, -3), (7, -1), (7, 1), (7, 3), (7, 5), (7, 7)]
rng = np.random.default_rng(7)
wavelengths = [0.525, 0.617]
terms = [{(n, m): (float(rng.normal()) if m == 0 else (float(rng.normal()), float(rng.normal())))
          for n in range(8) for m in range(n % 2, n + 1, 2)} for _ in wavelengths]
full = fit_file("full.txt", wavelengths, (7, 7), terms)
out_json, out_csv = os.path.join(WORK, "full.json"), os.path.join(WORK, "full.csv")
result = run(full, "-json=" + out_json, "-csv=" + out_csv)
check(result.returncode == 0, f"full: exit {result.returncode}: {result.stderr}")
doc = json.load(open(out_json))
for key in ("basis", "rms_normalised", "theta", "phase_sign", "units", "noll", "osa_ansi"):
    check(key in doc["conventions"], f"JSON conventions lack {key}")
fit = doc["fits"][0]
check(fit["numerical_aperture"] == 1.4, "NA")
rows = [r for r in csv.DictReader(line for line in open(out_csv) if not line.startswith("#"))]
check(len(rows) == 2 * (36 + 1), f"CSV rows {len(rows)}")
for w, wave in enumerate(fit["wavelengths"]):
    check(wave["wavelength_nm"] == wavelengths[w] * 1000, f"wavelength {w}")
    phase = wave["phase"]
    check(len(phase) == 36, f"{len(phase)} phase terms")
    csv_phase = [r for r in rows if r["wavelength_index"] == str(w) and r["quantity"] == "phase"]
    for t, row in zip(phase, csv_phase):
        signed = (t["n"], -t["m"] if t["part"] == "sin" else t["m"])
        check(NOLL[t["noll"] - 1] == signed, f"Noll {t['noll']} given to {signed}")
        check(OSA[t["osa_ansi"]] == signed, f"OSA {t['osa_ansi']} given to {signed}")
        stored = terms[w][(t["n"], t["m"])]
        value = stored if t["m"] == 0 else stored[0 if t["part"] == "cos" else 1]
        check(t["value_rad"] == value, f"JSON {signed}: {t['value_rad']} != {value}")
        check(float(row["value"]) == value and row["noll"] == str(t["noll"]), f"CSV {signed}")
        norm = math.sqrt((1.0 if t["m"] == 0 else 0.5) / (t["n"] + 1))
        close(t["rms_normalised_nm"], value * norm / (2 * math.pi) * wave["wavelength_nm"],
              1e-12, f"rms-normalised {signed}")
    check(sorted(t["noll"] for t in phase) == list(range(1, 37)), "Noll indices not 1..36")

# ---- the figure: size, disc and orientation --------------------------------------


def read_png(path):
    """Decodes a PNG with cairo's own reader: width, height and a pixel(x, y)
    giving (r, g, b)."""
    cairo = ctypes.CDLL(ctypes.util.find_library("cairo"))
    cairo.cairo_image_surface_create_from_png.restype = ctypes.c_void_p
    cairo.cairo_image_surface_get_data.restype = ctypes.POINTER(ctypes.c_uint8)
    for f in ("create_from_png", "get_data", "get_width", "get_height", "get_stride"):
        getattr(cairo, "cairo_image_surface_" + f).argtypes = [ctypes.c_void_p] if f != \
            "create_from_png" else [ctypes.c_char_p]
    cairo.cairo_surface_status.argtypes = [ctypes.c_void_p]
    surface = cairo.cairo_image_surface_create_from_png(path.encode())
    check(cairo.cairo_surface_status(surface) == 0, "PNG does not decode")
    width = cairo.cairo_image_surface_get_width(surface)
    height = cairo.cairo_image_surface_get_height(surface)
    stride = cairo.cairo_image_surface_get_stride(surface)
    data = bytes(cairo.cairo_image_surface_get_data(surface)[:stride * height])
    # Native-endian 32-bit pixels, blue in the lowest byte on this little-endian machine.
    return width, height, lambda x, y: tuple(data[y * stride + 4 * x + 2 - k] for k in range(3))


tilt = fit_file("tilt.txt", [0.5], (1, 1), [{(1, 1): (1.0, 1.0)}])
png = os.path.join(WORK, "tilt.png")
result = run(tilt, "-png=" + png)
check(result.returncode == 0, f"png: exit {result.returncode}: {result.stderr}")
width, height, pixel = read_png(png)
# docs/report.md: the fit alone is one row of three 316-pixel panels, 980 x 406.
check((width, height) == (980, 406), f"PNG size {width} x {height}")
white = (255, 255, 255)
for panel in range(2):  # amplitude, phase: discs of radius 110 centred at (142 + 316 k, 232)
    cx, cy = 142 + 316 * panel, 232
    for dx, dy in ((0, 0), (100, 0), (-100, 0), (0, 100), (0, -100)):
        check(pixel(cx + dx, cy + dy) != white, f"panel {panel}: ({dx}, {dy}) from the centre")
    for dx, dy in ((105, 105), (-105, 105), (105, -105), (-105, -105)):
        check(pixel(cx + dx, cy + dy) == white, f"panel {panel}: corner ({dx}, {dy})")
# Phase R11 cos + R11 sin rises towards +x and +y: right brighter than left,
# top (y up) brighter than bottom; viridis's green channel rises monotonically.
green = lambda dx, dy: pixel(458 + dx, 232 + dy)[1]
check(green(90, 0) > green(-90, 0) + 60, "phase does not rise towards +x (right)")
check(green(0, -90) > green(0, 90) + 60, "phase does not rise towards +y (up)")

# The fit of a pupil image drawn beside the image and the residual torvel wrote:
# with two rows of four panels per wavelength.
fitted, residual = os.path.join(WORK, "pupil_fit.txt"), os.path.join(WORK, "residual.mrc")
result = subprocess.run([TORVEL, PUPIL, fitted, "-residual=" + residual], capture_output=True)
check(result.returncode == 0, "torvel could not fit " + PUPIL)
png = os.path.join(WORK, "pupil.png")
result = run(fitted, "-image=" + PUPIL, "-residual=" + residual, "-png=" + png)
check(result.returncode == 0, f"image and residual: exit {result.returncode}: {result.stderr}")
count = sum(1 for line in open(fitted) if line.startswith("#zernike_coeff_phase_"))
width, height, pixel = read_png(png)
check((width, height) == (4 * 316 + 32, 106 + count * (34 + 2 * 266)),
      f"figure with image and residual: {width} x {height}")

# ---- messages -------------------------------------------------------------------
bad = os.path.join(WORK, "bad.txt")
with open(bad, "w") as f:
    f.write("#parametric_pupil_format 0\n#numerical_aperture -1\n")
result = run(bad, tilt, "-json=" + os.path.join(WORK, "never.json"))
check(result.returncode == 1 and tilt in result.stdout, "bad file: exit or table")
check(result.stderr.startswith(f"torvel-report: {bad}:2:20: invalid value"), result.stderr)
check(not os.path.exists(os.path.join(WORK, "never.json")), "output written despite a bad file")
result = run(tilt, "-image=" + PUPIL, "-png=" + png)
check(result.returncode == 1 and "nm do not match 500 nm of " + tilt in result.stderr,
      f"image mismatch: {result.stderr}")

# ---- hostile fit files ------------------------------------------------------------
# A real-sized fit of order 70 is reported at once (the series cost O(n^2) a
# point), a NaN or an overflowing coefficient is refused in one line with no
# output written, and a name that is not UTF-8 is escaped in JSON and figure.
rng = np.random.default_rng(70)
terms = {(n, m): (rng.normal(0, 0.3 / (n + 1)) if m == 0 else
                  tuple(rng.normal(0, 0.3 / (n + 1), 2)))
         for n in range(71) for m in range(n % 2, n + 1, 2)}
order70 = fit_file("order70.txt", [0.525, 0.617], (70, 70), [terms, terms])
outputs = [os.path.join(WORK, "o70." + ext) for ext in ("json", "png")]
result = run(order70, "-json=" + outputs[0], "-png=" + outputs[1])
check(result.returncode == 0 and all(map(os.path.exists, outputs)),
      f"order 70: exit {result.returncode}: {result.stderr}")
for value, message in (("nan", "is nan"), ("1e308", "add up to 1e+308")):
    hostile = fit_file(value + ".txt", [0.5], (2, 0), [{(2, 0): float(value)}])
    never = os.path.join(WORK, "never.json")
    result = run(hostile, "-json=" + never)
    check(result.returncode == 1 and message in result.stderr.splitlines()[0]
          and not os.path.exists(never), f"{value} coefficient: {result.stderr}")
odd_name = os.path.join(WORK.encode(), b"tilt-caf\xe9.txt")
with open(tilt, "rb") as f, open(odd_name, "wb") as g:
    g.write(f.read())
json_path, png = os.path.join(WORK, "odd.json"), os.path.join(WORK, "odd.png")
result = subprocess.run([REPORT.encode(), odd_name, b"-json=" + json_path.encode(),
                         b"-png=" + png.encode()], capture_output=True)
check(result.returncode == 0, f"name not UTF-8: exit {result.returncode}: {result.stderr}")
with open(json_path) as f:
    check(json.load(f)["fits"][0]["file"].endswith("tilt-caf\\xE9.txt"), "name not escaped")
width, height, pixel = read_png(png)
check(pixel(142, 232) != white, "figure of a name not UTF-8 not drawn")

for failure in failures:
    print("FAIL:", failure)
sys.exit(1 if failures else 0)
