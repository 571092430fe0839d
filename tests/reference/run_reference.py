"""Runs torvel on a few pupil function images and option sets and checks every
output against the independent computation of reference_fit.py.

Use:  /usr/bin/python3 run_reference.py TORVEL TORVEL_RENDER MAKE_SAMPLE_PUPIL SAMPLE_MODEL
                                        SAMPLE_IMAGE WORK_DIR

The images are the sample model rendered by torvel-render with the sample's
noise added by make_sample_pupil (so that the phase wraps as in a
measurement), one is cut from them to be wider than high, and the shipped
sample is fitted too. Exit status 0 when every run agrees, 1 otherwise.
"""
import os
import shutil
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # leave no cache in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import reference_fit  # noqa: E402  (fails with a clear message without numpy or mrcfile)
import mrcfile  # noqa: E402
import numpy as np  # noqa: E402


def make(render, maker, model, path, *args):
    """The sample model rendered with args, with the sample's noise."""
    rendered = path + '.rendered.mrc'
    subprocess.run([render, model, rendered] + list(args), check=True)
    subprocess.run([maker, rendered, path], check=True)
    return path


def cut_rows(source, path, first, count, shift_x, shift_y):
    """A copy of source holding only rows first .. first+count-1, its origin
    moved so that the pupil centre lands shift_x, shift_y pixels (fractions)
    away from where the samples were made. Rows no longer equal columns,
    which is where the unwrapping's row stride shows, and the centre falls
    between pixels, which the start pixel and the disc edges must handle."""
    with mrcfile.open(source, permissive=False) as mrc:
        data = np.array(mrc.data[:, first:first + count, :])
        spacing = mrc.voxel_size.copy()
        origin = mrc.header.origin.copy()
        block = mrc.header.extra2.copy()
    x = float(origin.x) - shift_x * float(spacing.x)
    y = float(origin.y) + (first - shift_y) * float(spacing.y)
    with mrcfile.new(path, overwrite=True) as mrc:
        mrc.set_data(data)
        mrc.set_image_stack()
        mrc.voxel_size = spacing
        mrc.header.origin = (x, y, origin.z)
        mrc.header.extra2 = block  # the multi-wavelength block: type, optics, wavelengths
    return path


def run_case(torvel, work, name, image, options):
    fit = os.path.join(work, name + '.txt')
    residual = os.path.join(work, name + '_residual.mrc')
    out = os.path.join(work, name + '.out')
    args = options + ['-residual=' + residual]
    for stale in (fit, residual):
        if os.path.exists(stale):
            os.remove(stale)
    start = time.time()
    with open(out, 'w') as stdout:
        status = subprocess.run([torvel, image, fit] + args, stdout=stdout,
                                stderr=subprocess.PIPE, text=True, timeout=120)
    torvel_time = time.time() - start
    if status.returncode != 0:
        return ['torvel exited with %d: %s' % (status.returncode, status.stderr.strip())]
    start = time.time()
    problems = reference_fit.check(image, fit, out, args)
    print('%-22s %-58s torvel %.1fs, reference %.1fs: %s'
          % (name, ' '.join(options) or '(defaults)', torvel_time, time.time() - start,
             'agrees' if not problems else '%d differences' % len(problems)))
    return problems


def main(argv):
    if len(argv) != 7:
        sys.stderr.write(__doc__)
        return 2
    torvel, render, maker, model, sample, work = argv[1:]
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    at = lambda name: os.path.join(work, name)
    complex64 = make(render, maker, model, at('complex64.mrc'), '-size=64')
    real64 = make(render, maker, model, at('real64.mrc'), '-size=64', '-form=real')
    complex96 = make(render, maker, model, at('complex96.mrc'), '-size=96')
    real128 = make(render, maker, model, at('real128.mrc'), '-size=128', '-form=real')
    wide = cut_rows(complex96, at('wide96x80.mrc'), 8, 80, 0.37, 0.62)
    cases = [
        ('complex64', complex64, []),
        ('complex64_sines', complex64, ['-zernike_amp=6:4', '-zernike_phase=6:4']),
        ('real64_sines', real64, ['-zernike_amp=4:2', '-zernike_phase=7:3']),
        ('complex96_tol', complex96, ['-tol=0.01', '-zernike_phase=10:4', '-w=1:0']),
        ('complex96_low_rank', complex96, ['-tol=0.3', '-zernike_amp=6:2',
                                           '-zernike_phase=10:4']),
        ('real128_phase_only', real128, ['-zernike_amp=-1', '-zernike_phase=5:1', '-w=617']),
        ('real128', real128, []),
        ('wide96x80', wide, ['-zernike_phase=6:2']),
        ('sample256', sample, []),
    ]
    failures = 0
    start = time.time()
    for name, image, options in cases:
        try:
            problems = run_case(torvel, work, name, image, options)
        except reference_fit.Unchecked as why:
            problems = ['the reference cannot check this run: %s' % why]
        for p in problems:
            print('    ' + p)
        failures += bool(problems)
    print('%d of %d runs agree with the reference computation (%.1fs)'
          % (len(cases) - failures, len(cases), time.time() - start))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
