"""A pupil function image read with mrcfile, torvel's header values included."""

import mrcfile
import numpy as np


def read_pupil(path):
    """The complex sections of a pupil image, (nw, ny, nx) complex64, and the
    keywords torvel.fit takes with them, computed from the header in single
    precision exactly as torvel computes them."""
    with mrcfile.open(path) as mrc:
        h = mrc.header
        block = h.extra2.tobytes()  # header bytes 112 on: the multi-wavelength block
        if block[:4] != b"TVL1":
            raise ValueError(f"{path}: no multi-wavelength block")
        lens = int(np.frombuffer(block, "<i4", 1, 8)[0])
        p1, p2 = np.frombuffer(block, "<f4", 2, 16)
        nw = int(np.frombuffer(block, "<i2", 1, 24)[0])
        dx = np.float32(h.cella.x) / np.float32(h.mx)
        dy = np.float32(h.cella.y) / np.float32(h.my)
        geometry = dict(
            na=p1 / np.float32(10),
            n=p2 / np.float32(100),
            lens=lens,
            wavelengths_nm=np.frombuffer(block, "<f4", nw, 32).copy(),
            spacing=(dx, dy),
            centre=((np.float32(0) - h.origin.x) / dx, (np.float32(0) - h.origin.y) / dy),
        )
        return mrc.data.copy(), geometry
