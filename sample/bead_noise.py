"""Photon noise for a simulated bead stack: scales the stack so that its
brightest voxel holds `peak` photons, adds a background of `background`
photons per voxel and draws Poisson counts, keeping the voxel size. The
result names no wavelength (as a camera's file would not): give it to
torvel-retrieve with -w=.

usage: /usr/bin/python3 sample/bead_noise.py clean.mrc noisy.mrc [peak [background [seed]]]
"""
import sys

import mrcfile
import numpy as np

clean, noisy = sys.argv[1], sys.argv[2]
peak = float(sys.argv[3]) if len(sys.argv) > 3 else 1e4
background = float(sys.argv[4]) if len(sys.argv) > 4 else 100.0
seed = int(sys.argv[5]) if len(sys.argv) > 5 else 1
with mrcfile.open(clean) as f:
    data, voxel = f.data.astype(np.float64), f.voxel_size
counts = np.random.default_rng(seed).poisson(data / data.max() * peak + background)
with mrcfile.new(noisy, overwrite=True) as f:
    f.set_data(counts.astype(np.float32))
    f.voxel_size = voxel
