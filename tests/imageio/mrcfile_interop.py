"""The independent side of the image layer's interoperability tests, run with
/usr/bin/python3 and Debian's python3-mrcfile:
  check FILE OUT  validate FILE strictly, dump its pixels to OUT as float32
                  (complex as real, imaginary pairs); exit 1 when not valid
  make DIR        write modeN.mrc for every mode mrcfile writes, and in modeN.f32
                  the float32 values the layer must deliver
  pupil FILE      run the Python example of docs/image-format.md, taken from the page
"""
import os
import sys

import mrcfile
import numpy as np

DOCS = os.path.join(os.path.dirname(__file__), '..', '..', 'docs', 'image-format.md')


def as_float32(data):
    if np.iscomplexobj(data):
        return np.ascontiguousarray(data.astype(np.complex64)).view(np.float32)
    return data.astype(np.float32)


def check(path, out):
    if not mrcfile.validate(path):
        return 1
    with mrcfile.open(path, permissive=False) as mrc:
        as_float32(mrc.data).astype('<f4').tofile(out)
    return 0


def make(directory):
    ramp = np.arange(3 * 4 * 5, dtype=np.float64).reshape(3, 4, 5)
    half = ramp * 0.0117 - 0.3
    # half floats at the edges: subnormals, the largest finite value, infinity
    half[0, 0, :] = [2.0 ** -20, -(2.0 ** -24), 65504.0, -np.inf, -0.0]
    for mode, data in [(0, ((ramp * 7) % 256 - 128).astype(np.int8)),
                       (1, (ramp * 911 - 27000).astype(np.int16)),
                       (2, (ramp * 0.37 - 5.5).astype(np.float32)),
                       (4, (ramp * 0.5 - 1j * ramp * 0.25).astype(np.complex64)),
                       (6, (ramp * 1093).astype(np.uint16)),
                       (12, half.astype(np.float16))]:
        with mrcfile.new('%s/mode%d.mrc' % (directory, mode), overwrite=True) as mrc:
            mrc.set_data(data)
        as_float32(data).astype('<f4').tofile('%s/mode%d.f32' % (directory, mode))
    return 0


def pupil(path):
    with open(DOCS) as page:
        example = page.read().split('```python\n')[1].split('```')[0]
    names = {}
    exec(example, names)
    y, x = np.mgrid[0:6, 0:7]
    names['write_pupil_image'](
        path, np.stack([x + 0.5 * y, 2.0 * x - y]), np.stack([0.25 * x * y, -0.125 * x]),
        [528.0, 617.0], dx=0.02, dy=0.03, x0=3.0, y0=2.5, na=1.4, n_imm=1.515, lens=10612)
    return 0


if __name__ == '__main__':
    commands = {'check': check, 'make': make, 'pupil': pupil}
    sys.exit(commands[sys.argv[1]](*sys.argv[2:]))
