"""torvel: Zernike fits of microscope pupil functions, from Python."""

import os
from typing import Any, Literal, Sequence, Union, overload

import numpy as np
import numpy.typing as npt

__version__: str

Path = Union[str, os.PathLike[str]]
# A Zernike set (n, m), n alone for (n, n), or None for no series.
ZernikeSet = Union[tuple[int, int], int, None]
# Wavelengths by zero-based index (int) or in nm (float), as torvel's -w=.
Selection = Union[int, float, Sequence[Union[int, float]], None]

class Error(RuntimeError):
    """A failure the library reported; str() is the programs' message text."""

class Model:
    """A fitted pupil model: what a torvel fit file holds."""

    @property
    def na(self) -> float: ...
    @property
    def n(self) -> float: ...
    @property
    def lens(self) -> int: ...
    @property
    def wavelengths_nm(self) -> list[float]: ...
    @property
    def zernike_amp(self) -> tuple[int, int] | None: ...
    @property
    def zernike_phase(self) -> tuple[int, int] | None: ...
    @property
    def name(self) -> str: ...
    def amplitude(self, w: int) -> npt.NDArray[np.float64]: ...
    def phase(self, w: int) -> npt.NDArray[np.float64]: ...
    def terms(
        self, series: Literal["phase", "amplitude"] = "phase"
    ) -> list[tuple[int, int, Literal["cos", "sin"], int, int]]: ...
    def write(self, path: Path) -> None: ...

class Stack:
    """A stack of planes as torvel-psf writes it."""

    @property
    def voxels(self) -> npt.NDArray[np.float32]: ...
    @property
    def dx_nm(self) -> float: ...
    @property
    def dz_nm(self) -> float: ...
    @property
    def wavelengths_nm(self) -> list[float]: ...
    def __array__(self, dtype: npt.DTypeLike | None = None, copy: bool | None = None) -> npt.NDArray[Any]: ...

class Pupil:
    """A retrieved pupil: what torvel-retrieve writes; fit() takes it."""

    @property
    def image(self) -> npt.NDArray[np.complex64]: ...
    @property
    def na(self) -> float: ...
    @property
    def n(self) -> float: ...
    @property
    def lens(self) -> int: ...
    @property
    def wavelengths_nm(self) -> list[float]: ...
    @property
    def spacing(self) -> float: ...
    @property
    def centre(self) -> tuple[float, float]: ...
    @property
    def background(self) -> list[float]: ...
    @property
    def errors(self) -> list[npt.NDArray[np.float64]]: ...

def read_fit(path: Path) -> Model: ...
@overload
def fit(
    image: Path | npt.NDArray[np.complex64] | Pupil,
    *,
    w: Selection = None,
    zernike_amp: ZernikeSet = (8, 0),
    zernike_phase: ZernikeSet = (8, 0),
    tol: float | None = None,
    residual: Literal[False] = False,
    na: float = ...,
    n: float = ...,
    wavelengths_nm: float | Sequence[float] = ...,
    spacing: float | tuple[float, float] = ...,
    centre: tuple[float, float] = ...,
    lens: int = ...,
) -> Model: ...
@overload
def fit(
    image: Path | npt.NDArray[np.complex64] | Pupil,
    *,
    w: Selection = None,
    zernike_amp: ZernikeSet = (8, 0),
    zernike_phase: ZernikeSet = (8, 0),
    tol: float | None = None,
    residual: Literal[True],
    na: float = ...,
    n: float = ...,
    wavelengths_nm: float | Sequence[float] = ...,
    spacing: float | tuple[float, float] = ...,
    centre: tuple[float, float] = ...,
    lens: int = ...,
) -> tuple[Model, npt.NDArray[np.complex64]]: ...
def render(
    model: Model,
    *,
    size: int | tuple[int, int] | None = None,
    spacing: float | None = None,
    centre: tuple[float, float] | None = None,
    w: Selection = None,
    form: Literal["complex", "real"] = "complex",
    drop: str | tuple[int, int] | Sequence[str | tuple[int, int]] | None = None,
    amplitude: Literal["model", "uniform"] = "model",
    path: Path | None = None,
) -> npt.NDArray[Any] | None: ...
def report(
    model: Model,
    *,
    json: Path | None = None,
    csv: Path | None = None,
    png: Path | None = None,
    image: Path | None = None,
    residual: Path | None = None,
) -> dict[str, Any]: ...
def psf(
    model: Model,
    *,
    size: int | tuple[int, int] | tuple[int, int, int] | None = None,
    dx: float | None = None,
    dz: float | None = None,
    w: Selection = None,
    drop: str | tuple[int, int] | Sequence[str | tuple[int, int]] | None = None,
    amplitude: Literal["model", "uniform"] = "model",
    vector: bool = False,
    normalize: Literal["sum", "peak", "none"] = "sum",
    path: Path | None = None,
) -> Stack | None: ...
def retrieve(
    stack: Path | Stack | npt.NDArray[Any],
    *,
    na: float,
    n: float,
    w: float | Sequence[float] | None = None,
    dx: float | None = None,
    dz: float | None = None,
    lens: int | None = None,
    size: int | None = None,
    iterations: int | None = None,
    tol: float | None = None,
    background: Literal["auto"] | float = "auto",
    vector: bool = False,
    path: Path | None = None,
    psf: Path | None = None,
    log: Path | None = None,
) -> Pupil: ...
