"""The jobs from Python: known surfaces back, the CLI's maps to the bit, the tool's refusals."""
import os
import subprocess
import sys
import threading

import numpy as np
import pytest

import quarn
from conftest import cli_matches, psi_stack, wrapped
from test_film import STACK


def test_version_is_the_projects():
    assert quarn.__version__.count(".") == 2
    assert "min_modulation" in quarn.psi.__doc__ and "radians" in quarn.psi.__doc__


@pytest.mark.parametrize("frames,dtype", [(7, np.uint8), (13, np.uint16)])
def test_psi_gives_the_tilt_back_and_the_clis_maps(tmp_path, qphase, frames, dtype):
    amplitude = 80.0 if dtype == np.uint8 else 1500.0
    stack, phi = psi_stack(frames, dtype=dtype, bias=amplitude + 20, amplitude=amplitude)
    # 16 bits: a 12-bit camera's frames, saturating at 4095.
    max_value = 255 if dtype == np.uint8 else 4095
    result = quarn.psi(stack, max_value=max_value)
    assert result["status"] == "ok" and result["algorithm"] == str(frames)
    assert result["valid_fraction"] == 1.0
    # Rounding to whole counts moves a sample by 0.5 / amplitude at most; the kernels' weights (about
    # twice the mean at most) make that 0.02 rad for 80 counts, far less for 1500.
    assert np.max(np.abs(wrapped(result["phase"] - phi))) < (0.02 if dtype == np.uint8 else 0.002)

    cli_matches(qphase, tmp_path, stack, result, "psi", {"-o": "phase", "--modulation": "modulation"},
                "--max-value", max_value)


def test_strided_and_reversed_inputs_equal_the_contiguous_one():
    stack, _ = psi_stack(13)
    expected = quarn.psi(stack)["phase"]
    padded = np.zeros((13, 48, 80), np.uint16)
    padded[:, :, :64] = stack
    np.testing.assert_array_equal(quarn.psi(padded[:, :, :64])["phase"], expected)
    # Frames in reverse order in memory, read back in the right order.
    backwards = np.ascontiguousarray(stack[::-1])[::-1]
    np.testing.assert_array_equal(quarn.psi(backwards)["phase"], expected)
    np.testing.assert_array_equal(quarn.psi(stack, threads=0)["phase"], quarn.psi(stack, threads=3)["phase"])


@pytest.mark.parametrize(
    "call,error,message",
    [
        (lambda s: quarn.psi(s[:6]), ValueError,
         "the stack has 6 frames; no algorithm fits (7, 13 or 20 frames, or more than 13 for sliding13)"),
        (lambda s: quarn.psi(s, algorithm="7"), ValueError, "the 7-frame algorithm needs 7 frames, the stack has 13 frames"),
        (lambda s: quarn.psi(s, min_modulation=float("nan")), ValueError,
         "min_modulation: nan is not a finite number; a number from 0 to 100 is needed"),
        (lambda s: quarn.psi(s, max_value=0), ValueError, "max_value: got 0; a whole number from 1 to 65535 is needed"),
        (lambda s: quarn.psi(s, frame_weights=[1.0, 2.0]), ValueError,
         "frame_weights gives 2 weights, the stack has 13 frames"),
        (lambda s: quarn.psi(s[0]), ValueError, "the stack has shape (48, 64); a stack is 3-D: (frames, rows, columns)"),
        (lambda s: quarn.psi(s.astype(np.float32)), TypeError,
         "the stack holds signed or floating-point samples (float32); unsigned integers are needed (uint8 or uint16)"),
        (lambda s: quarn.psi(s.astype(np.uint32)), TypeError, "the stack has 32-bit samples; 8 or 16 are needed"),
        (lambda s: quarn.psi(s.astype(">u2")), TypeError, "the stack holds samples in >u2, not this machine's byte "
         "order; convert it first (a.astype(a.dtype.newbyteorder('=')))"),
        (lambda s: quarn.swli(s, scan_step_nm=float("inf")), ValueError,
         "scan_step_nm: must be a positive number of nanometres, not inf"),
        (lambda s: quarn.psi_check(s, frame_count=20), ValueError,
         "frames 0-19 were asked for, the stack has 13 frames, numbered from 0"),
        (lambda s: quarn.psi_check(s, mask=np.ones((4, 4), np.uint8)), ValueError, "the mask is 4 x 4, the stack is 64 x 48"),
        (lambda s: quarn.carrier(s), ValueError, "the frame has shape (13, 48, 64); an image is 2-D: (rows, columns)"),
        (lambda s: quarn.quadrants(s[0].astype(float), s[1, :4].astype(float)), ValueError,
         "q3 is 64 x 4, q1 is 64 x 48; the quadrant maps must be of one size"),
        (lambda s: quarn.spot(s[0], center=(float("nan"), 1), radius=5, obscuration=0), ValueError,
         "center: nan is not a finite number; a finite number is needed"),
    ],
)
def test_bad_input_is_refused_in_the_tools_words(call, error, message):
    stack, _ = psi_stack(13)
    with pytest.raises(error) as raised:
        call(stack)
    assert str(raised.value) == message


@pytest.mark.parametrize("call,maps,message", [
    (lambda: quarn.psi(np.full((13, 8, 8), 100, np.uint8)), ("phase", "modulation"),
     "no valid pixel in the stack: every pixel is saturated (a sample reaches 255) or modulated less than 15 % of it"),
    (lambda: quarn.swli(np.full((80, 8, 8), 100, np.uint8), scan_step_nm=80.0), ("height", "intensity"),
     "no valid pixel in the scan: no pixel has fringes modulated by at least 15 % of the saturation level 255"),
    (lambda: quarn.film(np.full((64, 4, 6), 20000, np.uint16), stack=STACK, scan_step_nm=80.0),
     ("height", "thickness", "variable2", "merit"), "no valid pixel in the scan: no pixel has fringes modulated"),
], ids=["psi", "swli", "film"])
def test_no_valid_pixel_is_a_record_not_an_exception(call, maps, message):
    result = call()
    assert result["status"] == "no result" and result["valid_fraction"] == 0.0
    assert result["message"].startswith(message), result["message"]
    assert all(np.isnan(result[key]).all() for key in maps)


def test_psi_check_reads_the_shifter_error_as_the_cli_does(tmp_path, qphase):
    stack, _ = psi_stack(7, gain_error=0.05)
    result = quarn.psi_check(stack, max_value=4095)
    assert result["status"] == "ok"
    # 5 % too far: 94.5 degrees; rounding 1500-count fringes moves it by well under 0.3 degrees.
    assert abs(result["step_deg_median"] - 94.5) < 0.3
    assert result["gain_correction"] < 0  # moving too far reads negative
    out = cli_matches(qphase, tmp_path, stack, result, "psi-check", {"-o": "step_values"}, "--max-value", 4095)
    assert f"gain correction {result['gain_correction']:+.5f}" in out


def test_carrier_gives_the_bowl_back_and_the_clis_map(tmp_path, qphase):
    n = 128
    r, c = np.mgrid[0:n, 0:n]
    bowl = 2e-3 * ((r - n / 2) ** 2 + (c - n / 2) ** 2)
    carrier = 2 * np.pi / 4 * (c + r)  # quadrant 2 at 4 pixels per fringe
    frame = np.rint(110 + 80 * np.cos(bowl + carrier)).astype(np.uint8)
    result = quarn.carrier(frame)
    assert result["status"] == "ok" and result["valid_fraction"] > 0.9
    # The phase up to a constant; away from the edges, where the filter's window reaches outside the
    # frame, the bowl comes back to within 0.05 rad (8-bit rounding and the lobe filter's ripple).
    inner = (slice(16, -16), slice(16, -16))
    difference = wrapped(result["phase"] - bowl)[inner]
    difference = wrapped(difference - np.angle(np.nanmean(np.exp(1j * difference))))
    assert np.nanmax(np.abs(difference)) < 0.05
    cli_matches(qphase, tmp_path, frame, result, "carrier", {"-o": "phase"})


def test_quadrants_cancel_the_carrier_error():
    n = 32
    r, c = np.mgrid[0:n, 0:n].astype(float)
    surface = 5.0 * r + 2.0 * c
    error = 0.1 * (c - 16) * (r - 16)  # changes sign between opposite quadrants
    q1, q3 = surface + error, surface - error
    q1[0, 0] = np.nan
    result = quarn.quadrants(q1, q3)
    assert result["status"] == "ok" and result["quadrants"] == 2
    np.testing.assert_allclose(result["final"][1:, :], surface[1:, :], atol=1e-12)
    np.testing.assert_allclose(result["calibration"][1:, :], error[1:, :], atol=1e-12)
    assert np.isnan(result["final"][0, 0])
    # The error cancelled, no astigmatism is left: two quadrants are enough.
    assert result["astigmatism_pv_nm"] < 1e-6 and not result["four_quadrants_required"]


def test_spot_is_found_where_it_was_put(tmp_path, qphase):
    y, x = np.mgrid[0:120, 0:160]
    image = np.rint(10 + 180 * np.exp(-((x - 100.0) ** 2 / 18 + (y - 40.0) ** 2 / 12.5))).astype(np.uint8)
    result = quarn.spot(image, center=(80, 60), radius=55, obscuration=5)
    assert result["position"] == "Quadrant1" and len(result["spots"]) == 1
    # A noise-free Gaussian on a flat background: its centre of mass within a tenth of a pixel.
    assert abs(result["spots"][0]["center_of_mass_x"] - 100.0) < 0.1
    assert abs(result["spots"][0]["center_of_mass_y"] - 40.0) < 0.1
    out = cli_matches(qphase, tmp_path, image, result, "spot", {}, "--center", "80,60", "--radius", 55,
                      "--obscuration", 5)
    assert f"centre of mass x {result['properties']['Region.0.CenterOfMassX']}," in out


def test_two_python_threads_equal_one_after_the_other():
    stacks = [psi_stack(13, gain_error=g)[0] for g in (0.0, 0.03)]
    serial = [quarn.psi(s, threads=2)["phase"] for s in stacks]
    results = [None, None]

    def work(i):
        for _ in range(5):
            results[i] = quarn.psi(stacks[i], threads=2)["phase"]

    threads = [threading.Thread(target=work, args=(i,)) for i in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for got, want in zip(results, serial):
        np.testing.assert_array_equal(got, want)


_PEAK_PROBE = """
import resource, sys, numpy as np, quarn
frames, rows, cols = 200, 512, 512
# Filled frame by frame, so that no temporary of the stack's size raises the peak beforehand.
stack = np.empty((frames, rows, cols), np.uint16, order="C" if sys.argv[1] == "contiguous" else "F")
fringes = np.rint(2000 + 1500 * np.cos(0.3 * np.arange(cols))).astype(np.uint16)
for k in range(frames):
    stack[k] = np.roll(fringes, k)[None, :]
quarn.psi(np.zeros((13, 4, 4), np.uint16))  # the library's own start-up
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024
quarn.psi(stack, modulation=False, threads=1)
after = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024
print(after - before, stack.nbytes)
"""


def test_a_contiguous_stack_is_not_copied():
    # 100 MB of frames, 2 MB of phase map: a copy of the stack would raise the peak by 100 MB. A
    # Fortran-ordered array (rows not packed) must be copied, which shows that the probe sees copies.
    def growth(layout):
        out = subprocess.run([sys.executable, "-c", _PEAK_PROBE, layout], capture_output=True, text=True,
                             env=os.environ, check=True).stdout.split()
        return int(out[0]), int(out[1])

    grown, size = growth("contiguous")
    assert grown < 0.2 * size
    grown, size = growth("strided")
    assert grown > 0.8 * size


def white_light_scan(rows=16, cols=20, frames=200, step_nm=80.0):
    """A coherence scan of a tilted plane 6.4 um up the scan: 600 nm light of 100 nm bandwidth, the
    fringes a + m exp(-(pi dsigma x)^2 / (4 ln 2)) cos(2 pi x / lambda0) with x = 2 (z - H)."""
    r, c = np.mgrid[0:rows, 0:cols]
    height = 6400.0 + 12.0 * c + 7.0 * r
    z = step_nm * np.arange(frames)[:, None, None]
    x = 2.0 * (z - height[None])
    dsigma = 100.0 / 600.0**2
    envelope = np.exp(-((np.pi * dsigma * x) ** 2) / (4 * np.log(2)))
    scan = np.rint(100 + 60 * envelope * np.cos(2 * np.pi * x / 600.0)).astype(np.uint8)
    return scan, height


@pytest.mark.parametrize("step_nm,algorithm,wavelength_nm,tolerance", [
    (80.0, "centroid", None, 40.0), (80.0, "fda", None, 5.0),
    (20.0, "centroid", None, 180.0), (20.0, "fda", None, 5.0), (20.0, "fda", 600.0, 5.0)])
def test_swli_gives_the_plane_back_and_equals_the_cli(tmp_path, qphase, step_nm, algorithm, wavelength_nm, tolerance):
    # At 80 nm steps an envelope 1.6 um wide, 8-bit rounded, locates to well within 40 nm; the fda's
    # fringe phase to a few nm. 20 nm steps of 600 nm light are 15 frames per fringe, far finer than
    # the four the fda's band and the centroid's 15 % threshold are set for: the tool and this call
    # both measure the period (or take the wavelength), so the fda splits the scan into interleaved
    # subsamples (which keep the fringe phase's precision) and the centroid's threshold is scaled (its
    # envelope centre lands within a tenth of the 1.8 um coherence length). Either way the two agree
    # to the bit in the tool's float32.
    scan, height = white_light_scan(frames=200 if step_nm == 80.0 else 480, step_nm=step_nm)
    extra = () if wavelength_nm is None else ("--wavelength", wavelength_nm)
    result = quarn.swli(scan, scan_step_nm=step_nm, algorithm=algorithm, wavelength_nm=wavelength_nm)
    assert result["status"] == "ok", result["message"]
    line = cli_matches(qphase, tmp_path, scan, result, "swli", {"-o": "height", "--intensity": "intensity"},
                       "--scan-step", step_nm, "--algorithm", algorithm, *extra)
    # The centroid counts positions from one, a step above the surface.
    offset = step_nm if algorithm == "centroid" else 0.0
    assert np.nanmax(np.abs(result["height"] - offset - height)) < tolerance
    assert f"algorithm {algorithm}: {100 * result['valid_fraction']:.1f} % valid" in line
    if step_nm == 80.0:
        assert result["valid_fraction"] == 1.0
        return

    # On the fine scan the record carries what the tool's summary line states.
    assert result["period_source"] == ("measured" if wavelength_nm is None else "wavelength")
    assert f"{result['frames_per_fringe']:.1f} frames per fringe" in line
    assert result["frames_per_fringe"] == pytest.approx(15.0, rel=0.05)
    if algorithm == "fda":
        first, last = result["band"]
        assert result["subsamples"] > 1
        assert f"{result['subsamples']} interleaved subsamples of bins {first} .. {last}" in line
        assert f"average gap {result['average_gap_nm']:.2f} nm" in line
    else:
        assert result["min_modulation_scaled"] and result["min_modulation"] < 15.0
        assert f"minimum modulation {result['min_modulation']:g} % (15 % scaled to the sampling)" in line


def test_swli_wavelength_and_threshold_are_checked_in_the_packages_words():
    scan, _ = white_light_scan()
    for bad in (0.0, -600.0, float("nan")):
        with pytest.raises(ValueError, match="wavelength_nm: must be a positive number of nanometres"):
            quarn.swli(scan, scan_step_nm=80.0, wavelength_nm=bad)
    # A threshold given is used as it stands, not scaled.
    given = quarn.swli(scan, scan_step_nm=80.0, min_modulation=15.0)
    assert given["min_modulation"] == 15.0 and not given["min_modulation_scaled"]
