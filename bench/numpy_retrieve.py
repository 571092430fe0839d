"""Times torvel-retrieve's iterations against the same algorithm in numpy.

Use:  python3 bench/numpy_retrieve.py TORVEL_PSF TORVEL_RETRIEVE [repetitions]

The stack: 64 x 64 x 41 voxels of 65 nm x 150 nm from torvel-psf (NA 1.4 in
oil, 600 nm, astigmatism, coma, spherical aberration, apodised amplitude),
Poisson noise at a peak of 1e4 photons over a background of 100.

  - torvel-retrieve: the whole program run for 10 and for 110 iterations
    (-tol small enough never to stop it early); the difference over 100 is
    the time of one iteration, without reading, setting up and writing.
  - numpy: the same algorithm as numpy is written today, on the same grid:
    the pupil on an M x M grid (M the crop times the ratio torvel-retrieve
    chooses, 448 here), the disc edge area-weighted (supersampled), per
    iteration and plane the defocus, numpy.fft.ifft2, the magnitude step on
    the crop, numpy.fft.fft2 back, the mean over the planes. Planes are
    processed in batches to bound memory.
  - for scale, the plain algorithm on the crop's own 64 x 64 grid (disc a
    staircase, defocused planes wrapping around), also in numpy.

Prints medians with the lowest and highest time per iteration and the ratios.
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time

import mrcfile
import numpy as np

NA, N_IMM, WAVELENGTH, DX, DZ, SIZE, PLANES = 1.4, 1.515, 0.6, 0.065, 0.15, 64, 41
MODEL = """#parametric_pupil_format 0
#numerical_aperture 1.400
#immersion_refractive_index 1.51500
#lens_id 0
#zernike_set_for_amplitude 2 0
#zernike_set_for_phase 4 0
#polar_fourier_set_for_amplitude -1 -1
#polar_fourier_set_for_phase -1 -1
#wavelength_count 1
#wavelengths_um 0.600000
#zernike_coeff_amplitude_0
  0   0 1
  1   1 0 0
  2   0 -0.15
#zernike_coeff_phase_0
  0   0 0
  1   1 0 0
  2   0 0
  2   2 0.5 -0.3
  3   1 0.4 0.2
  3   3 0 0
  4   0 0.6
"""


def make_stack(psf, folder):
    model, clean, noisy = (os.path.join(folder, n) for n in ("model.txt", "clean.mrc", "noisy.mrc"))
    open(model, "w").write(MODEL)
    subprocess.run([psf, model, clean, f"-size={SIZE}:{SIZE}:{PLANES}", "-dx=65", "-dz=150",
                    "-normalize=none"], check=True)
    with mrcfile.open(clean) as f:
        data = f.data.astype(np.float64)
    counts = np.random.default_rng(1).poisson(data / data.max() * 1e4 + 100).astype(np.float32)
    with mrcfile.new(noisy, overwrite=True) as f:
        f.set_data(counts)
        f.voxel_size = (DX, DX, DZ)
    return noisy, counts


def time_torvel(retrieve, stack, iterations):
    start = time.perf_counter()
    subprocess.run([retrieve, stack, os.path.join(os.path.dirname(stack), "pupil.mrc"),
                    "-na=1.4", "-n=1.515", "-w=600", f"-iterations={iterations}", "-tol=1e-30"],
                   check=True)
    return time.perf_counter() - start


class NumpyRetrieval:
    """The algorithm of torvel-retrieve, written with numpy's FFTs on the
    whole grid: no pruning, double precision, one thread."""

    def __init__(self, counts, m):
        self.y = counts.astype(np.float64)
        self.m, self.n = m, SIZE
        dk = 1.0 / (m * DX)
        k = (np.arange(m) - m // 2) * dk
        kx, ky = np.meshgrid(k, k)
        cutoff = NA / WAVELENGTH
        # Area inside the disc by 8 x 8 supersampling of each pixel.
        sub = (np.arange(8) + 0.5) / 8 - 0.5
        self.weight = np.zeros((m, m))
        for a in sub:
            for b in sub:
                self.weight += np.hypot(kx + a * dk, ky + b * dk) <= cutoff
        self.weight *= dk * dk / 64
        self.kz = np.sqrt(np.maximum((N_IMM / WAVELENGTH) ** 2 - kx ** 2 - ky ** 2, 0))
        self.z = (np.arange(PLANES) - PLANES // 2) * DZ
        full = dk * dk
        used = self.weight > 0
        self.scale = np.zeros((m, m))
        self.scale[used] = 1.0 / (m * m * self.weight[used] * np.maximum(self.weight[used], 0.5 * full) * PLANES)
        # The time of an iteration does not depend on where it starts.
        self.pupil = used.astype(np.complex128)
        self.background = 100.0
        c = m // 2 - SIZE // 2
        self.window = (slice(c, c + SIZE), slice(c, c + SIZE))

    def iterate(self, batch=8):
        total = np.zeros((self.m, self.m), np.complex128)
        for first in range(0, PLANES, batch):
            z = self.z[first:first + batch]
            defocus = np.exp(2j * np.pi * self.kz[None] * z[:, None, None])
            field = np.fft.fftshift(np.fft.ifft2(np.fft.ifftshift(self.pupil * self.weight * defocus, axes=(1, 2))),
                                    axes=(1, 2)) * self.m * self.m
            crop = field[(slice(None),) + self.window]
            mu = np.abs(crop) ** 2 + self.background
            y = np.maximum(self.y[first:first + batch], 0)
            change = np.zeros_like(field)
            change[(slice(None),) + self.window] = crop * (np.sqrt(y / mu) - 1)
            back = np.fft.fftshift(np.fft.fft2(np.fft.ifftshift(change, axes=(1, 2))), axes=(1, 2))
            total += (back * np.conj(defocus)).sum(axis=0) * self.weight
        self.pupil = self.pupil + total * self.scale


class PlainRetrieval:
    """The published algorithm on the crop's own grid: disc a staircase,
    defocused planes wrapping around the FFT window."""

    def __init__(self, counts):
        n = SIZE
        k = (np.arange(n) - n // 2) / (n * DX)
        kx, ky = np.meshgrid(k, k)
        self.disc = np.hypot(kx, ky) <= NA / WAVELENGTH
        kz = np.sqrt(np.maximum((N_IMM / WAVELENGTH) ** 2 - kx ** 2 - ky ** 2, 0))
        z = (np.arange(PLANES) - PLANES // 2) * DZ
        self.defocus = np.exp(2j * np.pi * kz[None] * z[:, None, None])
        self.amplitude = np.sqrt(np.maximum(counts.astype(np.float64) - 100, 0))
        self.pupil = self.disc.astype(np.complex128)

    def iterate(self):
        field = np.fft.ifft2(np.fft.ifftshift(self.pupil * self.defocus, axes=(1, 2)))
        field = self.amplitude * np.exp(1j * np.angle(np.fft.fftshift(field, axes=(1, 2))))
        back = np.fft.fftshift(np.fft.fft2(np.fft.ifftshift(field, axes=(1, 2))), axes=(1, 2))
        self.pupil = (back * np.conj(self.defocus)).mean(axis=0) * self.disc


def per_iteration(algorithm, iterations):
    start = time.perf_counter()
    for _ in range(iterations):
        algorithm.iterate()
    return (time.perf_counter() - start) / iterations


def summary(name, times):
    return (f"{name:32s} median {1e3 * statistics.median(times):9.2f} ms per iteration "
            f"(lowest {1e3 * min(times):.2f}, highest {1e3 * max(times):.2f}, {len(times)} runs)")


def main():
    psf, retrieve = sys.argv[1], sys.argv[2]
    repetitions = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with tempfile.TemporaryDirectory() as folder:
        stack, counts = make_stack(psf, folder)
        torvel, same, plain = [], [], []
        for _ in range(repetitions):
            torvel.append((time_torvel(retrieve, stack, 110) - time_torvel(retrieve, stack, 10)) / 100)
            same.append(per_iteration(NumpyRetrieval(counts, 7 * SIZE), 3))
            plain.append(per_iteration(PlainRetrieval(counts), 100))
    print("64 x 64 x 41 stack, per iteration, scalar model")
    print(summary("torvel-retrieve", torvel))
    print(summary("numpy, the same algorithm", same))
    print(summary("numpy, plain on the 64 grid", plain))
    print(f"numpy (same algorithm) / torvel-retrieve: {statistics.median(same) / statistics.median(torvel):.1f}x")


if __name__ == "__main__":
    main()
