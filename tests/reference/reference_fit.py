"""An independent computation of torvel's fit, compared with torvel's output.

Written from the description of the fitting rules alone, apart from the C++
code: it reads the pupil function image, splits complex samples into amplitude
and phase, unwraps the phase, selects the pupil pixels, builds the Zernike
design matrix, solves it with LAPACK's dgelsd (through numpy.linalg.lstsq,
which calls that routine with the same relative tolerance; like torvel, with
both right-hand sides in one call when amplitude and phase have the same set)
and computes the residual image. Then it checks torvel's outputs against that computation:

  - the fit file, line for line: every coefficient printed with "%g" must be
    the same text;
  - the progress lines on standard output ("N unknowns M measurements",
    "rank R", "root mean square error E"), word for word;
  - the residual image: every pixel bit for bit as float32, and the
    minimum, maximum and mean that its header records.

Every single-precision step of the program is rounded to float32 here as
well (f32 below: a float32 operation on float32 operands is the exact result
rounded once, which is what rounding the double result gives, since a double
holds more than twice the bits of a float). Double steps are Python floats,
and the mathematical functions are those of the C library (math.pow,
math.sqrt, math.atan2, math.sin, math.cos).

Use:  /usr/bin/python3 reference_fit.py IMAGE FIT_FILE TORVEL_STDOUT [options]
where options are the torvel options of the run: -residual=, -w=, -tol=,
-zernike_amp=, -zernike_phase=. Exit status 0 when everything agrees, 1 with
a list of the differences otherwise, 2 when the run cannot be checked.
"""
import functools
import math
import struct
import sys

try:
    import mrcfile
    import numpy as np
except ImportError as missing:  # the check must never pass without running
    sys.exit('reference_fit: FAILED: /usr/bin/python3 lacks %s; install python3-mrcfile '
             '(it brings python3-numpy)' % missing.name)

TWO_PI = 6.283185307179586
FLOAT_MAX = 3.4028234663852886e+38
INT_MIN = -2147483648
PUPIL_IMAGE_TYPE = 8000
DEFAULT_TOLERANCE = 0.0001  # rounded to float32 like the option's default


class Unchecked(Exception):
    """A run outside what this reference covers (it says which way)."""


def f32(x):
    """x rounded to the nearest float32, as a Python float."""
    return float(np.float32(x))


def c_sqrt(x):
    """The C library's sqrt: NaN for a negative argument instead of an error."""
    return math.sqrt(x) if x >= 0.0 else math.nan


def ceil_to_int(v):
    if math.isnan(v):
        raise Unchecked('a pixel bound is not a number')
    return math.ceil(v)


# ---------------------------------------------------------------------------
# The image

class Image:
    """Header values and sections of an image, read with mrcfile and the
    multi-wavelength block of the header parsed by hand."""

    def __init__(self, path):
        with open(path, 'rb') as f:
            raw = f.read(1024)
        if len(raw) < 1024:
            raise Unchecked('%s: shorter than a header' % path)
        stamp = raw[212]
        order = '<' if stamp == 0x44 else '>' if stamp == 0x11 else '<'
        word = lambda fmt, offset: struct.unpack_from(order + fmt, raw, offset)
        self.nx, self.ny, self.nz_total = word('3i', 0)
        (self.mode,) = word('i', 12)
        cella = word('3f', 40)
        mx, my, _ = word('3i', 28)
        self.dmin, self.dmax, self.dmean = word('3f', 76)
        self.xorig, self.yorig, _ = word('3f', 196)
        self.has_block = raw[112:116] == b'TVL1'
        if self.has_block:
            self.type_code, self.lens_id = word('2i', 116)
            self.p1, self.p2 = word('2f', 128)
            self.nw, self.nt, self.interleave = word('3h', 136)
            self.wavelengths = list(word('5f', 144))
            self.wave_min_max = list(word('8f', 164))
        else:
            self.type_code, self.lens_id, self.p1, self.p2 = 0, 0, 0.0, 0.0
            self.nw, self.nt, self.interleave = 1, 1, 0
            self.wavelengths = [0.0] * 5
            self.wave_min_max = [0.0] * 8
        # spacing as the image layer gives it: float32(CELLA) / float32(M)
        self.dx = f32(f32(cella[0]) / f32(mx)) if mx > 0 else 0.0
        self.dy = f32(f32(cella[1]) / f32(my)) if my > 0 else 0.0
        with mrcfile.open(path, permissive=False) as mrc:
            data = np.array(mrc.data)
        self.sections = data.reshape(self.nz_total, self.ny, self.nx)

    def section(self, z, w, t):
        nz = self.nz_total // (self.nw * self.nt)
        if not (0 <= z < nz and 0 <= w < self.nw and 0 <= t < self.nt):
            raise Unchecked('section (%d, %d, %d) is not in the image' % (z, w, t))
        number = [z + nz * (t + self.nt * w),
                  w + self.nw * (z + nz * t),
                  z + nz * (w + self.nw * t)][self.interleave]
        return self.sections[number]


def float_list(plane):
    """A plane as a flat list of Python floats holding float32 values."""
    return [float(v) for v in np.asarray(plane, dtype=np.float32).ravel()]


def amplitude_and_phase(image, w):
    """The amplitude and phase planes of input wavelength w, as flat lists in
    row order. Complex samples are split: the amplitude is the single-precision
    root of re*re + im*im (in float), the phase atan2(im, re) in double
    narrowed to float, 0 when re*re + im*im is 0."""
    if image.mode in (3, 4):
        section = np.asarray(image.section(0, w, 0), dtype=np.complex64).ravel()
        re = [float(v) for v in section.real]
        im = [float(v) for v in section.imag]
        amplitude, phase = [], []
        for r, i in zip(re, im):
            s = f32(f32(r * r) + f32(i * i))
            phase.append(0.0 if s == 0.0 else f32(math.atan2(i, r)))
            amplitude.append(f32(c_sqrt(s)))
        return amplitude, phase
    return float_list(image.section(0, w, 0)), float_list(image.section(1, w, 0))


# ---------------------------------------------------------------------------
# The command line (the options that change the computation)

def parse_set(text, option):
    values = [int(v) for v in text.split(':')]
    if not 1 <= len(values) <= 2:
        raise Unchecked('%s needs one or two integers' % option)
    n = values[0]
    if n < 0:
        return -1, -1
    m = values[1] if len(values) == 2 else n
    if not (0 <= m <= n and (n - m) % 2 == 0):
        raise Unchecked('%s: not a valid Zernike set' % option)
    return n, m


def select_wavelengths(text, file_wavelengths):
    """Input indices chosen by -w=: a valid index is an index, otherwise a
    wavelength in nm (200 to 1999) matched within 0.5 nm."""
    chosen = []
    for v in (int(x) for x in text.split(':')):
        if 0 <= v < len(file_wavelengths):
            chosen.append(v)
            continue
        match = [k for k, wl in enumerate(file_wavelengths)
                 if 200 <= v < 2000 and abs(f32(wl - f32(v))) <= 0.5]
        if not match:
            raise Unchecked('-w=: %d selects no wavelength' % v)
        chosen.append(match[0])
    return chosen


class Options:
    def __init__(self, args, image):
        self.residual = None
        self.tolerance = f32(DEFAULT_TOLERANCE)
        self.amplitude_set = (8, 0)
        self.phase_set = (8, 0)
        file_wavelengths = image.wavelengths[:image.nw]
        self.indices = list(range(len(file_wavelengths)))
        for arg in args:
            name, _, value = arg.partition('=')
            if name == '-residual':
                self.residual = value
            elif name == '-tol':
                # float(text) then float32: the same as reading a float32
                # directly for every value these checks use
                self.tolerance = f32(float(value))
            elif name == '-w':
                self.indices = select_wavelengths(value, file_wavelengths)
            elif name == '-zernike_amp':
                self.amplitude_set = parse_set(value, name)
            elif name == '-zernike_phase':
                self.phase_set = parse_set(value, name)
            else:
                raise Unchecked('option %s is not covered by the reference' % arg)
        self.wavelengths = [file_wavelengths[i] for i in self.indices]


# ---------------------------------------------------------------------------
# Zernike radial polynomials, in the term order of every coefficient array

def term_count(n, m):
    return 0 if n < 0 else n * (n + 1) // 2 + m + 1


def terms(n, m):
    """(k, l) of every term of the set, in coefficient order; l = 0 takes one
    coefficient, l > 0 a cosine then a sine coefficient."""
    for k in range(n + 1):
        top = k if k < n else m
        for l in range(k % 2, top + 1, 2):
            yield k, l


@functools.lru_cache(maxsize=None)
def binomial(n, k):
    """n choose k: exact in 32-bit integers while they cannot overflow, then
    continued in double precision."""
    limit = 2147483647 // max(n, 1)
    a = n - k
    small, large = min(k, a), max(k, a)
    r, i = 1, 1
    while i <= small and r < limit:
        r = r * (large + i) // i
        i += 1
    x = float(r)
    while i <= small:
        x = x * float(large + i) / float(i)
        i += 1
    return x


def trunc_half(d):
    return int(d / 2)  # C's division truncates toward zero


def radial(n, m, power):
    """R_n^m with rho^j = power(j), rho^2 included: the closed forms for
    h = 0, 1, 2 and the binomial sum otherwise, selected by h alone."""
    d = n - m
    h = trunc_half(d)
    if h == 0:
        p = 1.0
    elif h == 1:
        p = float(n) * power(2) - float(n - 1)
    elif h == 2:
        rho2 = power(2)
        p = (float((n - 3) * (n - 2) // 2)
             + rho2 * (float((n * n - n) // 2) * rho2 - float((n - 1) * (n - 2))))
    else:
        s = trunc_half(n + m)
        p, sign = 0.0, 1.0
        for j in range(h + 1):
            p += sign * power(d - 2 * j) * binomial(s, s - j) * binomial(n - j, s)
            sign = -sign
    return p * power(m)


def evaluate_rnm(rho, n, m):
    """R_n^m(rho) with every power from the C library's pow, rho^2 too:
    pow(rho, 2) is not always rho * rho to the last bit, and the design
    matrix takes the pow form."""
    return radial(n, m, lambda j: math.pow(rho, float(j)))


def evaluate_series(rho, theta, n, m, coeff):
    """The series at one point, from one table of rho^0..rho^n (pow) and one
    of cos and sin of j*theta, the terms summed in coefficient order."""
    powers = [math.pow(rho, float(j)) for j in range(n + 1)]
    trig = [(1.0, 0.0)] + [(math.cos(float(j) * theta), math.sin(float(j) * theta))
                           for j in range(1, n + 1)]
    power = powers.__getitem__
    total, i = 0.0, 0
    for k, l in terms(n, m):
        r = radial(k, l, power)
        if l == 0:
            total += r * powers[0] * coeff[i]
            i += 1
        else:
            c, s = trig[l]
            total += r * (coeff[i] * c + coeff[i + 1] * s)
            i += 2
    return total


# ---------------------------------------------------------------------------
# Geometry: which pixels are sampled, and where they lie in the pupil

class Geometry:
    def __init__(self, x0, y0, dx, dy, cutoff, nx, ny):
        self.x0, self.y0, self.dx, self.dy = x0, y0, dx, dy
        self.cutoff, self.nx, self.ny = cutoff, nx, ny

    def disc_rows(self):
        """[(iy, first column, end column)] of the sampled pixels, in scan
        order: lower edges inclusive, upper edges exclusive, ceilings exact."""
        ry = f32(self.cutoff / self.dy)
        top, bottom = f32(self.y0 + ry), f32(self.y0 - ry)
        end = self.ny if top > self.ny else ceil_to_int(top)
        start = ceil_to_int(bottom) if bottom >= 0.0 else 0
        c2 = f32(self.cutoff * self.cutoff)
        rows = []
        for iy in range(start, end):
            y = f32(f32(float(iy) - self.y0) * self.dy)
            hw = f32(c_sqrt(f32(c2 - f32(y * y))) / self.dx)
            right, left = f32(self.x0 + hw), f32(self.x0 - hw)
            if math.isnan(hw):
                raise Unchecked('row %d of the disc has no defined chord' % iy)
            last = self.nx if right > self.nx else ceil_to_int(right)
            first = ceil_to_int(left) if left >= 0.0 else 0
            rows.append((iy, first, last))
        return rows

    def polar(self, ix, iy):
        """(rho, theta) of pixel (ix, iy): offsets in float, rho and theta in
        double, theta 0 at the exact centre."""
        x = f32(f32(float(ix) - self.x0) * self.dx)
        y = f32(f32(float(iy) - self.y0) * self.dy)
        rho = math.sqrt(f32(f32(x * x) + f32(y * y))) / self.cutoff
        return rho, (math.atan2(y, x) if rho > 0.0 else 0.0)


# ---------------------------------------------------------------------------
# Phase unwrapping: a raster walk outward from the pixel nearest the centre

def unwrapped(predicted, value):
    """value plus the whole number of turns that brings it within pi of
    predicted; t in float, halves rounded away from zero."""
    t = f32(f32(predicted - value) / TWO_PI)
    k = int(f32(t + 0.5)) if t >= 0.0 else int(f32(t - 0.5))
    return f32(value + f32(k * TWO_PI))


def chord_bounds(centre, half, size):
    """[first, end) of a chord centred at centre of half-width half (double).
    An undefined half-width (NaN) gives first 0 and an end below every index."""
    low, high = centre - half, centre + half
    first = math.ceil(low) if low >= 0.0 else 0
    if math.isnan(high):
        end = INT_MIN
    else:
        end = size if high > size else math.ceil(high)
    return first, end


def phunwrap(g, phase):
    """Unwraps the phase list in place. The centre row starts at jc*nx and
    every step to the next row moves by ny elements."""
    nx, ny, x0, y0, dx, dy = g.nx, g.ny, g.x0, g.y0, g.dx, g.dy
    c2 = f32(g.cutoff * g.cutoff)
    ic, jc = int(f32(x0 + 0.5)), int(f32(y0 + 0.5))
    s = math.sqrt(f32(f32(dx * dx) + f32(dy * dy)))
    wx, wy = f32(dx / s), f32(dy / s)

    def at(j, i):
        return jc * nx + (j - jc) * ny + i

    def row_chord(j):
        q = f32(f32(y0 - float(j)) * dy)
        return chord_bounds(x0, c_sqrt(f32(c2 - f32(q * q))) / dx, nx)

    def predict_2d(v, d, h):
        return f32(f32(f32(f32(v - d) * wx) + d) + f32(f32(h - d) * wy))

    P = phase
    first, end = row_chord(jc)
    if ic > 0:
        P[at(jc, ic - 1)] = unwrapped(P[at(jc, ic)], P[at(jc, ic - 1)])
        for i in range(ic - 2, first - 1, -1):
            p = f32(f32(2.0 * P[at(jc, i + 1)]) - P[at(jc, i + 2)])
            P[at(jc, i)] = unwrapped(p, P[at(jc, i)])
    if ic < nx - 1:
        P[at(jc, ic + 1)] = unwrapped(P[at(jc, ic)], P[at(jc, ic + 1)])
        for i in range(ic + 2, end):
            p = f32(f32(2.0 * P[at(jc, i - 1)]) - P[at(jc, i - 2)])
            P[at(jc, i)] = unwrapped(p, P[at(jc, i)])

    q = f32(f32(x0 - float(ic)) * dx)
    row_first, row_end = chord_bounds(y0, c_sqrt(f32(c2 - f32(q * q))) / dy, ny)

    def walk_row(j, near, far):
        # near: the row next to j toward the centre; far: the one after it
        if near == jc:
            p = P[at(near, ic)]
        else:
            p = f32(f32(2.0 * P[at(near, ic)]) - P[at(far, ic)])
        P[at(j, ic)] = unwrapped(p, P[at(j, ic)])
        first, end = row_chord(j)
        for i in range(ic - 1, first - 1, -1):
            p = predict_2d(P[at(near, i)], P[at(near, i + 1)], P[at(j, i + 1)])
            P[at(j, i)] = unwrapped(p, P[at(j, i)])
        for i in range(ic + 1, end):
            p = predict_2d(P[at(near, i)], P[at(near, i - 1)], P[at(j, i - 1)])
            P[at(j, i)] = unwrapped(p, P[at(j, i)])

    if jc > 0:
        for j in range(jc - 1, row_first - 1, -1):
            walk_row(j, j + 1, j + 2)
    if jc < ny - 1:
        for j in range(jc + 1, row_end):
            walk_row(j, j - 1, j - 2)


# ---------------------------------------------------------------------------
# Least squares and residuals

def fit(g, planes, n, m, tolerance):
    """Coefficients of the set (n, m) fitted to the sampled pixels of each
    plane by dgelsd with rcond = tolerance (one call for all planes, as
    torvel solves two fits of the same set), and the lines the fit prints;
    None and no lines for an empty set."""
    if n < 0:
        return [None] * len(planes), []
    ncol = term_count(n, m)
    rows = g.disc_rows()
    pixels = [(ix, iy) for iy, first, last in rows for ix in range(first, last)]
    nrow = len(pixels)
    if ncol > nrow:
        raise Unchecked('more unknowns than measurements: torvel is expected to fail')
    matrix = np.empty((nrow, ncol), dtype=np.float64)
    rhs = np.array([[plane[iy * g.nx + ix] for plane in planes] for ix, iy in pixels],
                   dtype=np.float64)
    set_terms = list(terms(n, m))
    for row, (ix, iy) in enumerate(pixels):
        rho, theta = g.polar(ix, iy)
        values = []
        for k, l in set_terms:
            r = evaluate_rnm(rho, k, l)
            if l == 0:
                values.append(r)
            else:
                angle = float(l) * theta
                values.append(r * math.cos(angle))
                values.append(r * math.sin(angle))
        matrix[row, :] = values
    solution, _, rank, _ = np.linalg.lstsq(matrix, rhs, rcond=tolerance)
    lines = ['%d unknowns %d measurements' % (ncol, nrow), 'rank %d' % rank]
    return [[float(v) for v in solution[:, k]] for k in range(len(planes))], lines


def residual(g, amplitude, phase, amp_set, amp_coeff, phase_set, phase_coeff, log):
    """(real parts, imaginary parts, min, max, mean) of the residual plane:
    measured minus fitted inside the disc, measured outside; statistics of
    the real channel accumulated in float, the RMS over both channels."""
    inside = {}
    for iy, first, last in g.disc_rows():
        inside[iy] = (first, last)
    real, imag = [], []
    low, high, total, squares = FLOAT_MAX, -FLOAT_MAX, 0.0, 0.0
    for iy in range(g.ny):
        first, last = inside.get(iy, (0, 0))
        for ix in range(g.nx):
            a, p = amplitude[iy * g.nx + ix], phase[iy * g.nx + ix]
            re, im = a * math.cos(p), a * math.sin(p)
            if first <= ix < last:
                rho, theta = g.polar(ix, iy)
                fa = (evaluate_series(rho, theta, amp_set[0], amp_set[1], amp_coeff)
                      if amp_set[0] >= 0 else 1.0)
                fp = (evaluate_series(rho, theta, phase_set[0], phase_set[1], phase_coeff)
                      if phase_set[0] >= 0 else 0.0)
                re, im = re - fa * math.cos(fp), im - fa * math.sin(fp)
            re, im = f32(re), f32(im)
            real.append(re)
            imag.append(im)
            if re < low:
                low = re
            if re > high:
                high = re
            total = f32(total + re)
            squares = f32(squares + f32(f32(re * re) + f32(im * im)))
    count = f32(float(g.nx * g.ny))
    log.append('root mean square error %g' % math.sqrt(f32(squares / count)))
    return real, imag, low, high, f32(total / count)


# ---------------------------------------------------------------------------
# The whole run

class Reference:
    """What torvel should produce for one image and option list."""

    def __init__(self, image_path, args):
        image = Image(image_path)
        if image.type_code != PUPIL_IMAGE_TYPE:
            raise Unchecked('%s is not a pupil function image' % image_path)
        self.options = o = Options(args, image)
        self.na = f32(image.p1 / 10.0)
        self.n_imm = f32(image.p2 / 100.0)
        self.lens_id = image.lens_id
        self.nx, self.ny = image.nx, image.ny
        x0 = f32(f32(0.0 - image.xorig) / image.dx)
        y0 = f32(f32(0.0 - image.yorig) / image.dy)
        na_times_1000 = f32(self.na * 1000.0)
        self.log = []
        self.amp_coeff, self.phase_coeff, self.residuals = [], [], []
        for w, wavelength in zip(o.indices, o.wavelengths):
            g = Geometry(x0, y0, image.dx, image.dy, f32(na_times_1000 / wavelength),
                         image.nx, image.ny)
            amplitude, phase = amplitude_and_phase(image, w)
            phunwrap(g, phase)  # changes nothing the amplitude fit reads
            if o.amplitude_set == o.phase_set:
                (amp, ph), lines = fit(g, [amplitude, phase], *o.amplitude_set, o.tolerance)
                amp_lines = phase_lines = lines
            else:
                (amp,), amp_lines = fit(g, [amplitude], *o.amplitude_set, o.tolerance)
                (ph,), phase_lines = fit(g, [phase], *o.phase_set, o.tolerance)
            self.log.append('Performing least squares fit to amplitude...')
            self.log += amp_lines
            self.log.append('Performing least squares fit to phase...')
            self.log += phase_lines
            self.amp_coeff.append(amp)
            self.phase_coeff.append(ph)
            if o.residual is not None:
                self.residuals.append(residual(g, amplitude, phase, o.amplitude_set, amp,
                                               o.phase_set, ph, self.log))

    def fit_file_lines(self):
        o = self.options
        lines = ['#parametric_pupil_format 0',
                 '#numerical_aperture %.3f' % self.na,
                 '#immersion_refractive_index %.5f' % self.n_imm,
                 '#lens_id %d' % self.lens_id,
                 '#zernike_set_for_amplitude %d %d' % o.amplitude_set,
                 '#zernike_set_for_phase %d %d' % o.phase_set,
                 '#polar_fourier_set_for_amplitude -1 -1',
                 '#polar_fourier_set_for_phase -1 -1',
                 '#wavelength_count %d' % len(o.wavelengths),
                 '#wavelengths_um' + ''.join(' %f' % f32(wl / 1000.0) for wl in o.wavelengths)]
        for w in range(len(o.wavelengths)):
            for name, zset, coeff in (('amplitude', o.amplitude_set, self.amp_coeff[w]),
                                      ('phase', o.phase_set, self.phase_coeff[w])):
                if coeff is None:
                    continue
                lines.append('#zernike_coeff_%s_%d' % (name, w))
                i = 0
                for k, l in terms(*zset):
                    if l == 0:
                        lines.append('%3d %3d %g' % (k, l, coeff[i]))
                        i += 1
                    else:
                        lines.append('%3d %3d %g %g' % (k, l, coeff[i], coeff[i + 1]))
                        i += 2
        return lines


def progress_lines(stdout_text):
    """The non-empty lines of torvel's output from the first fit on."""
    lines = [line for line in stdout_text.splitlines() if line.strip()]
    for k, line in enumerate(lines):
        if line.startswith('Performing least squares fit'):
            return lines[k:]
    return []


def compare_lines(what, expected, actual, problems):
    for k in range(max(len(expected), len(actual))):
        e = expected[k] if k < len(expected) else '<none>'
        a = actual[k] if k < len(actual) else '<none>'
        if e != a:
            problems.append('%s line %d: expected %r, torvel wrote %r' % (what, k + 1, e, a))


def bits(values):
    return np.asarray(values, dtype=np.float32).view(np.uint32)


def compare_residual_image(ref, path, problems):
    image = Image(path)
    count = len(ref.residuals)
    if (image.nx, image.ny, image.nz_total, image.mode) != (ref.nx, ref.ny, count, 4):
        problems.append('residual image: %d x %d x %d mode %d, expected %d x %d x %d mode 4'
                        % (image.nx, image.ny, image.nz_total, image.mode,
                           ref.nx, ref.ny, count))
        return
    for slot, (real, imag, low, high, mean) in enumerate(ref.residuals):
        data = np.asarray(image.section(0, slot, 0), dtype=np.complex64).ravel()
        for channel, expected, actual in (('real', real, data.real), ('imaginary', imag,
                                                                      data.imag)):
            differ = np.nonzero(bits(expected) != bits(actual))[0]
            for k in differ[:5]:
                problems.append('residual slot %d pixel (%d, %d) %s: expected %r, torvel %r'
                                % (slot, k % image.nx, k // image.nx, channel,
                                   expected[k], float(actual[k])))
            if len(differ) > 5:
                problems.append('residual slot %d %s: %d pixels differ in all'
                                % (slot, channel, len(differ)))
        if slot == 0:
            recorded = (image.dmin, image.dmax, image.dmean)
            expected = (low, high, mean)
        else:
            recorded = tuple(image.wave_min_max[2 * slot - 2:2 * slot])
            expected = (low, high)
        if bits(recorded).tolist() != bits(expected).tolist():
            problems.append('residual slot %d statistics: expected %r, header holds %r'
                            % (slot, expected, recorded))


def check(image_path, fit_path, stdout_path, args):
    """Problems found in torvel's outputs for this run; empty when it agrees."""
    ref = Reference(image_path, args)
    problems = []
    with open(fit_path) as f:
        compare_lines('fit file', ref.fit_file_lines(), f.read().splitlines(), problems)
    with open(stdout_path) as f:
        compare_lines('standard output', ref.log, progress_lines(f.read()), problems)
    if ref.options.residual is not None:
        compare_residual_image(ref, ref.options.residual, problems)
    return problems


def main(argv):
    if len(argv) < 4:
        sys.stderr.write(__doc__)
        return 2
    try:
        problems = check(argv[1], argv[2], argv[3], argv[4:])
    except Unchecked as why:
        print('reference_fit: cannot check this run: %s' % why)
        return 2
    for p in problems:
        print('reference_fit: ' + p)
    print('reference_fit: %s' % ('agrees' if not problems else '%d differences' % len(problems)))
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
