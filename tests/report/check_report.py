#!/usr/bin/env python3
"""torvel-report against answers planted in fit files and computed here
independently: figures of merit from the definitions on a fine grid (numpy),
best focus of a real focus shift rendered and fitted again, the Noll and
OSA/ANSI indices of the first 36 terms from the published tables, the JSON
and CSV read back against the fit file, the PNG decoded with the disc where
the layout puts it and the PSF at best focus peaking in its centre, and the example of docs/report.md against the program's
output on the sample.

usage: check_report.py torvel-report torvel torvel-render pupil.mrc work_dir
"""
import csv
import ctypes
import ctypes.util
import json
import math
import os
import re
import subprocess
import sys

import numpy as np

REPORT, TORVEL, RENDER, PUPIL, WORK = map(os.path.abspath, sys.argv[1:6])
DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs")
os.makedirs(WORK, exist_ok=True)
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def close(a, b, rel, what):
    check(abs(a - b) <= rel * abs(b) + 1e-9, f"{what}: {a} != {b}")


def fit_file(name, wavelengths_um, phase_set, phase_terms, amplitude_set=(0, 0),
             amplitude_terms=None, na=1.4, n_imm=1.515):
    """Writes a fit file; *_terms[w] maps (n, m) to a value or a (cos, sin) pair."""
    lines = ["#parametric_pupil_format 0", "#numerical_aperture %.3f" % na,
             "#immersion_refractive_index %.5f" % n_imm, "#lens_id 3",
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


def run(*args, cwd=None):
    return subprocess.run([REPORT, *args], capture_output=True, text=True, cwd=cwd)


def focus_path(na, n_imm, r2):
    """sqrt(n^2 - NA^2 rho^2): the phase of a focus shift dz is -2 pi dz times this / lambda,
    for a field at z of the integral of pupil(k) exp(2 pi i (k.x + kz z)), kz the path / lambda."""
    return np.sqrt(n_imm * n_imm - na * na * r2)


# ---- figures of merit: only defocus, then only spherical aberration ----------
# On a fine grid of the unit disc, from the definitions: the wavefront with
# piston and tilt (and defocus) removed by least squares, its RMS and P-V; the
# Strehl estimate exp(-sigma^2); the amplitude's mean and relative RMS.
grid = np.linspace(-1.0, 1.0, 2001)
x, y = np.meshgrid(grid, grid)
inside = x * x + y * y <= 1.0
x, y = x[inside], y[inside]
r2 = x * x + y * y


def removed(w, extra=None):
    """w less its least-squares fit by piston, tilt and extra; and the fit's coefficients."""
    a = np.stack([np.ones_like(x), x, y] + ([extra] if extra is not None else []), axis=1)
    coefficients = np.linalg.solve(a.T @ a, a.T @ w)
    return w - a @ coefficients, coefficients


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
    # Best focus: piston, tilt and the phase of a focus shift of 1 um at 0.55 um.
    focus = -2 * math.pi * focus_path(1.4, 1.515, r2) / 0.55
    for suffix, extra in (("", None), ("_paraxial_nodefocus", 2 * r2 - 1),
                          ("_best_focus", focus)):
        rest, coefficients = removed(w, extra)
        sigma = math.sqrt(np.mean(rest ** 2))
        close(m["rms" + suffix + "_nm"], sigma / (2 * math.pi) * 550, 2e-3,
              f"{label} rms{suffix} nm")
        close(m["pv" + suffix + "_nm"], (rest.max() - rest.min()) / (2 * math.pi) * 550, 2e-3,
              f"{label} pv{suffix} nm")
        close(m["strehl" + suffix], math.exp(-sigma ** 2), 2e-3, f"{label} strehl{suffix}")
    close(m["rms_rad"], math.sqrt(np.mean(removed(w)[0] ** 2)), 2e-3, f"{label} rms rad")
    close(m["focus_shift_um"], coefficients[3], 2e-3, f"{label} focus shift")
    c20 = 1.3 if label == "defocus" else 0.0
    close(m["focus_shift_paraxial_um"], c20 * 0.55 / (math.pi * (1.515 - math.sqrt(1.515 ** 2 - 1.96))),
          1e-9, f"{label} paraxial focus shift")
    close(m["mean_amplitude"], np.mean(amplitude), 1e-4, f"{label} mean amplitude")
    close(m["amplitude_relative_rms"], np.std(amplitude) / np.mean(amplitude), 2e-3,
          f"{label} amplitude relative rms")

# ---- a real focus shift, rendered and fitted again ------------------------------
# The phase -2 pi dz sqrt(n^2 - NA^2 rho^2) / lambda fitted here to order 12 by least
# squares, rendered by torvel-render, fitted by torvel and reported: best focus must
# give dz back and leave less than 0.5 nm; at NA 0.3 in air the paraxial R_2^0
# variant must agree with it within 1%. And the sign: the field at z of the fitted
# phase, the integral of pupil(k) exp(2 pi i kz z), must be brightest on the axis at
# z = dz.
def radial(n, rho):
    return sum((-1) ** s * math.factorial(n - s) / (math.factorial(s) * math.factorial(n // 2 - s)
               ** 2) * rho ** (n - 2 * s) for s in range(n // 2 + 1))


u = (np.arange(20000) + 0.5) / 20000  # rho^2: the disc's mean is the mean over u
for name, na, n_imm, shifts in (("oil", 1.4, 1.515, [(0.5, 0.8), (0.6, -0.5)]),
                                ("air", 0.3, 1.0, [(0.5, 2.0)])):
    basis = np.stack([radial(k, np.sqrt(u)) for k in range(0, 13, 2)], axis=1)
    terms = []
    for lam, dz in shifts:
        phase = -2 * math.pi * dz * focus_path(na, n_imm, u) / lam
        c = np.linalg.lstsq(basis, phase, rcond=None)[0]
        terms.append({(k, 0): float(c[k // 2]) for k in range(0, 13, 2)})
        terms[-1][(2, 2)] = (0.5, 0.0) if name == "air" else (0.0, 0.0)
    model = fit_file(f"focus_{name}.txt", [lam for lam, _ in shifts], (12, 0), terms, na=na,
                     n_imm=n_imm)
    image, refit = os.path.join(WORK, f"focus_{name}.mrc"), os.path.join(WORK, f"refit_{name}.txt")
    for command in ([RENDER, model, image, "-form=real"],
                    [TORVEL, image, refit, "-zernike_phase=12:0", "-zernike_amp=0"]):
        result = subprocess.run(command, capture_output=True, text=True)
        check(result.returncode == 0, f"{command[0]}: {result.stderr}")
    out_json = os.path.join(WORK, f"focus_{name}.json")
    result = run(refit, "-json=" + out_json)
    check(result.returncode == 0, f"focus {name}: exit {result.returncode}: {result.stderr}")
    for (lam, dz), wave in zip(shifts, json.load(open(out_json))["fits"][0]["wavelengths"]):
        m = wave["metrics"]
        what = f"{name} at {lam} um"
        close(m["focus_shift_um"], dz, 1e-3, what + ": focus shift")
        if name == "oil":
            check(m["rms_best_focus_nm"] < 0.5, f"{what}: {m['rms_best_focus_nm']} nm at best focus")
        else:
            close(m["focus_shift_paraxial_um"], m["focus_shift_um"], 1e-2, what + ": paraxial shift")
            close(m["rms_paraxial_nodefocus_nm"], m["rms_best_focus_nm"], 1e-2, what + ": paraxial rms")
        fitted = sum(t["value_rad"] * radial(t["n"], np.sqrt(u)) for t in wave["phase"] if t["m"] == 0)
        z = dz + np.linspace(-0.2, 0.2, 401)
        axial = [abs(np.mean(np.exp(1j * (fitted + 2 * math.pi * zz * focus_path(na, n_imm, u) / lam))))
                 for zz in z]
        check(abs(z[int(np.argmax(axial))] - dz) <= 2e-3, what + ": not brightest on the axis at dz")

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
# docs/report.md: the fit alone is a row of amplitude, phase and best focus, then one of
# the two PSF sections and the notes, in 340 x 292-pixel cells: 1052 x 740.
check((width, height) == (1052, 740), f"PNG size {width} x {height}")
white = (255, 255, 255)
for panel in range(2):  # amplitude, phase: discs of radius 110 centred at (166 + 340 k, 232)
    cx, cy = 166 + 340 * panel, 232
    for dx, dy in ((0, 0), (100, 0), (-100, 0), (0, 100), (0, -100)):
        check(pixel(cx + dx, cy + dy) != white, f"panel {panel}: ({dx}, {dy}) from the centre")
    for dx, dy in ((105, 105), (-105, 105), (105, -105), (-105, -105)):
        check(pixel(cx + dx, cy + dy) == white, f"panel {panel}: corner ({dx}, {dy})")
# Phase R11 cos + R11 sin rises towards +x and +y: right brighter than left,
# top (y up) brighter than bottom; viridis's green channel rises monotonically.
green = lambda dx, dy: pixel(506 + dx, 232 + dy)[1]
check(green(90, 0) > green(-90, 0) + 60, "phase does not rise towards +x (right)")
check(green(0, -90) > green(0, 90) + 60, "phase does not rise towards +y (up)")

# The PSF at best focus of a pure focus shift of 0.8 um at NA 1.4 (fitted to order 12
# as above) with a tilt that would move the spot by 0.3 um: the best-focus plane (x-y,
# centred at (166, 524)) and the x-z section (centred at (506, 524), z up) peak in their
# centres, where viridis is brightest; the spot is darker 0.4 um off axis and at the
# first axial minimum, 0.6 um off focus, and the x-z section is symmetric about focus.
phase = -2 * math.pi * 0.8 * focus_path(1.4, 1.515, u) / 0.5
c = np.linalg.lstsq(basis, phase, rcond=None)[0]
terms = {(k, 0): float(c[k // 2]) for k in range(0, 13, 2)}
terms[(1, 1)] = (6.0, -4.0)
png = os.path.join(WORK, "focus.png")
result = run(fit_file("focus.txt", [0.5], (12, 0), [terms]), "-png=" + png)
check(result.returncode == 0, f"focus png: exit {result.returncode}: {result.stderr}")
pixel = read_png(png)[2]
for cx, what in ((166, "x-y"), (506, "x-z")):
    check(pixel(cx, 524)[1] >= 225, f"PSF {what} not brightest in its centre: {pixel(cx, 524)}")
for x, y, what in ((166 + 30, 524, "x-y at +x"), (166, 524 + 30, "x-y at -y"),
                   (506 - 30, 524, "x-z at -x"), (506, 524 - 40, "x-z above focus"),
                   (506, 524 + 40, "x-z below focus")):
    check(pixel(x, y)[1] < 200, f"PSF {what} as bright as the focus: {pixel(x, y)}")
axial = [(pixel(506, 524 - d)[1], pixel(506, 524 + d)[1]) for d in range(0, 110, 10)]
check(all(abs(a - b) <= 12 for a, b in axial), f"PSF x-z not symmetric about focus: {axial}")

# The sample as docs/report.md shows it, run as tools/run-sample.sh runs it: fitted
# with a residual image and drawn beside both, with two rows of three panels and one
# of the phase at best focus and the notes per wavelength. Every table, number and
# size that the page quotes must be what the program gives.
out = os.path.join(WORK, "out")
os.makedirs(out, exist_ok=True)
result = subprocess.run([TORVEL, os.path.abspath(PUPIL), "out/sample_fit.txt",
                         "-residual=out/sample_residual.mrc"], capture_output=True, cwd=WORK)
check(result.returncode == 0, "torvel could not fit " + PUPIL)
result = run("out/sample_fit.txt", "-image=" + os.path.abspath(PUPIL),
             "-residual=out/sample_residual.mrc", "-png=out/report.png", "-json=out/fit.json",
             "-csv=out/fit.csv", cwd=WORK)
check(result.returncode == 0, f"image and residual: exit {result.returncode}: {result.stderr}")
count = sum(1 for line in open(os.path.join(out, "sample_fit.txt"))
            if line.startswith("#zernike_coeff_phase_"))
width, height, pixel = read_png(os.path.join(out, "report.png"))
check((width, height) == (4 * 340 + 32, 122 + count * (34 + 3 * 292)),
      f"figure with image and residual: {width} x {height}")
page = open(os.path.join(DOCS, "report.md"), encoding="utf-8").read()
blocks = re.findall(r"```\n(.*?)```", page, re.S)
check([b for b in blocks if b.startswith("wavefront:")] == [result.stdout],
      "docs/report.md's tables are not the program's:\n" + result.stdout)
exported = open(os.path.join(out, "fit.json")).read()
for number in re.findall(r"-?\d+(?:\.\d+)?(?:e-?\d+)?", next(b for b in blocks if '"generator"' in b)):
    check(number in exported, f"docs/report.md's JSON quotes {number}, not in out/fit.json")
csv_lines = set(open(os.path.join(out, "fit.csv")).read().splitlines())
for line in "".join(b for b in blocks if b.startswith(("# fit", "file,wavelength"))).splitlines():
    check(line in csv_lines, f"docs/report.md's CSV line is not in out/fit.csv: {line}")
stated = re.search(r"sample figure above \(.*?\) is (\d+) × (\d+)", page, re.S)
check(stated and (int(stated[1]), int(stated[2])) == (width, height), "docs: sample figure size")
check(read_png(os.path.join(DOCS, "report-sample.png"))[:2] == (width, height),
      "docs/report-sample.png is not the sample's figure as drawn now")

# ---- messages -------------------------------------------------------------------
bad = os.path.join(WORK, "bad.txt")
with open(bad, "w") as f:
    f.write("#parametric_pupil_format 0\n#numerical_aperture -1\n")
result = run(bad, tilt, "-json=" + os.path.join(WORK, "never.json"))
check(result.returncode == 1 and tilt in result.stdout, "bad file: exit or table")
check(result.stderr.startswith(f"torvel-report: {bad}:2:20: invalid value"), result.stderr)
check(not os.path.exists(os.path.join(WORK, "never.json")), "output written despite a bad file")
beyond = fit_file("beyond.txt", [0.5], (2, 0), [{(2, 0): 1.0}], na=1.6)
result = run(beyond)
check(result.returncode == 1 and result.stderr == f"torvel-report: {beyond}: numerical aperture "
      "1.6 above the immersion index 1.515; no focus shift is defined\n", result.stderr)
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
