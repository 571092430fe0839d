"""The independent side of the image stack tests, run with /usr/bin/python3 and
Debian's python3-mrcfile and python3-tifffile:
  check DIR  DIR/written.mrc and DIR/written.tif, written by the layer from the
             stack of expected_written(), must be that stack to mrcfile (which
             must also validate the MRC file) and to tifffile (an ImageJ
             hyperstack with its data in one block, as ImageJ reads it)
  make DIR   write stacks with tifffile and mrcfile; for each NAME, NAME.f32
             holds the voxels the layer must deliver (wavelength after
             wavelength, plane after plane) and NAME.txt "nx ny nz nw dx dy dz"
"""
import io
import struct
import sys

import mrcfile
import numpy as np
import tifffile

# The stack the C++ side writes: 2 wavelengths of 3 planes of 4 x 5 voxels.
NW, NZ, NY, NX = 2, 3, 4, 5
SPACING = (0.065, 0.07, 0.15)
WAVES = (520.0, 600.0)


def expected_written():
    return (np.arange(NW * NZ * NY * NX, dtype=np.float32) * 0.5 - 3).reshape(NW, NZ, NY, NX)


def fail(what):
    print('stack_interop.py: ' + what)
    return 1


def check_mrc(path, data):
    said = io.StringIO()
    if not mrcfile.validate(path, print_file=said):
        return fail(path + ': mrcfile.validate refuses it:\n' + said.getvalue())
    with mrcfile.open(path, permissive=False) as mrc:
        if not np.array_equal(mrc.data, data.reshape(NW * NZ, NY, NX)):
            return fail(path + ': other voxels')
        size = mrc.voxel_size
        if not np.allclose([size.x, size.y, size.z], SPACING, rtol=1e-6):
            return fail(path + ': spacing %s' % (size,))
        block = mrc.header.extra2.tobytes()  # bytes 112 to 195
        tag, kind = struct.unpack_from('<4si', block, 0)
        nw, nt, interleave = struct.unpack_from('<3h', block, 24)
        waves = struct.unpack_from('<5f', block, 32)
        if (tag, kind, nw, nt, interleave) != (b'TVL1', 0, NW, 1, 0) or waves[:NW] != WAVES:
            return fail(path + ': block %s' % ((tag, kind, nw, nt, interleave, waves),))
    return 0


def check_tiff(path, data):
    with tifffile.TiffFile(path) as tif:
        series = tif.series[0]
        if not tif.is_imagej or series.axes != 'ZCYX':
            return fail(path + ': axes %s, ImageJ %s' % (series.axes, tif.is_imagej))
        # ImageJ reads a hyperstack's pages as one block from the first offset.
        if series.dataoffset is None:
            return fail(path + ': pixels not in one block')
        if not np.array_equal(series.asarray(), data.transpose(1, 0, 2, 3)):
            return fail(path + ': other voxels')
        meta = tif.imagej_metadata
        page = tif.pages[0]
        xres = page.tags['XResolution'].value
        yres = page.tags['YResolution'].value
        got = (xres[1] / xres[0], yres[1] / yres[0], meta.get('spacing'))
        if not np.allclose(got, SPACING, rtol=1e-6) or meta.get('unit') != 'micron':
            return fail(path + ': spacing %s, unit %s' % (got, meta.get('unit')))
        if (meta.get('channels'), meta.get('slices')) != (NW, NZ) or page.dtype != np.float32:
            return fail(path + ': metadata %s, %s' % (meta, page.dtype))
    return 0


def check(directory):
    data = expected_written()
    return check_mrc(directory + '/written.mrc', data) or check_tiff(directory + '/written.tif',
                                                                      data)


def expect(directory, name, voxels, spacing):
    nw, nz, ny, nx = voxels.shape
    voxels.astype('<f4').tofile('%s/%s.f32' % (directory, name))
    with open('%s/%s.txt' % (directory, name), 'w') as f:
        f.write('%d %d %d %d %.9g %.9g %.9g\n' % ((nx, ny, nz, nw) + tuple(spacing)))


def make(directory):
    rng = np.random.default_rng(7)
    # An ImageJ hyperstack: 4 slices of 3 channels, spacing in the description.
    hyper = rng.normal(size=(4, 3, 6, 7)).astype(np.float32)
    tifffile.imwrite(directory + '/hyper.tif', hyper, imagej=True, resolution=(10.0, 10.0),
                     metadata={'axes': 'ZCYX', 'spacing': 0.3, 'unit': 'um'})
    expect(directory, 'hyper', hyper.transpose(1, 0, 2, 3), (0.1, 0.1, 0.3))
    # Plain multi-page files: pixel size in pixels per centimetre, per inch,
    # none at all; 16-bit pages in Deflate-compressed strips of 2 rows.
    plain8 = rng.integers(0, 256, size=(5, 6, 7), dtype=np.uint8)
    tifffile.imwrite(directory + '/plain8.tif', plain8, resolution=(50000, 40000),
                     resolutionunit='CENTIMETER', photometric='minisblack')
    expect(directory, 'plain8', plain8[np.newaxis], (0.2, 0.25, 0))
    plain16 = rng.integers(0, 65536, size=(3, 9, 4), dtype=np.uint16)
    tifffile.imwrite(directory + '/plain16.tif', plain16, compression='zlib', rowsperstrip=2,
                     photometric='minisblack')
    expect(directory, 'plain16', plain16[np.newaxis], (0, 0, 0))
    plainf = rng.normal(size=(2, 5, 3)).astype(np.float32)
    tifffile.imwrite(directory + '/plainf.tif', plainf, resolution=(25400 / 0.5, 25400 / 0.5),
                     resolutionunit='INCH', photometric='minisblack')
    expect(directory, 'plainf', plainf[np.newaxis], (0.5, 0.5, 0))
    # Colour pages, which a stack cannot hold.
    tifffile.imwrite(directory + '/rgb.tif', np.zeros((2, 4, 4, 3), dtype=np.uint8),
                     photometric='rgb')
    # MRC stacks in 16-bit integers (spacing in the header) and in floats
    # (no spacing): one wavelength without the multi-wavelength block.
    int16 = rng.integers(-32768, 32768, size=(3, 4, 5), dtype=np.int16)
    with mrcfile.new(directory + '/int16.mrc', overwrite=True) as mrc:
        mrc.set_data(int16)
        mrc.voxel_size = (0.1, 0.1, 0.25)
    expect(directory, 'int16', int16[np.newaxis], (0.1, 0.1, 0.25))
    float32 = rng.normal(size=(2, 3, 4)).astype(np.float32)
    with mrcfile.new(directory + '/float32.mrc', overwrite=True) as mrc:
        mrc.set_data(float32)
    expect(directory, 'float32', float32[np.newaxis], (0, 0, 0))
    return 0


if __name__ == '__main__':
    commands = {'check': check, 'make': make}
    sys.exit(commands[sys.argv[1]](*sys.argv[2:]))
