import os
import shutil
import subprocess

import numpy as np
import pytest
import tifffile


@pytest.fixture(scope="session")
def qphase():
    """The qphase tool of the same build (QPHASE_BINARY), for comparisons with the CLI."""
    path = os.environ.get("QPHASE_BINARY") or shutil.which("qphase")
    if not path or not os.path.exists(path):
        pytest.skip("qphase is not built (QPHASE_BINARY unset)")

    def run(*args):
        done = subprocess.run([path, *map(str, args)], capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    return run


def psi_stack(frames, rows=48, cols=64, gain_error=0.0, dtype=np.uint16, bias=2000.0, amplitude=1500.0):
    """A tilted surface through a phase shifter: a + b cos(phi + psi_k), rounded as a camera delivers it.

    7 frames: psi_k = +90 deg (k - 3); 13 frames: -45 deg (k - 6); scaled by 1 + gain_error."""
    r, c = np.mgrid[0:rows, 0:cols]
    phi = np.remainder(0.21 * c - 0.13 * r + np.pi, 2 * np.pi) - np.pi
    k = np.arange(frames)[:, None, None]
    shifts = (np.pi / 2 * (k - 3) if frames == 7 else -np.pi / 4 * (k - 6)) * (1.0 + gain_error)
    stack = np.rint(bias + amplitude * np.cos(phi[None] + shifts))
    return np.clip(stack, 0, np.iinfo(dtype).max).astype(dtype), phi


def wrapped(a):
    return np.remainder(a + np.pi, 2 * np.pi) - np.pi


def cli_matches(qphase, folder, data, result, command, outputs, *options):
    """Runs `qphase command` on `data` written as a TIFF, each output option of `outputs` (option ->
    key of `result`) into a file of its own, and demands that every file holds the result's map as
    the tool writes it: float32, the same doubles rounded once. Returns what the tool printed."""
    tifffile.imwrite(folder / "input.tif", data)
    paths = {key: folder / f"{key}.tif" for key in outputs.values()}
    out = qphase(command, folder / "input.tif", *[a for o, k in outputs.items() for a in (o, paths[k])], *options)
    for key, path in paths.items():
        np.testing.assert_array_equal(tifffile.imread(path), result[key].astype(np.float32), err_msg=key)
    return out
