"""The Python module against the torvel program and against itself.

Run by CTest with the module's folder on PYTHONPATH, TORVEL_BINARY naming
the program and TORVEL_SOURCE_DIR the source tree.
"""

import json
import os
import subprocess
import threading
import time
from pathlib import Path

import mrcfile
import numpy as np
import pytest

import torvel
from mrc_pupil import read_pupil

SOURCE = Path(os.environ["TORVEL_SOURCE_DIR"])
PROGRAM = os.environ["TORVEL_BINARY"]
PSF_PROGRAM = str(Path(PROGRAM).parent / "torvel-psf")
RETRIEVE_PROGRAM = str(Path(PROGRAM).parent / "torvel-retrieve")
SAMPLE = SOURCE / "sample" / "pupil.mrc"
SAMPLE_MODEL = SOURCE / "sample" / "model_fit.txt"
# The residual, the PSF's planes and the retrieval's sums are split between
# threads, which may change their last bits: the programs run with as many
# as the module (on a busy machine they would take fewer).
THREADS = os.environ.get("OMP_NUM_THREADS") or str(len(os.sched_getaffinity(0)))


def run(command, **keywords):
    """A program's run with the module's thread count."""
    return subprocess.run([str(part) for part in command], capture_output=True,
                          env={**os.environ, "OMP_NUM_THREADS": THREADS}, **keywords)


def run_program(tmp_path, *options):
    fit_file = tmp_path / "program_fit.txt"
    residual = tmp_path / "program_residual.mrc"
    run([PROGRAM, SAMPLE, fit_file, f"-residual={residual}", *options], check=True)
    with mrcfile.open(residual) as mrc:
        return fit_file.read_bytes(), mrc.data.copy()


def written(model, tmp_path, name):
    path = tmp_path / name
    model.write(path)
    return path.read_bytes()


@pytest.mark.parametrize("options, keywords", [
    ((), {}),
    (("-w=617:0", "-zernike_amp=-1", "-zernike_phase=12", "-tol=0.001"),
     dict(w=(617, 0), zernike_amp=None, zernike_phase=12, tol=0.001)),
])
def test_the_sample_fits_as_the_program_fits_it(tmp_path, options, keywords):
    expected_file, expected_residual = run_program(tmp_path, *options)

    from_file, residual = torvel.fit(SAMPLE, residual=True, **keywords)
    assert written(from_file, tmp_path, "file_fit.txt") == expected_file
    assert np.array_equal(residual, expected_residual)

    image, geometry = read_pupil(SAMPLE)
    from_array, residual = torvel.fit(image, residual=True, **keywords, **geometry)
    assert written(from_array, tmp_path, "array_fit.txt") == expected_file
    assert np.array_equal(residual, expected_residual)
    for w in range(len(from_file.wavelengths_nm)):
        assert np.array_equal(from_array.phase(w), from_file.phase(w))
        assert np.array_equal(from_array.amplitude(w), from_file.amplitude(w))

    read_back = torvel.read_fit(tmp_path / "array_fit.txt")
    assert written(read_back, tmp_path, "again.txt") == expected_file


def test_a_model_describes_its_terms_and_coefficients():
    model = torvel.read_fit(SAMPLE_MODEL)
    assert (model.na, model.zernike_phase) == (pytest.approx(1.4), (8, 0))
    terms = model.terms()
    # The set 8:0: every term of orders 0 to 7, then R_8^0 (Noll 37, OSA 40).
    assert len(terms) == len(model.phase(0)) == 37
    assert sorted(t[3] for t in terms) == list(range(1, 38))
    assert sorted(t[4] for t in terms) == list(range(0, 36)) + [40]
    assert terms[3] == (2, 0, "cos", 4, 4)
    assert (1, 1, "sin", 3, 1) in terms
    with pytest.raises(IndexError):
        model.phase(len(model.wavelengths_nm))


def test_a_rendered_model_fits_back_in_memory():
    model = torvel.read_fit(SAMPLE_MODEL)
    spacing, centre = 0.02, (128.0, 128.0)
    image = torvel.render(model, size=256, spacing=spacing, centre=centre)
    assert image.shape == (len(model.wavelengths_nm), 256, 256) and image.dtype == np.complex64
    fitted = torvel.fit(image, na=model.na, n=model.n, wavelengths_nm=model.wavelengths_nm,
                        spacing=spacing, centre=centre)
    for w in range(len(model.wavelengths_nm)):
        want, got = model.phase(w), fitted.phase(w)
        scale = np.abs(want).max()
        # The complex image holds the phase modulo 2 pi: the piston may come
        # back whole turns away.
        turns = (got[0] - want[0]) / (2 * np.pi)
        assert abs(turns - round(turns)) < 1e-6
        assert np.abs(got[1:] - want[1:]).max() < 1e-6 * scale
        assert np.abs(fitted.amplitude(w) - model.amplitude(w)).max() < 1e-6
    # Dropping defocus renders the pupil without it, the model left whole.
    flat = torvel.fit(torvel.render(model, size=256, spacing=spacing, centre=centre,
                                    drop="defocus"),
                      na=model.na, n=model.n, wavelengths_nm=model.wavelengths_nm,
                      spacing=spacing, centre=centre)
    defocus = [t[:2] for t in model.terms()].index((2, 0))
    assert abs(flat.phase(0)[defocus]) < 1e-6 * np.abs(model.phase(0)).max()
    assert model.phase(0)[defocus] != 0


def test_the_report_holds_what_the_program_exports(tmp_path):
    model = torvel.read_fit(SAMPLE_MODEL)
    content = torvel.report(model, json=tmp_path / "report.json")
    run([Path(PROGRAM).parent / "torvel-report", SAMPLE_MODEL, f"-json={tmp_path / 'program.json'}"],
        check=True)
    exported = (tmp_path / "program.json").read_text()
    assert (tmp_path / "report.json").read_text() == exported
    assert content == json.loads(exported)


def program_stack(path):
    """An MRC stack as (nw, nz, ny, nx) float32, and its header's spacing in nm."""
    with mrcfile.open(path) as mrc:
        block = mrc.header.extra2.tobytes()
        nw = int(np.frombuffer(block, "<i2", 1, 24)[0])
        voxels = mrc.data.reshape(nw, -1, *mrc.data.shape[1:])
        return voxels, (float(mrc.voxel_size.x) * 1000, float(mrc.voxel_size.z) * 1000)


@pytest.mark.parametrize("options, keywords", [
    (("-size=24:20:6", "-dx=90", "-dz=250"), dict(size=(24, 20, 6), dx=90, dz=250)),
    (("-size=16", "-w=617", "-drop=defocus", "-model=vector", "-normalize=peak",
      "-amplitude=uniform"),
     dict(size=16, w=617, drop="defocus", vector=True, normalize="peak", amplitude="uniform")),
])
def test_the_psf_is_the_stack_the_program_writes(tmp_path, options, keywords):
    written_stack = tmp_path / "program.mrc"
    run([PSF_PROGRAM, SAMPLE_MODEL, written_stack, *options], check=True)
    voxels, (dx_nm, dz_nm) = program_stack(written_stack)
    model = torvel.read_fit(SAMPLE_MODEL)
    stack = torvel.psf(model, **keywords)
    assert stack.voxels.dtype == np.float32 and np.array_equal(stack.voxels, voxels)
    assert (stack.dx_nm, stack.dz_nm) == (pytest.approx(dx_nm), pytest.approx(dz_nm))
    # A name that is not UTF-8, as Python passes it: bytes.
    module_stack = os.fsencode(tmp_path) + b"/module\xff.mrc"
    torvel.psf(model, **keywords, path=module_stack)
    assert open(module_stack, "rb").read() == written_stack.read_bytes()
    # Dropping a term leaves the model whole.
    assert np.array_equal(model.phase(0), torvel.read_fit(SAMPLE_MODEL).phase(0))


def test_a_retrieval_from_an_array_is_the_programs(tmp_path):
    # A bead: the sample model's PSF without its defocus, with photons and a
    # background, as a camera stack of 16-bit counts.
    model = torvel.read_fit(SAMPLE_MODEL)
    optics = dict(na=model.na, n=model.n, w=617, dx=80, dz=200)
    psf = torvel.psf(model, size=(40, 40, 9), dx=80, dz=200, w=617, drop="defocus")
    counts = np.round(psf.voxels[0] * 2e6 + 100).astype(np.uint16)
    bead = tmp_path / "bead.mrc"
    with mrcfile.new(bead) as mrc:
        mrc.set_data(counts.astype(np.float32))
    options = ["-size=32", "-iterations=4"]
    run([RETRIEVE_PROGRAM, bead, tmp_path / "program.mrc",
         *(f"-{k}={v}" for k, v in optics.items()), *options], check=True)
    image, geometry = read_pupil(tmp_path / "program.mrc")

    pupil = torvel.retrieve(counts, **optics, size=32, iterations=4,
                            path=tmp_path / "module.mrc")
    assert pupil.image.dtype == np.complex64 and pupil.image.shape == (1, 32, 32)
    assert np.array_equal(pupil.image[0], image)
    # The same file but for the label (header bytes 224 to 1024) naming the stack.
    ours, theirs = ((tmp_path / name).read_bytes() for name in ("module.mrc", "program.mrc"))
    assert (ours[:224], ours[1024:]) == (theirs[:224], theirs[1024:])
    assert len(pupil.errors[0]) == 4 and pupil.background[0] > 0
    # fit() takes the pupil with its geometry, as it reads the file's.
    assert written(torvel.fit(pupil), tmp_path, "a.txt") == \
        written(torvel.fit(tmp_path / "program.mrc"), tmp_path, "b.txt")
    assert (pupil.na, pupil.n, pupil.wavelengths_nm) == (geometry["na"], geometry["n"], [617])


def test_bad_input_raises_with_the_programs_message_and_prints_nothing(capfd, tmp_path):
    image, geometry = read_pupil(SAMPLE)
    with pytest.raises(TypeError, match="complex64"):
        torvel.fit(image.astype(np.complex128), **geometry)
    with pytest.raises(ValueError, match=r"shape \(ny, nx\) or \(nw, ny, nx\)"):
        torvel.fit(image[np.newaxis], **geometry)

    # The program's message for a NaN inside the disc, from a file and an array.
    broken = image.copy()
    broken[1, 128, 130] = np.nan
    bad_file = tmp_path / "nan.mrc"
    with mrcfile.open(SAMPLE) as mrc, mrcfile.new(bad_file) as out:
        out.set_data(broken)
        out.header.extra2 = mrc.header.extra2
        out.voxel_size = mrc.voxel_size
        out.header.origin = mrc.header.origin
    program = run([PROGRAM, bad_file, tmp_path / "fit.txt"], text=True)
    assert program.returncode == 1
    assert program.stderr == (f"torvel: {bad_file}: the amplitude at wavelength 617 (1) "
                              "is not finite inside the pupil\n")
    capfd.readouterr()
    with pytest.raises(torvel.Error) as raised:
        torvel.fit(bad_file)
    assert str(raised.value) == program.stderr.rstrip("\n")
    with pytest.raises(torvel.Error, match=r"^torvel: array: the amplitude at wavelength 617 \(1\) "
                                           r"is not finite inside the pupil$"):
        torvel.fit(broken, **geometry)

    # Options and header values are checked with the program's own words.
    with pytest.raises(torvel.Error, match=r"^torvel: for -zernike_phase=n:m, if n is not "
                                           r"negative, then m must satisfy 0 <= m <= n"):
        torvel.fit(image, zernike_phase=(4, 1), **geometry)
    with pytest.raises(torvel.Error, match=r"^torvel: invalid numerical aperture \(1\.6\)"):
        torvel.fit(image, **{**geometry, "na": 1.6})
    with pytest.raises(torvel.Error, match=r"^torvel: \S+:3:1: syntax error"):
        bad_fit = tmp_path / "bad_fit.txt"
        bad_fit.write_text("\n".join(SAMPLE_MODEL.read_text().splitlines()[:2] + ["x"]) + "\n")
        torvel.read_fit(bad_fit)
    assert capfd.readouterr() == ("", "")


def test_psf_and_retrieve_refuse_with_their_programs_messages(capfd, tmp_path):
    def program_says(*command):
        program = run(command, text=True)
        assert program.returncode == 1
        return program.stderr.rstrip("\n")

    model = torvel.read_fit(SAMPLE_MODEL)
    expected = program_says(PSF_PROGRAM, SAMPLE_MODEL, tmp_path / "psf.mrc", "-size=0",
                            "-normalize=max", "-w=700")
    assert expected.count("\n") == 2
    capfd.readouterr()
    with pytest.raises(torvel.Error) as raised:
        torvel.psf(model, size=0, normalize="max", w=700)
    assert str(raised.value) == expected
    with pytest.raises(torvel.Error, match=r"^torvel-psf: \S+/x\.png: the name must end in"):
        torvel.psf(model, path=tmp_path / "x.png")

    expected = program_says(RETRIEVE_PROGRAM, tmp_path / "none.mrc", tmp_path / "pupil.mrc",
                            "-na=1.6", "-n=1.515", "-iterations=0")
    with pytest.raises(torvel.Error) as raised:
        torvel.retrieve(np.ones((3, 16, 16)), na=1.6, n=1.515, iterations=0)
    assert str(raised.value) == expected
    expected = program_says(RETRIEVE_PROGRAM, tmp_path / "none.mrc", tmp_path / "pupil.mrc",
                            "-na=1.4", "-n=1.515")
    with pytest.raises(torvel.Error) as raised:
        torvel.retrieve(tmp_path / "none.mrc", na=1.4, n=1.515)
    assert str(raised.value) == expected
    optics = dict(na=1.4, n=1.515, w=600, dx=80, dz=200, size=16)
    with pytest.raises(torvel.Error, match=r"^torvel-retrieve: array: no bead found: nothing "
                                           r"stands out of the background"):
        torvel.retrieve(np.full((5, 20, 20), 3, np.uint16), **optics)
    with pytest.raises(TypeError, match=r"^torvel: retrieve\(\) needs the keyword n "):
        torvel.retrieve(np.ones((5, 20, 20)), na=1.4)
    with pytest.raises(TypeError, match="real numbers"):
        torvel.retrieve(np.ones((5, 20, 20), np.complex64), **optics)
    with pytest.raises(ValueError, match=r"shape \(nz, ny, nx\) or \(nw, nz, ny, nx\)"):
        torvel.retrieve(np.ones((20, 20)), **optics)
    assert capfd.readouterr() == ("", "")


def test_a_fit_lets_other_threads_run():
    # While one thread fits, another keeps running Python: the GIL is
    # released. The gaps in its ticks stay at the scheduler's scale, however
    # loaded the machine, where a fit holding the GIL would leave one gap as
    # long as the fit. (How much two fits in two threads gain is measured by
    # bench/python_fit.py.)
    model = torvel.read_fit(SAMPLE_MODEL)
    image = torvel.render(model, size=512, w=0)
    nm = model.wavelengths_nm[:1]
    spacing = 2 * model.na / (nm[0] / 1000) / (0.9 * 512)
    span = []

    def one_fit():
        start = time.perf_counter()
        torvel.fit(image, na=model.na, n=model.n, wavelengths_nm=nm, spacing=spacing,
                   zernike_phase=(12, 0))
        span.extend([start, time.perf_counter()])

    fitting = threading.Thread(target=one_fit)
    ticks = [time.perf_counter()]
    fitting.start()
    while fitting.is_alive():
        ticks.append(time.perf_counter())
    fitting.join()
    inside = [t for t in ticks if span[0] <= t <= span[1]]
    gaps = np.diff([span[0], *inside, span[1]])
    assert gaps.max() < 0.25 * (span[1] - span[0]), \
        f"a {span[1] - span[0]:.3f} s fit stopped the other thread for {gaps.max():.3f} s"
