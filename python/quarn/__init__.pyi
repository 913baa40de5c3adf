import os
from typing import Any, Optional, Sequence, Tuple, Union

import numpy as np

__version__: str

def psi(stack: np.ndarray, *, algorithm: Optional[str] = ..., min_modulation: float = ...,
        estimate_magnitude: bool = ..., phase_sign: int = ..., frame_weights: Optional[Sequence[float]] = ...,
        max_value: Optional[int] = ..., threads: Optional[int] = ..., modulation: bool = ...,
        name: Optional[str] = ...) -> dict[str, Any]: ...
def psi_check(stack: np.ndarray, *, method: Optional[str] = ..., mask: Optional[np.ndarray] = ...,
              scan_period: int = ..., min_modulation: float = ..., first_frame: int = ...,
              frame_count: Optional[int] = ..., max_value: Optional[int] = ..., threads: Optional[int] = ...,
              name: Optional[str] = ...) -> dict[str, Any]: ...
def swli(scan: np.ndarray, *, scan_step_nm: float, algorithm: str = ..., min_modulation: Optional[float] = ...,
         wavelength_nm: Optional[float] = ..., fringe_removal: str = ..., reverse: bool = ..., max_value: Optional[int] = ...,
         threads: Optional[int] = ..., intensity: bool = ..., name: Optional[str] = ...) -> dict[str, Any]: ...
def carrier(frame: np.ndarray, *, quadrant: int = ..., pixels_per_fringe: int = ..., threshold: float = ...,
            min_region: int = ..., keep_carrier: bool = ..., max_value: Optional[int] = ...,
            threads: Optional[int] = ..., modulation: bool = ..., name: Optional[str] = ...) -> dict[str, Any]: ...
def quadrants(q1: np.ndarray, q3: np.ndarray, q2: Optional[np.ndarray] = ..., q4: Optional[np.ndarray] = ..., *,
              tolerance: float = ..., wavelength: Optional[float] = ...) -> dict[str, Any]: ...
def spot(image: np.ndarray, *, center: Tuple[float, float], radius: float, obscuration: float,
         restrict: str = ..., saturation: Optional[float] = ..., max_saturated: int = ...,
         name: Optional[str] = ...) -> dict[str, Any]: ...
def film(scan: np.ndarray, *, stack: Union[str, os.PathLike[str], dict[str, Any]], scan_step_nm: float,
         search: str = ..., min_modulation: float = ..., correlation_threshold: float = ..., reverse: bool = ...,
         max_value: Optional[int] = ..., threads: Optional[int] = ..., name: Optional[str] = ...) -> dict[str, Any]: ...
