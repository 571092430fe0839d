"""The independent side of the image layer's interoperability tests.

Run with /usr/bin/python3, which has Debian's python3-mrcfile:
  check FILE OUT    validate FILE strictly, then dump its pixels to OUT as
                    float32 (complex as real, imaginary pairs); exit 1 if the
                    file is not valid MRC2014
  make DIR          write modeN.mrc for every mode mrcfile writes, each with
                    modeN.f32, the float32 values the layer must deliver
  pupil FILE        write a real-valued pupil function image with the example
                    function of docs/image-format.md
"""
import struct
import sys

import mrcfile
import numpy as np


# Kept identical to the example in docs/image-format.md.
def write_pupil_image(path, amplitude, phase, wavelengths_nm, dx, dy, x0, y0,
                      na, n_imm, lens=0):
    """amplitude, phase: float arrays shaped (nw, ny, nx), phase in radians.
    dx, dy: pixel spacing in 1/micrometre; (x0, y0): pupil centre in pixels."""
    nw, ny, nx = amplitude.shape
    sections = np.empty((2 * nw, ny, nx), dtype=np.float32)
    sections[0::2] = amplitude  # interleave order 0, one time point:
    sections[1::2] = phase      # section z + 2 * w
    waves = list(wavelengths_nm) + [0.0] * (5 - nw)
    # '=' is the machine's byte order with standard sizes, as mrcfile writes.
    block = struct.pack('=4s2i2h2f4h5f8f', b'TVL1', 8000, lens, 0, 0,
                        na * 10, n_imm * 100, nw, 1, 0, 0,
                        *waves, *([0.0] * 8))
    with mrcfile.new(path, overwrite=True) as mrc:
        mrc.set_data(sections)
        mrc.set_image_stack()
        mrc.voxel_size = (dx, dy, 1.0)
        mrc.header.origin = (-x0 * dx, -y0 * dy, 0.0)
        mrc.header.extra2 = block


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
    shape = (3, 4, 5)  # sections, rows, pixels per row
    ramp = np.arange(np.prod(shape), dtype=np.float64).reshape(shape)
    values = {
        0: (ramp * 7) % 256 - 128,
        1: ramp * 911 - 27000,
        2: ramp * 0.37 - 5.5,
        6: ramp * 1093,
        12: ramp * 0.0117 - 0.3,
    }
    # half floats at the edges: subnormals, the largest finite value, infinity
    values[12][0, 0, :] = [2.0 ** -20, -(2.0 ** -24), 65504.0, -np.inf, -0.0]
    dtypes = {0: np.int8, 1: np.int16, 2: np.float32, 6: np.uint16,
              12: np.float16}
    for mode, raw in values.items():
        write(directory, mode, raw.astype(dtypes[mode]))
    write(directory, 4, (ramp * 0.5 - 1j * ramp * 0.25).astype(np.complex64))
    return 0


def write(directory, mode, data):
    with mrcfile.new('%s/mode%d.mrc' % (directory, mode), overwrite=True) as mrc:
        mrc.set_data(data)
    as_float32(data).astype('<f4').tofile('%s/mode%d.f32' % (directory, mode))


def pupil(path):
    y, x = np.mgrid[0:6, 0:7]
    amplitude = np.stack([x + 0.5 * y, 2.0 * x - y])
    phase = np.stack([0.25 * x * y, -0.125 * x])
    write_pupil_image(path, amplitude, phase, [528.0, 617.0], dx=0.02,
                      dy=0.03, x0=3.0, y0=2.5, na=1.4, n_imm=1.515, lens=10612)
    return 0


if __name__ == '__main__':
    command = sys.argv[1]
    if command == 'check':
        sys.exit(check(sys.argv[2], sys.argv[3]))
    if command == 'make':
        sys.exit(make(sys.argv[2]))
    if command == 'pupil':
        sys.exit(pupil(sys.argv[2]))
    sys.exit('unknown command ' + command)
