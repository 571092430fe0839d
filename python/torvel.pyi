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

def read_fit(path: Path) -> Model: ...
@overload
def fit(
    image: Path | npt.NDArray[np.complex64],
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
    image: Path | npt.NDArray[np.complex64],
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
