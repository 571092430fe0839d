"""Times torvel against the fit every Python user has at hand: a Zernike basis
built with numpy and numpy.linalg.lstsq (LAPACK's dgelsd, like torvel), on
the same pupils and term counts.

Use:  python3 bench/numpy_baseline.py TORVEL BENCH_RUN [repetitions] [n:m ...]

BENCH_RUN (build/release/bench/bench_run) writes the pupil images, one
wavelength each, whose disc fills a 256, 512 or 1024 pixel square. For each
size and set the two are timed in turn, repetitions times:
  - torvel: the whole program on the image (read, unwrap, both fits of the
    set, the fit file; no residual image), wall time divided by its 2 fits;
  - numpy: the disc's pixels, the basis and one lstsq for one section, the
    way a user fits one section; also, for reference, the same basis solved
    for both sections in one lstsq call, per fit.
Prints medians with the lowest and highest time, and the ratio of the medians.
"""
import math
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import mrcfile
import numpy as np


def zernike_terms(n, m):
    """(k, l) of every term in torvel's slot order: orders 0..n, within an
    order R_k^0 first (k even), then cos and sin of each frequency l."""
    for k in range(n + 1):
        top = k if k < n else m
        if k % 2 == 0:
            yield k, 0
        for l in range(2 if k % 2 == 0 else 1, top + 1, 2):
            yield k, l


def radial(k, l, rho):
    total = np.zeros_like(rho)
    for s in range((k - l) // 2 + 1):
        c = (-1) ** s * math.factorial(k - s) / (
            math.factorial(s) * math.factorial((k + l) // 2 - s) * math.factorial((k - l) // 2 - s))
        total += c * rho ** (k - 2 * s)
    return total


def basis(size, n, m):
    """The design matrix of the set (n, m) over the disc of a size x size plane
    centred on pixel size/2, and the mask of its pixels."""
    half = size / 2
    y, x = np.mgrid[0:size, 0:size]
    x = (x - size // 2) / half
    y = (y - size // 2) / half
    rho = np.hypot(x, y)
    inside = rho < 1.0
    r, t = rho[inside], np.arctan2(y[inside], x[inside])
    columns = []
    for k, l in zernike_terms(n, m):
        radial_values = radial(k, l, r)
        if l == 0:
            columns.append(radial_values)
        else:
            columns.append(radial_values * np.cos(l * t))
            columns.append(radial_values * np.sin(l * t))
    return np.column_stack(columns), inside


def numpy_fit(size, n, m, sections):
    matrix, inside = basis(size, n, m)
    return np.linalg.lstsq(matrix, sections[0][inside], rcond=1e-4)[0]


def numpy_fit_both(size, n, m, sections):
    matrix, inside = basis(size, n, m)
    rhs = np.column_stack([s[inside] for s in sections])
    return np.linalg.lstsq(matrix, rhs, rcond=1e-4)[0]


def timed(action):
    start = time.perf_counter()
    action()
    return time.perf_counter() - start


def summary(times):
    return '%8.3f s [%.3f .. %.3f]' % (statistics.median(times), min(times), max(times))


def main(argv):
    if len(argv) < 3:
        sys.stderr.write(__doc__)
        return 2
    torvel, bench_run = argv[1:3]
    repetitions = int(argv[3]) if len(argv) > 3 else 5
    sets = [tuple(int(v) for v in s.split(':')) for s in argv[4:]] or [(8, 0), (16, 16)]
    work = tempfile.mkdtemp(prefix='torvel-numpy-')
    try:
        subprocess.run([bench_run, '--images=' + work], check=True)
        print('per fit: median [lowest .. highest] of %d interleaved repetitions' % repetitions)
        for size in (256, 512, 1024):
            image = os.path.join(work, 'pupil%d.mrc' % size)
            with mrcfile.open(image, permissive=True) as mrc:
                data = np.asarray(mrc.data).reshape(size, size)
            sections = [np.abs(data).astype(np.float64), np.angle(data).astype(np.float64)]
            for n, m in sets:
                command = [torvel, image, os.path.join(work, 'fit.txt'),
                           '-zernike_amp=%d:%d' % (n, m), '-zernike_phase=%d:%d' % (n, m)]
                ours, theirs, theirs_both = [], [], []
                for _ in range(repetitions):
                    ours.append(timed(lambda: subprocess.run(
                        command, check=True, stdout=subprocess.DEVNULL)) / 2)
                    theirs.append(timed(lambda: numpy_fit(size, n, m, sections)))
                    theirs_both.append(timed(lambda: numpy_fit_both(size, n, m, sections)) / 2)
                print('%4d^2 set %2d:%-2d  torvel %s   numpy %s   numpy, both in one lstsq %s'
                      '   numpy/torvel %.2f'
                      % (size, n, m, summary(ours), summary(theirs), summary(theirs_both),
                         statistics.median(theirs) / statistics.median(ours)))
                sys.stdout.flush()
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
