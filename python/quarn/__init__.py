"""quarn: interferometry measurements on numpy arrays.

One function per measurement job, each taking numpy arrays (frames first: (frames, rows, columns),
uint8 or uint16; single images (rows, columns)) and keyword options named like the qphase tool's
long options, and returning a dict with float64 maps (NaN = no data) and the job's record:

    psi        wrapped phase (radians) and modulation (counts) of a phase-shifted stack
    psi_check  phase-shifter check: step-value map 256 cos(step) and gain correction
    swli       surface heights (nm along the scan) and intensity of a white-light scan
    carrier    phase and modulation of one frame of carrier fringes
    quadrants  combination of quadrant phase maps, astigmatism PV
    spot       alignment spot position and properties
    film       film thickness and height from a white-light scan and its film-stack model

Every record has "status" ("ok", or "no result" with the reason in "message": a run with no valid
pixel is not an exception), "valid_fraction", "seconds" and "warnings". Bad input raises
ValueError (values, shapes, frame counts) or TypeError (sample types) in the tool's words. The GIL
is released while the library works; `threads` sets the library's own worker threads (None: all
processors, 0: the calling thread only).

`quarn.batch` maps a job over many TIFF files on a Dask cluster (imported on first use).

    import tifffile, quarn
    result = quarn.psi(tifffile.imread("stack.tif"), min_modulation=10.0)
    phase = result["phase"]
"""

from ._quarn import __version__, carrier, film, psi, psi_check, quadrants, spot, swli

__all__ = ["__version__", "psi", "psi_check", "swli", "carrier", "quadrants", "spot", "film", "batch"]


def __getattr__(name):
    # Dask takes a second to import; only batch users pay for it.
    if name == "batch":
        import importlib

        return importlib.import_module(".batch", __name__)
    raise AttributeError(f"module 'quarn' has no attribute {name!r}")
