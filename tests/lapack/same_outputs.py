"""Runs one torvel binary on the same inputs under four LAPACK builds
(reference LAPACK with reference BLAS, OpenBLAS serial, OpenBLAS with its own
threads, OpenBLAS with OpenMP threads)
and checks that what it prints does not depend on the build: standard output
and the fit file byte for byte, the residual images to a few float ulps of
their largest pixel (the coefficients' last bits differ between builds, and
the fit file prints six digits of them).

Use:  /usr/bin/python3 same_outputs.py TORVEL TORVEL_RENDER MAKE_SAMPLE_PUPIL MODEL WORK_DIR
                                       [TEST_PROGRAM]

The images are the sample model (MODEL, a fit file) rendered by torvel-render
in several sizes and forms, two wavelengths each, with the sample's noise
added by make_sample_pupil.

Each build is chosen by LD_LIBRARY_PATH: a directory per build links the
LAPACK and BLAS names the dynamic loader looks for to that build's files, and
the loader's own report (LD_TRACE_LOADED_OBJECTS) must show that build's files
and no other before a run counts. TEST_PROGRAM, a GoogleTest binary, is then
run under each build too, with its arguments from the line below.
"""
import os
import shutil
import subprocess
import sys

sys.dont_write_bytecode = True
import mrcfile  # noqa: E402
import numpy as np  # noqa: E402

LIB = '/usr/lib/x86_64-linux-gnu'
# Build name: (LAPACK file, BLAS file); a build's LAPACK is loaded under every
# LAPACK name a binary may need.
BUILDS = {
    'reference': (LIB + '/lapack/liblapack.so.3', LIB + '/blas/libblas.so.3'),
    'openblas-serial': (LIB + '/openblas-serial/libopenblas.so.0',
                        LIB + '/openblas-serial/libblas.so.3'),
    'openblas-pthread': (LIB + '/openblas-pthread/libopenblas.so.0',
                         LIB + '/openblas-pthread/libblas.so.3'),
    'openblas-openmp': (LIB + '/openblas-openmp/libopenblas.so.0',
                        LIB + '/openblas-openmp/libblas.so.3'),
}
LAPACK_NAMES = ('libopenblas.so.0', 'liblapack.so.3')
TEST_FILTER = '--gtest_filter=*RightHandSides*'
ULPS = 4  # residual pixels may differ by this many ulps of the largest pixel

CASES = [  # image (torvel-render arguments), torvel options
    ('complex64', '-size=64', ''),
    ('real96', '-size=96 -form=real', '-zernike_amp=6:2 -zernike_phase=10:4'),
    ('complex128', '-size=128', '-tol=0.3 -zernike_amp=4:0 -zernike_phase=12:2 -w=1:0'),
    ('real160', '-size=160 -form=real', '-zernike_amp=16:16 -zernike_phase=16:16'),
    ('complex200', '-size=200', '-tol=0.01 -zernike_amp=8:8 -zernike_phase=8:0'),
]


def library_dir(work, build):
    lapack, blas = BUILDS[build]
    path = os.path.join(work, 'lib-' + build)
    os.makedirs(path)
    for name in LAPACK_NAMES:
        os.symlink(lapack, os.path.join(path, name))
    os.symlink(blas, os.path.join(path, 'libblas.so.3'))
    return path


def loaded_numerics(program, env):
    """Real paths of the LAPACK and BLAS objects the loader picks for program."""
    trace = subprocess.run([program], env=dict(env, LD_TRACE_LOADED_OBJECTS='1'),
                           capture_output=True, text=True, check=True).stdout
    found = set()
    for line in trace.splitlines():
        parts = line.split()
        if len(parts) >= 3 and parts[1] == '=>' and ('blas' in parts[0] or 'lapack' in parts[0]):
            found.add(os.path.realpath(parts[2]))
    return found


def environment(libraries, build, program):
    env = dict(os.environ, LD_LIBRARY_PATH=libraries[build])
    expected = {os.path.realpath(f) for f in BUILDS[build]}
    loaded = loaded_numerics(program, env)
    if not loaded or not loaded <= expected:
        sys.exit('same_outputs: %s under %s loads %s, expected only %s'
                 % (program, build, sorted(loaded), sorted(expected)))
    return env


def run(torvel, env, work, tag, image, options):
    fit, residual = os.path.join(work, tag + '.txt'), os.path.join(work, tag + '.mrc')
    args = [torvel, image, fit, '-residual=' + residual] + options.split()
    done = subprocess.run(args, env=env, capture_output=True, timeout=600)
    if done.returncode != 0:
        sys.exit('same_outputs: %s failed: %s' % (' '.join(args), done.stderr.decode()))
    with open(fit, 'rb') as f, mrcfile.open(residual, permissive=True) as mrc:
        # Names differ between builds; the summary names the files, the rest must not.
        return done.stdout.replace(tag.encode(), b'RUN'), f.read(), np.array(mrc.data)


def residual_problem(expected, actual):
    if expected.shape != actual.shape:
        return 'shape %s, expected %s' % (actual.shape, expected.shape)
    largest = float(np.max(np.abs(expected)))
    allowed = ULPS * float(np.spacing(np.float32(largest)))
    worst = float(np.max(np.abs(actual.astype(np.complex128) - expected)))
    return None if worst <= allowed else 'differs by %g, more than %g' % (worst, allowed)


def main(argv):
    if len(argv) not in (6, 7):
        sys.stderr.write(__doc__)
        return 2
    torvel, render, maker, model, work = argv[1:6]
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    libraries = {build: library_dir(work, build) for build in BUILDS}
    envs = {build: environment(libraries, build, torvel) for build in BUILDS}
    failures = 0
    for name, image_args, options in CASES:
        image = os.path.join(work, name + '.mrc')
        subprocess.run([render, model, image + '.rendered'] + image_args.split(), check=True,
                       stdout=subprocess.DEVNULL)
        subprocess.run([maker, image + '.rendered', image], check=True, stdout=subprocess.DEVNULL)
        results = {b: run(torvel, env, work, name + '-' + b, image, options)
                   for b, env in envs.items()}
        first, (out, fit, residual) = next(iter(results.items()))
        before = failures
        for build, (other_out, other_fit, other_residual) in results.items():
            problems = ['standard output differs'] if other_out != out else []
            problems += ['fit file differs'] if other_fit != fit else []
            problem = residual_problem(residual, other_residual)
            problems += ['residual image ' + problem] if problem else []
            for p in problems:
                print('%-11s %s against %s: %s' % (name, build, first, p))
            failures += bool(problems)
        print('%-11s %-58s %s' % (name, options or '(defaults)',
                                  'same under every build' if failures == before else 'DIFFERS'))
    if len(argv) == 7:
        for build in BUILDS:
            env = environment(libraries, build, argv[6])
            done = subprocess.run([argv[6], TEST_FILTER], env=env, capture_output=True,
                                  text=True)
            print('%s under %s: %s' % (argv[6], build, 'passes' if done.returncode == 0
                                       else 'FAILS\n' + done.stdout[-2000:]))
            failures += done.returncode != 0
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
