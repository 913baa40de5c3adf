#!/usr/bin/env python3
"""A vectorised numpy implementation of the white-light evaluation, to time `qphase swli` against.

bench   Writes a 512 x 512, 128-frame, 8-bit scan of a known surface (80 nm steps, 600 nm light),
        then times `qphase swli` end to end (read the TIFF, find the peak frames, evaluate, write
        the float32 height map) against this implementation doing the same, for the centroid and
        the frequency-domain analysis, with qphase on one and on two threads. Prints both times, the
        ratio, and the RMS difference between the two height maps (a check that both computed the
        same thing).

The numpy side follows the same algorithms: the peak frame where the sum of (s[j+1] - s[j-1])^2 over
nine frames is largest; a 64-frame window around it; the centroid of |d - mean| behind the
modulation test, or the FDA's band 13 .. 21 of the window's spectrum, unwrapped from the strongest
bin, a power-weighted phase line, the mean wavenumber and the fringe-order analysis.
"""

import argparse
import os
import subprocess
import sys
import time

import numpy as np
import tifffile

ROWS = COLS = 512
FRAMES = 128
STEP_NM = 80.0
WAVELENGTH_NM = 600.0
BANDWIDTH_NM = 100.0
Q = 64
H = Q // 2


def surface_nm(rows, cols):
    y, x = np.mgrid[0:rows, 0:cols]
    x = (x - cols / 2) / cols
    y = (y - rows / 2) / rows
    return 5000.0 + 1500.0 * (x * x + y * y) + 400.0 * x + np.where(x > 0, 300.0, 0.0)


def synthesize(seed=7):
    """A forward scan: frame k at k x step; fringes of 60 counts on 100 under a Gaussian envelope."""
    rng = np.random.default_rng(seed)
    height = surface_nm(ROWS, COLS)
    dsigma = BANDWIDTH_NM / WAVELENGTH_NM ** 2
    stack = np.empty((FRAMES, ROWS, COLS), np.uint8)
    for k in range(FRAMES):
        x = 2.0 * (k * STEP_NM - height)
        envelope = np.exp(-(np.pi * dsigma * x) ** 2 / (4.0 * np.log(2.0)))
        frame = 100.0 + 60.0 * envelope * np.cos(2.0 * np.pi * x / WAVELENGTH_NM) + rng.normal(0.0, 1.5, height.shape)
        stack[k] = np.clip(np.rint(frame), 0, 255)
    return stack


def peak_frames(stack):
    """The frame of largest nine-frame fringe energy (first on ties), 0 where there is none.

    8-bit samples: squared differences are at most 255^2 and every running sum fits int32."""
    s = stack.reshape(FRAMES, -1).astype(np.int32)
    d = s[2:] - s[:-2]  # difference j = 1 .. F-2 at index j - 1
    np.multiply(d, d, out=d)
    c = np.cumsum(d, axis=0, dtype=np.int32)
    energy = c[8:]
    energy[1:] -= c[:-9]  # energy[i] sums differences i+1 .. i+9, centred on k = i + 5
    best = np.argmax(energy, axis=0)
    top = np.take_along_axis(energy, best[None], 0)[0]
    return np.where(top > 0, best + 5, 0).reshape(stack.shape[1:])


def windows(stack, peaks):
    """The 64 samples around each valid peak, as float64 (pixels, 64), with the pixels' indices."""
    flat_peaks = peaks.ravel()
    valid = np.nonzero((flat_peaks >= H) & (flat_peaks < FRAMES - H))[0]
    frames = stack.reshape(FRAMES, -1)
    index = flat_peaks[valid][:, None] + np.arange(-H, H)[None]
    return frames[index, valid[:, None]].astype(np.float64), valid, flat_peaks[valid]


def centroid(stack, min_modulation=15.0):
    peaks = peak_frames(stack)
    d, valid, peak = windows(stack, peaks)
    c = H
    m = np.abs((d[:, c] - d[:, c - 2]) + (d[:, c] - d[:, c + 2])) + np.abs(2.0 * (d[:, c - 1] - d[:, c + 1]))
    keep = m >= min_modulation * 2.0 * 255.0 / 100.0
    d, valid, peak = d[keep], valid[keep], peak[keep]
    w = np.abs(d - d.mean(axis=1, keepdims=True))
    total = w.sum(axis=1)
    position = (w @ np.arange(1, Q + 1, dtype=np.float64)) / np.where(total > 0, total, 1.0) + 1.0 + peak - H - 1
    height = np.full(ROWS * COLS, np.nan, np.float32)
    ok = total > 0
    height[valid[ok]] = position[ok] * STEP_NM
    return height.reshape(ROWS, COLS)


def fda(stack, min_modulation=15.0, first=13, last=21):
    peaks = peak_frames(stack)
    d, valid, peak = windows(stack, peaks)
    spectrum = np.fft.rfft(d, axis=1)[:, first:last + 1]
    k = np.arange(first, last + 1)
    sign = np.where(k % 2 == 1, -1.0, 1.0)
    re = spectrum.real * sign
    im = -spectrum.imag * sign
    p = re * re + im * im
    threshold = (min_modulation * min_modulation * 255.0 * 255.0 * 16.0) / 10000.0
    power = np.where(p > threshold, p, 0.0)
    strongest = np.argmax(power, axis=1)
    rows = np.arange(len(power))
    has = power[rows, strongest] >= threshold
    wrapped = np.arctan2(im, re)
    phase = np.zeros_like(wrapped)
    phase[rows, strongest] = wrapped[rows, strongest]
    reached = np.zeros(power.shape, bool)
    reached[rows, strongest] = True
    bins = last - first + 1
    lower = strongest.copy()
    upper = strongest.copy()
    for step in range(1, bins):  # outwards, one bin at a time, while bins hold power
        for direction, edge in ((-1, lower), (1, upper)):
            target = edge + direction
            inside = (target >= 0) & (target < bins) & (edge == strongest + direction * (step - 1))
            t = np.clip(target, 0, bins - 1)
            go = inside & (power[rows, t] > 0.0)
            diff = wrapped[rows, t] - phase[rows, edge]
            unwrapped = wrapped[rows, t] - 2 * np.pi * (diff > np.pi) + 2 * np.pi * (diff < -np.pi)
            phase[rows[go], t[go]] = unwrapped[go]
            reached[rows[go], t[go]] = True
            edge[go] = target[go]
    ok = has & (upper - lower + 1 > 2) & (lower != strongest) & (upper != strongest) & (upper + first + 1 < Q // 2)
    w = np.where(reached, power, 0.0)
    kk = k[None].astype(np.float64)
    sw, sk, skk = w.sum(1), (w * kk).sum(1), (w * kk * kk).sum(1)
    sy, sky = (w * phase).sum(1), (w * phase * kk).sum(1)
    det = skk * sw - sk * sk
    det = np.where(det != 0, det, 1.0)
    intercept = (sy * skk - sky * sk) / det
    slope = (sky * sw - sy * sk) / det
    s_ = np.clip(strongest, 1, bins - 2)
    below, centre, above = power[rows, s_ - 1], power[rows, s_], power[rows, s_ + 1]
    k0 = s_ + first + (below - above) / np.where(above + below - 2 * centre != 0, 2.0 * (above + below - 2 * centre), 1.0)
    k0 = np.round(k0 * 1048576.0) / 1048576.0
    K0 = k0[ok].mean()
    length = Q * STEP_NM
    c = length / (2 * np.pi)
    wavelength = length / K0
    coherence = peak * STEP_NM + c * slope
    ph = peak * STEP_NM + (K0 * slope + intercept) * c / K0
    ph -= wavelength * np.round((ph - coherence) / wavelength)
    angle = 2 * np.pi * (ph[ok] - coherence[ok]) / wavelength
    gap = np.arctan2(np.sin(angle).sum(), np.cos(angle).sum()) / (2 * np.pi) * wavelength
    offset = ph - coherence - gap
    order = np.round(offset / wavelength)
    result = ph - order * wavelength
    result[np.abs(offset - order * wavelength) > 0.5 * wavelength] = np.nan
    height = np.full(ROWS * COLS, np.nan, np.float32)
    height[valid[ok]] = result[ok]
    return height.reshape(ROWS, COLS)


def bench(arguments):
    os.makedirs(arguments.workdir, exist_ok=True)
    scan = os.path.join(arguments.workdir, "swli_bench.tif")
    if not os.path.exists(scan):
        tifffile.imwrite(scan, synthesize())
    out = lambda name: os.path.join(arguments.workdir, name)  # noqa: E731

    def best_of(function, repeats):
        times = []
        for _ in range(repeats):
            start = time.perf_counter()
            function()
            times.append(time.perf_counter() - start)
        return sorted(times)[len(times) // 2], min(times)

    for algorithm in ("centroid", "fda"):
        def run_numpy():
            stack = tifffile.imread(scan)
            height = centroid(stack) if algorithm == "centroid" else fda(stack)
            tifffile.imwrite(out("n_height.tif"), height)

        numpy_median, numpy_best = best_of(run_numpy, arguments.repeats)
        for threads in (1, 2):
            def run_qphase():
                subprocess.run([arguments.qphase, "swli", scan, "-o", out("q_height.tif"), "--scan-step", str(STEP_NM),
                                "--algorithm", algorithm, "--threads", str(threads)], check=True, capture_output=True)

            run_qphase()
            q_median, q_best = best_of(run_qphase, arguments.repeats)
            q = tifffile.imread(out("q_height.tif")).astype(np.float64)
            n = tifffile.imread(out("n_height.tif")).astype(np.float64)
            both = np.isfinite(q) & np.isfinite(n)
            rms = np.sqrt(np.mean((q[both] - n[both]) ** 2)) if both.any() else float("nan")
            print(f"{algorithm} threads {threads}: qphase swli median {1e3 * q_median:.0f} ms (best {1e3 * q_best:.0f}), "
                  f"numpy median {1e3 * numpy_median:.0f} ms (best {1e3 * numpy_best:.0f}): qphase "
                  f"{numpy_median / q_median:.1f}x faster (best {numpy_best / q_best:.1f}x); "
                  f"valid {np.isfinite(q).mean():.3f} / {np.isfinite(n).mean():.3f}, rms difference {rms:.3g} nm")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("mode", choices=["bench"])
    parser.add_argument("--qphase", required=True, help="path of the qphase executable")
    parser.add_argument("--workdir", required=True, help="where the scan and the maps are written")
    parser.add_argument("--repeats", type=int, default=5, help="runs per measurement (median and best are shown)")
    arguments = parser.parse_args()
    return bench(arguments)


if __name__ == "__main__":
    sys.exit(main())
