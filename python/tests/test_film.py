"""quarn.film on a synthetic film scan: the known thickness and height back, the tool's maps to the
bit, a bad film stack refused in the tool's words (no valid pixel: with the other jobs in test_jobs)."""
import json
import os
import subprocess

import numpy as np
import pytest
import tifffile

import quarn
import quarn.batch
from conftest import cli_matches

FRAMES, STEP_NM, ROWS, COLS = 64, 80.0, 4, 6

# SiO2 on Si, thickness varied 0.3 .. 0.8 um in 2 nm steps (251 library signals).
STACK = {
    "materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]}},
    "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
    "zero_height_layer": 0,
    "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff": 0.02,
    "numerical_aperture": 0.2, "polarization": "CircularlyPolarized",
    "vary": [{"layer": 0, "kind": "Thickness", "from_um": 0.3, "to_um": 0.8, "step_um": 0.002}],
}


def signal_index(r, c):
    return 37 * c + 5 * r  # library signal of pixel (r, c): thickness 300 + 2 x index nm


def shift_frames(r, c):
    return 0.3 * r + 0.15 * c - 0.5  # the film's top, frames from the scan's middle


@pytest.fixture(scope="module")
def film(tmp_path_factory, qphase):
    """The stack file and a scan made of the library's own signals: pixel (r, c) is signal
    `signal_index` delayed by `shift_frames` (a linear phase on its spectrum), 16-bit, bias 20000."""
    folder = tmp_path_factory.mktemp("film")
    (folder / "stack.json").write_text(json.dumps(STACK))
    qphase("film-library", "--stack", folder / "stack.json", "--frames", FRAMES, "--scan-step", STEP_NM,
           "-o", folder / "lib.tif")
    library = tifffile.imread(folder / "lib.tif")
    spectra = library[:, 0::2] + 1j * library[:, 1::2]
    bins = np.arange(spectra.shape[1])
    scan = np.empty((FRAMES, ROWS, COLS), np.uint16)
    for r in range(ROWS):
        for c in range(COLS):
            x = spectra[signal_index(r, c)] * np.exp(-2j * np.pi * bins * shift_frames(r, c) / FRAMES)
            x[0] = x[-1] = 0.0  # no mean level, no Nyquist term: fringes only
            scan[:, r, c] = np.rint(20000.0 + 20000.0 * np.fft.irfft(x, FRAMES))
    tifffile.imwrite(folder / "scan.tif", scan)
    return folder, scan


def test_known_film_back_and_equal_to_the_tool(film, qphase):
    folder, scan = film
    result = quarn.film(scan, stack=folder / "stack.json", scan_step_nm=STEP_NM, search="linear")
    assert result["status"] == "ok" and result["valid_fraction"] == 1.0
    assert result["signals"] == 251 and result["variable1"] == "Thickness" and result["variable1_unit"] == "nm"
    r, c = np.mgrid[0:ROWS, 0:COLS]
    # Signals taken from the library itself, rounded to 16 bits: the match is the signal's own
    # thickness to a small fraction of the 2 nm step, the height to a fraction of a nanometre (the
    # C++ tool's test allows the same).
    np.testing.assert_allclose(result["thickness"], 300.0 + 2.0 * signal_index(r, c), atol=0.1)
    np.testing.assert_allclose(result["height"], (FRAMES / 2 + shift_frames(r, c)) * STEP_NM, atol=0.3)
    assert np.all(result["merit"] > 0.999) and np.all(np.isnan(result["variable2"]))

    # The same maps as the tool's float32 files, to the bit (the stack as JSON text this time).
    ours = quarn.film(scan, stack=json.dumps(STACK), scan_step_nm=STEP_NM, search="linear", threads=0)
    maps = {"-o": "height", "--thickness": "thickness", "--variable2": "variable2", "--merit": "merit"}
    cli_matches(qphase, folder, scan, ours, "film", maps, "--stack", folder / "stack.json", "--scan-step", STEP_NM,
                "--search", "linear")
    # A batch task writes the same four maps.
    row = quarn.batch.process_file("film", str(folder / "scan.tif"), out_dir=folder / "batch",
                                   stack=folder / "stack.json", scan_step_nm=STEP_NM, search="linear")
    assert row["status"] == "ok" and row["signals"] == 251, row["message"]
    for key in maps.values():
        np.testing.assert_array_equal(tifffile.imread(folder / "batch" / f"scan.{key}.tif"),
                                      tifffile.imread(folder / f"{key}.tif"))


def test_bad_film_stack_is_refused_in_the_tools_words(film):
    folder, scan = film
    bad = dict(STACK, ambient="Vacuum")
    (folder / "bad.json").write_text(json.dumps(bad))
    done = subprocess.run([os.environ["QPHASE_BINARY"], "film", folder / "scan.tif", "--stack",
                           folder / "bad.json", "--scan-step", "80", "-o", folder / "never.tif"],
                          capture_output=True, text=True)
    assert done.returncode == 2
    tool = done.stderr.strip().removeprefix("qphase film: error: ")
    with pytest.raises(ValueError) as raised:
        quarn.film(scan, stack=str(folder / "bad.json"), scan_step_nm=STEP_NM)
    assert str(raised.value) == tool and "ambient" in tool
    # The same failures without the tool: text named as such, a missing file, too short a scan.
    cases = [(dict(stack=bad, scan_step_nm=STEP_NM), tool.replace(str(folder / "bad.json"), "the film stack")),
             (dict(stack=folder / "none.json", scan_step_nm=STEP_NM), f"{folder / 'none.json'}: cannot be read"),
             (dict(stack=STACK, scan_step_nm=0.0), "scan_step_nm: must be a positive number of nanometres, not 0")]
    for options, message in cases:
        with pytest.raises(ValueError) as raised:
            quarn.film(scan, **options)
        assert str(raised.value) == message
    with pytest.raises(ValueError, match="the scan has 7 frames; a film scan needs at least 8"):
        quarn.film(scan[:7], stack=STACK, scan_step_nm=STEP_NM)

