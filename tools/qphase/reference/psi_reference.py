#!/usr/bin/env python3
"""An independent numpy implementation of phase-shifting conversion, to hold `qphase psi` to.

check   Writes phase-shifted stacks with Pillow (another program's multi-page TIFF writer), runs
        `qphase psi` on them and compares its maps, pixel for pixel, with the formulas evaluated
        here: saturation, the kernels' weighted sums, the modulation threshold, atan2 and the
        modulation, including which pixels are no-data (NaN). Exit status 0 when all agree.
bench   Times `qphase psi` end to end (read the TIFF, convert, write two float TIFFs) against this
        numpy implementation doing the same on a 2048 x 2048, 13-frame, 8-bit stack.
"""

import argparse
import os
import subprocess
import sys
import time

import numpy as np
from PIL import Image

# Frame weights of the kernels (frame 0 first), with their phase sign and modulation scale.
KERNELS = {
    "7": (np.array([-1, 0, 7, 0, -7, 0, 1]), np.array([0, -4, 0, 8, 0, -4, 0]), 1.0, 7.2),
    "13": (np.array([-3, -4, 0, 12, 21, 16, 0, -16, -21, -12, 0, 4, 3]),
           np.array([0, -4, -12, -12, 0, 16, 24, 16, 0, -12, -12, -4, 0]), -1.0, 45.438),
    "20": (np.array([0.07014, -0.02966, -0.01048, -0.13572, -0.14926, 0.14926, 0.13572, 0.01048, 0.02966,
                     -0.07014, -0.07014, 0.02966, 0.01048, 0.13572, 0.14926, -0.14926, -0.13572, -0.01048,
                     -0.02966, 0.07014]),
           np.array([0.06611, -0.14129, -0.01346, -0.08822, 0.17686, 0.17686, -0.08822, -0.01346, -0.14129,
                     0.06611, 0.06611, -0.14129, -0.01346, -0.08822, 0.17686, 0.17686, -0.08822, -0.01346,
                     -0.14129, 0.06611]), 1.0, 0.5),
}
ESTIMATE_FACTOR = (np.sqrt(2.0) + 1.0) / 2.0


def shifts(frames):
    k = np.arange(frames)
    if frames == 7:
        return np.pi / 2 * (k - 3)
    if frames == 20:
        return 4.18 * np.cos(2 * np.pi * (k + 0.75) / 20)
    return -np.pi / 4 * (k - 6)


def synthesize(frames, rows, cols, dtype, seed, top=None):
    """Tilted fringes with noise, a clipping patch and a weakly modulated band (full scale `top`)."""
    rng = np.random.default_rng(seed)
    top = top or np.iinfo(dtype).max
    y, x = np.mgrid[0:rows, 0:cols]
    phase = 0.21 * x - 0.13 * y + 0.002 * (x - cols / 2) ** 2
    bias = np.full((rows, cols), 0.45 * top)
    amplitude = np.full((rows, cols), 0.35 * top)
    bias[: rows // 4, : cols // 4] = 0.9 * top  # clips
    amplitude[rows // 2: rows // 2 + 5, :] = 0.02 * top  # below 15 %
    stack = bias + amplitude * np.cos(phase[None] + shifts(frames)[:, None, None])
    stack += rng.normal(0.0, 0.004 * top, stack.shape)
    return np.clip(np.rint(stack), 0, top).astype(dtype)


def write_stack(path, stack):
    pages = [Image.fromarray(frame) for frame in stack]
    pages[0].save(path, save_all=True, append_images=pages[1:], compression=None)


def read_stack(path):
    with Image.open(path) as image:
        frames = []
        for index in range(image.n_frames):
            image.seek(index)
            frames.append(np.array(image))
    return np.stack(frames)


def convert(stack, algorithm, min_modulation=15.0, max_value=None, estimate=False):
    """The conversion formulas, vectorised over all pixels: returns float32 phase and modulation."""
    n_weights, d_weights, sign, scale = KERNELS[algorithm]
    saturation = max_value if max_value else np.iinfo(stack.dtype).max
    if algorithm == "20":
        # The 20-frame kernel pairs frames k and 19 - k before multiplying by its coefficients.
        s = stack.astype(np.int64)
        odd = [s[k] + s[19 - k] - s[9 - k] - s[10 + k] for k in range(5)]
        even = [s[k] + s[19 - k] + s[9 - k] + s[10 + k] for k in range(5)]
        numerator = (0.07014 * odd[0] - 0.02966 * odd[1] - 0.01048 * odd[2] - 0.13572 * odd[3]
                     - 0.14926 * odd[4])
        denominator = (0.06611 * even[0] - 0.14129 * even[1] - 0.01346 * even[2] - 0.08822 * even[3]
                       + 0.17686 * even[4])
    else:
        numerator = sign * np.tensordot(n_weights, stack.astype(np.int64), axes=1).astype(np.float64)
        denominator = np.tensordot(d_weights, stack.astype(np.int64), axes=1).astype(np.float64)
    m = saturation * (min_modulation / 100.0) * scale
    if estimate:
        magnitude = np.abs(numerator) + np.abs(denominator)
        threshold = m * ESTIMATE_FACTOR
        modulation = magnitude / ESTIMATE_FACTOR / scale
    else:
        magnitude = numerator * numerator + denominator * denominator
        threshold = m * m
        modulation = np.sqrt(magnitude) / scale
    valid = (stack.max(axis=0) < saturation) & ~(magnitude < threshold)
    phase = np.where(valid, np.arctan2(numerator, denominator), np.nan).astype(np.float32)
    modulation = np.where(valid, modulation, np.nan).astype(np.float32)
    return phase, modulation


def read_map(path):
    with Image.open(path) as image:
        return np.array(image, dtype=np.float32)


def float_ulps(a, b):
    ia = a.view(np.int32).astype(np.int64)
    ib = b.view(np.int32).astype(np.int64)
    ia = np.where(ia < 0, -(2**31) - ia, ia)
    ib = np.where(ib < 0, -(2**31) - ib, ib)
    return np.abs(ia - ib)


def check(arguments):
    os.makedirs(arguments.workdir, exist_ok=True)
    cases = [  # frames, dtype, extra options, max value, estimate
        (13, np.uint8, [], None, False),
        (7, np.uint16, ["--max-value", "4095"], 4095, False),
        (20, np.uint8, ["--estimate-magnitude", "--min-modulation", "10"], None, True),
    ]
    failures = 0
    for frames, dtype, options, max_value, estimate in cases:
        # A 12-bit camera in 16-bit pages when a maximum is given: its clipping patch reaches 4095.
        stack = synthesize(frames, 97, 131, dtype, seed=frames, top=max_value)
        stack_path = os.path.join(arguments.workdir, f"stack{frames}.tif")
        write_stack(stack_path, stack)
        phase_path = os.path.join(arguments.workdir, f"phase{frames}.tif")
        mod_path = os.path.join(arguments.workdir, f"mod{frames}.tif")
        command = [arguments.qphase, "psi", stack_path, "-o", phase_path, "--modulation", mod_path] + options
        completed = subprocess.run(command, capture_output=True, text=True)
        if completed.returncode != 0:
            print(f"{frames} frames: qphase failed ({completed.returncode}): {completed.stderr}")
            failures += 1
            continue
        min_modulation = 10.0 if estimate else 15.0
        expected_phase, expected_mod = convert(read_stack(stack_path), str(frames), min_modulation, max_value,
                                               estimate)
        phase, modulation = read_map(phase_path), read_map(mod_path)
        same_nodata = np.array_equal(np.isnan(phase), np.isnan(expected_phase)) and np.array_equal(
            np.isnan(modulation), np.isnan(expected_mod))
        valid = ~np.isnan(expected_phase)
        phase_ulps = float_ulps(phase[valid], expected_phase[valid]).max() if valid.any() else 0
        mod_ulps = float_ulps(modulation[valid], expected_mod[valid]).max() if valid.any() else 0
        fraction = valid.mean()
        ok = same_nodata and phase_ulps <= 1 and mod_ulps <= 1 and 0.5 < fraction < 1.0
        print(f"{frames:2d} frames {np.dtype(dtype).name:6s}: no-data identical: {same_nodata}, "
              f"valid {100 * fraction:.1f} %, phase within {phase_ulps} float ulp, "
              f"modulation within {mod_ulps} float ulp -> {'ok' if ok else 'MISMATCH'}")
        failures += 0 if ok else 1
    return 1 if failures else 0


def bench(arguments):
    os.makedirs(arguments.workdir, exist_ok=True)
    stack_path = os.path.join(arguments.workdir, "bench13.tif")
    if not os.path.exists(stack_path):
        write_stack(stack_path, synthesize(13, 2048, 2048, np.uint8, seed=1))
    out = lambda name: os.path.join(arguments.workdir, name)  # noqa: E731

    def run_qphase():
        subprocess.run([arguments.qphase, "psi", stack_path, "-o", out("q_phase.tif"), "--modulation",
                        out("q_mod.tif")], check=True, capture_output=True)

    def run_numpy():
        phase, modulation = convert(read_stack(stack_path), "13")
        Image.fromarray(phase, mode="F").save(out("n_phase.tif"))
        Image.fromarray(modulation, mode="F").save(out("n_mod.tif"))

    def best_of(function, repeats, fresh):
        times = []
        for _ in range(repeats):
            if fresh:  # outputs that do not exist yet: no old file to release
                for name in ("q_phase.tif", "q_mod.tif", "n_phase.tif", "n_mod.tif"):
                    if os.path.exists(out(name)):
                        os.remove(out(name))
            start = time.perf_counter()
            function()
            times.append(time.perf_counter() - start)
        return min(times)

    run_qphase()  # page cache warm for both
    for fresh in (False, True):
        qphase_seconds = best_of(run_qphase, 7, fresh)
        numpy_seconds = best_of(run_numpy, 3, fresh)
        label = "new output files" if fresh else "overwriting outputs"
        print(f"{label}: qphase psi end to end {1e3 * qphase_seconds:.0f} ms, numpy {1e3 * numpy_seconds:.0f} ms: "
              f"qphase {numpy_seconds / qphase_seconds:.1f}x faster")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("mode", choices=["check", "bench"])
    parser.add_argument("--qphase", required=True, help="path of the qphase executable")
    parser.add_argument("--workdir", required=True, help="where stacks and maps are written")
    arguments = parser.parse_args()
    return check(arguments) if arguments.mode == "check" else bench(arguments)


if __name__ == "__main__":
    sys.exit(main())
