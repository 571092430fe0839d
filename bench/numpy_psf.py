"""Times torvel-psf against the way a PSF is computed from a pupil in numpy
today, and measures both against the exact integral.

Use:  python3 bench/numpy_psf.py TORVEL_PSF BENCH_PSF [repetitions]

The model: NA 1.4 in oil (n 1.515), 600 nm, astigmatism, coma, spherical
aberration and an apodised amplitude, written as a fit file. For stacks of
256 x 256 x 64 and 128 x 128 x 128 voxels at Nyquist sampling, scalar and
vector, the three are timed in turn, repetitions times:
  - torvel-psf per stack: BENCH_PSF (build/release/bench/bench_psf) computing
    the stack from the fit file's model in-process, as the program does (the
    pupil grid, its FFT plans, every plane, on all cores), without the file,
    twice in one process: the second stack, and the first, which also sets
    up FFTW's planner (a few ms once per process);
  - the whole program, torvel-psf (read the fit file, compute, write an MRC
    stack);
  - numpy: the pupil on the FFT grid of the stack (spacing 1 / (n dx), the
    disc a staircase of pixels), then per plane the defocus phase
    exp(2 pi i kz z), numpy.fft.ifft2 and |E|^2 (five fields for vector).
Prints medians with the lowest and highest wall time, the ratio of numpy's
median to torvel-psf's per stack (and to its first stack), the same for processor time (user +
system, all threads; on a machine shared with other work the wall time
mostly measures the others), the whole program's wall time, and each one's
largest error against the integral computed by a polar
quadrature (Gauss-Legendre in the radius, uniform in angle) at a few dozen
voxels, relative to the stack's peak.
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import mrcfile
import numpy as np

NA, N_IMM, WAVELENGTH = 1.4, 1.515, 0.6
# Phase (radians) and amplitude terms (n, m, cos, sin) of the model.
PHASE = [(2, 2, 1.9, 0.0), (3, 1, 1.2, 0.0), (4, 0, 0.9, 0.0)]
AMPLITUDE = [(0, 0, 1.0, 0.0), (2, 0, -0.15, 0.0)]
ORDER = 4


def radial(k, l, rho):
    from math import factorial
    total = np.zeros_like(rho)
    for s in range((k - l) // 2 + 1):
        c = (-1) ** s * factorial(k - s) / (
            factorial(s) * factorial((k + l) // 2 - s) * factorial((k - l) // 2 - s))
        total += c * rho ** (k - 2 * s)
    return total


def series(terms, rho, theta):
    total = np.zeros_like(rho)
    for k, l, c, s in terms:
        r = radial(k, l, rho)
        total += r * (c * np.cos(l * theta) + s * np.sin(l * theta))
    return total


def pupil(rho, theta):
    return series(AMPLITUDE, rho, theta) * np.exp(1j * series(PHASE, rho, theta))


def write_fit_file(name):
    def block(terms):
        values = {(k, l): (c, s) for k, l, c, s in terms}
        lines = []
        for k in range(ORDER + 1):
            for l in range(k % 2, k + 1, 2):
                c, s = values.get((k, l), (0.0, 0.0))
                lines.append(f"  {k} {l} {c}" + (f" {s}" if l > 0 else ""))
        return "\n".join(lines)
    with open(name, "w") as f:
        f.write(f"""#parametric_pupil_format 0
#numerical_aperture {NA}
#immersion_refractive_index {N_IMM}
#lens_id 1
#zernike_set_for_amplitude {ORDER} {ORDER}
#zernike_set_for_phase {ORDER} {ORDER}
#polar_fourier_set_for_amplitude -1 -1
#polar_fourier_set_for_phase -1 -1
#wavelength_count 1
#wavelengths_um {WAVELENGTH}
#zernike_coeff_amplitude_0
{block(AMPLITUDE)}
#zernike_coeff_phase_0
{block(PHASE)}
""")


def vector_factors(kx, ky):
    k = np.hypot(kx, ky)
    s = np.minimum(k * WAVELENGTH / N_IMM, 1.0)
    c = np.sqrt(1 - s * s)
    phi = np.arctan2(ky, kx)
    cp, sp = np.cos(phi), np.sin(phi)
    return [c * cp * cp + sp * sp, (c - 1) * sp * cp, -s * cp, c * sp * sp + cp * cp, -s * sp]


SHARE = [0.5, 1.0, 0.5, 0.5, 0.5]  # of each factor's |E|^2 in the polarisation mean


def numpy_stack(nx, ny, nz, dx, dz, vector):
    """The PSF as people compute it: the pupil sampled on the FFT grid."""
    kx = np.fft.fftfreq(nx, dx)
    ky = np.fft.fftfreq(ny, dx)
    KX, KY = np.meshgrid(kx, ky)
    k = np.hypot(KX, KY)
    cutoff = NA / WAVELENGTH
    inside = k <= cutoff
    p = np.where(inside, pupil(np.minimum(k / cutoff, 1), np.arctan2(KY, KX)), 0)
    kz = np.sqrt(np.maximum((N_IMM / WAVELENGTH) ** 2 - k * k, 0))
    area = (kx[1] - kx[0]) * (ky[1] - ky[0])
    fields = [p * f for f in vector_factors(KX, KY)] if vector else [p]
    shares = SHARE if vector else [1.0]
    out = np.empty((nz, ny, nx))
    for i in range(nz):
        defocus = np.exp(2j * np.pi * kz * ((i - nz // 2) * dz))
        plane = np.zeros((ny, nx))
        for f, share in zip(fields, shares):
            e = np.fft.ifft2(f * defocus) * (nx * ny * area)
            plane += share * np.abs(e) ** 2
        out[i] = np.fft.fftshift(plane)
    return out


def exact(points, vector):
    """|E|^2 (or the vector mean) of the defining integral at points (x, y, z)."""
    r, wr = np.polynomial.legendre.leggauss(200)
    cutoff = NA / WAVELENGTH
    r = (r + 1) / 2
    wr = wr / 2
    t = np.arange(512) * 2 * np.pi / 512
    R, T = np.meshgrid(r, t, indexing="ij")
    k = R * cutoff
    kx, ky = k * np.cos(T), k * np.sin(T)
    kz = np.sqrt((N_IMM / WAVELENGTH) ** 2 - k * k)
    weights = (wr[:, None] * cutoff * k) * (2 * np.pi / 512) * pupil(R, T)
    factors = vector_factors(kx, ky) if vector else [np.ones_like(k)]
    shares = SHARE if vector else [1.0]
    values = []
    for x, y, z in points:
        w = weights * np.exp(2j * np.pi * (kx * x + ky * y + kz * z))
        values.append(sum(s * abs(np.sum(w * f)) ** 2 for f, s in zip(factors, shares)))
    return np.array(values)


def largest_error(stack, dx, dz, vector):
    rng = np.random.default_rng(3)  # the same voxels for both stacks
    nz, ny, nx = stack.shape
    top = np.unravel_index(np.argmax(stack), stack.shape)
    voxels = [top] + [(k, ny // 2, nx // 2) for k in range(0, nz, nz // 8)]
    voxels += [tuple(v) for v in rng.integers(0, [nz, ny, nx], size=(16, 3))]
    points = [((i - nx // 2) * dx, (j - ny // 2) * dx, (k - nz // 2) * dz) for k, j, i in voxels]
    reference = exact(points, vector)
    got = np.array([stack[v] for v in voxels])
    return np.max(np.abs(got - reference)) / max(stack.max(), reference.max())


def summary(times):
    return statistics.median(times), min(times), max(times)


def bench_stack(bench, case):
    """Wall and processor time in ms of two stacks computed by bench_psf in
    one process: the first, which also sets up FFTW's planner, and the
    second, in a process that has computed one (as numpy's FFT keeps its
    plans from stack to stack)."""
    out = subprocess.run([bench, FIT, f"--benchmark_filter=^{case}/", "--benchmark_min_time=0",
                          "--benchmark_repetitions=2", "--benchmark_format=json"],
                         check=True, capture_output=True, text=True)
    runs = [b for b in json.loads(out.stdout)["benchmarks"] if b.get("run_type") == "iteration"]
    return [(run["real_time"], run["cpu_time"]) for run in runs[:2]]


def main():
    global FIT
    binary, bench = sys.argv[1], sys.argv[2]
    repetitions = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    dx = WAVELENGTH / (4 * NA)
    cos_alpha = np.sqrt(1 - (NA / N_IMM) ** 2)
    dz = WAVELENGTH / (2 * N_IMM * (1 - cos_alpha))
    with tempfile.TemporaryDirectory() as folder:
        FIT = os.path.join(folder, "model.txt")
        out = os.path.join(folder, "psf.mrc")
        write_fit_file(FIT)
        print(f"NA {NA} oil, {WAVELENGTH * 1000:.0f} nm, dx {dx * 1000:.1f} nm, dz {dz * 1000:.1f} nm; "
              f"{repetitions} runs each; times in ms: median (lowest-highest)")
        print(f"{'stack':>18} {'time':>4} {'torvel-psf per stack':>22} {'numpy':>23} {'ratio':>6}"
              f" {'first stack':>22} {'ratio':>6} {'whole program':>22} {'error torvel':>13}"
              f" {'error numpy':>12}")
        for nx, nz in [(256, 64), (128, 128)]:
            for vector in (False, True):
                model = "vector" if vector else "scalar"
                case = f"{nx}x{nx}x{nz}/{model}"
                command = [binary, FIT, out, f"-size={nx}:{nx}:{nz}", f"-dx={dx * 1000}",
                           f"-dz={dz * 1000}", "-normalize=none", f"-model={model}"]
                times = {key: [] for key in ("ours", "ours_cpu", "first", "first_cpu", "numpy",
                                             "numpy_cpu", "program")}
                for _ in range(repetitions):
                    (first, first_cpu), (wall, cpu) = bench_stack(bench, case)
                    times["first"].append(first)
                    times["first_cpu"].append(first_cpu)
                    times["ours"].append(wall)
                    times["ours_cpu"].append(cpu)
                    start, cpu = time.perf_counter(), time.process_time()
                    reference_stack = numpy_stack(nx, nx, nz, dx, dz, vector)
                    times["numpy"].append(1000 * (time.perf_counter() - start))
                    times["numpy_cpu"].append(1000 * (time.process_time() - cpu))
                    start = time.perf_counter()
                    subprocess.run(command, check=True)
                    times["program"].append(1000 * (time.perf_counter() - start))
                with mrcfile.open(out) as f:
                    torvel_stack = np.asarray(f.data, dtype=np.float64)
                error_ours = largest_error(torvel_stack, dx, dz, vector)
                error_theirs = largest_error(reference_stack, dx, dz, vector)
                program = summary(times["program"])
                for label, a, b, c in (
                        ("wall", summary(times["ours"]), summary(times["numpy"]),
                         summary(times["first"])),
                        ("cpu", summary(times["ours_cpu"]), summary(times["numpy_cpu"]),
                         summary(times["first_cpu"]))):
                    whole = f"{program[0]:8.1f} ({program[1]:.1f}-{program[2]:.1f})" if label == "wall" else ""
                    print(f"{case:>18} {label:>4} {a[0]:8.1f} ({a[1]:.1f}-{a[2]:.1f}) "
                          f"{b[0]:9.1f} ({b[1]:.1f}-{b[2]:.1f}) {b[0] / a[0]:6.1f} "
                          f"{c[0]:8.1f} ({c[1]:.1f}-{c[2]:.1f}) {b[0] / c[0]:6.1f} {whole:>22} "
                          f"{error_ours:13.1e} {error_theirs:12.1e}", flush=True)


if __name__ == "__main__":
    main()
