#!/usr/bin/env python3
"""An independent numpy implementation of the film optics and the signal model of the library generator.

check   Writes film-stack descriptions, runs the generator's dump program on them and recomputes every
        spectrum here from the description alone, given only the numbers that define the integration grid
        (wavenumber span and count, Gauss-Legendre nodes per pupil interval, the pupil breakpoints). The
        stack's reflection comes from the characteristic (transfer) matrix, not the Airy recursion the
        generator uses. Spectra must agree bin by bin to 1e-9 of the spectrum's largest bin, the valid
        bins exactly. Exit status 0 when all agree.
bench   Times this implementation on the 1,226-signal example library (SiO2 on Si, 128 frames of 80 nm).

Conventions (those of the library generator): time dependence exp(-i w t), complex index N = n + i k with
k >= 0 absorbing; s and p with the tilted admittances N cos(theta) and N / cos(theta); heights and scan
positions up; signal I(z) = sum_k sum_beta S(k) w(beta) Re{r exp(2 i k n0 cos(beta) (z - h_top))} with r the
s/p-weighted reflection times the instrument's Tau and dispersion factors; N samples at z_j = (j - N/2) step,
forward real FFT.
"""

import argparse
import json
import math
import os
import subprocess
import sys
import time

import numpy as np

# Crystalline silicon at 300 K, M. A. Green, Solar Energy Materials and Solar Cells 92 (2008) 1305-1310,
# Table 1: wavelength (um), n, k at 10 nm steps; end values hold outside.
SILICON = np.array([
    [0.40, 5.613, 0.296], [0.41, 5.330, 0.227], [0.42, 5.119, 0.176], [0.43, 4.949, 0.138], [0.44, 4.812, 0.107],
    [0.45, 4.691, 0.086], [0.46, 4.587, 0.071], [0.47, 4.497, 0.062], [0.48, 4.419, 0.055], [0.49, 4.350, 0.049],
    [0.50, 4.294, 0.044], [0.51, 4.241, 0.039], [0.52, 4.193, 0.036], [0.53, 4.151, 0.033], [0.54, 4.112, 0.030],
    [0.55, 4.077, 0.028], [0.56, 4.045, 0.026], [0.57, 4.015, 0.024], [0.58, 3.988, 0.023], [0.59, 3.963, 0.021],
    [0.60, 3.940, 0.020], [0.61, 3.918, 0.018], [0.62, 3.898, 0.017], [0.63, 3.879, 0.016], [0.64, 3.861, 0.015],
    [0.65, 3.844, 0.014], [0.66, 3.828, 0.013], [0.67, 3.813, 0.013], [0.68, 3.798, 0.012], [0.69, 3.784, 0.011],
    [0.70, 3.772, 0.011], [0.71, 3.759, 0.010], [0.72, 3.748, 0.010], [0.73, 3.737, 0.009], [0.74, 3.727, 0.008],
    [0.75, 3.717, 0.008], [0.76, 3.708, 0.007], [0.77, 3.699, 0.007], [0.78, 3.691, 0.006], [0.79, 3.683, 0.006],
    [0.80, 3.675, 0.005]])


def material_index(material, wavelength_um):
    """Complex index of a material description at the given wavelengths (array)."""
    lam = np.asarray(wavelength_um, dtype=float)
    if material["model"] == "Complex-Cauchy/um":
        a, b, c, d, e, f = material["parameters"]
        return (a + b / lam**2 + c / lam**4) + 1j * (d + e / lam**2 + f / lam**4)
    wl = np.asarray(material["wavelength_um"], dtype=float)
    return np.interp(lam, wl, material["n"]) + 1j * np.interp(lam, wl, material["k"])


def materials_of(stack):
    known = {"Air": {"model": "Complex-Cauchy/um", "parameters": [1, 0, 0, 0, 0, 0]},
             "Si": {"model": "Table", "wavelength_um": SILICON[:, 0], "n": SILICON[:, 1], "k": SILICON[:, 2]}}
    known.update(stack.get("materials", {}))
    return known


def roll_off(model, p, alpha):
    """Relative pupil transmission of the roll-off models 2, 4, 5 and 6 at polar angles alpha."""
    s = np.sin(alpha)
    clamp = lambda v: np.maximum(v, 0.0)
    inner = clamp(p[2] - p[3] * np.abs(s - p[0]))
    if model == 6:
        outer = clamp(p[2] * (0.5 * np.cos(np.minimum(p[4] * np.abs(s - p[1]), np.pi)) + 0.5))
    elif model == 4:
        outer = clamp(p[2] - p[4] * np.abs(s - p[1]))
    else:
        outer = clamp(p[2] - p[4] * np.abs(s - p[1]) ** 3)
    value = np.where(s < p[0], inner, np.where(s < p[1], p[2], outer))
    if model in (5, 6):
        value = np.where((s < p[5]) | (s > p[6]), 0.0, value)
    return value


def rebuild_grid(stack, grid):
    """Wavenumbers, source weights, cos(beta) nodes and their (unnormalised) pupil weights."""
    k = np.linspace(grid["k_lo"], grid["k_hi"], grid["n_k"])
    source = np.zeros_like(k)
    for g in stack["source"]:
        source += g["amplitude"] * np.exp(-0.5 * ((k - g["centre_rad_per_um"]) / g["width_rad_per_um"]) ** 2)
    source /= source.sum()
    x, w = np.polynomial.legendre.leggauss(grid["nodes_per_interval"])
    u_nodes, u_weights = [], []
    b = grid["breakpoints"]
    for lo, hi in zip(b[:-1], b[1:]):
        u_hi, u_lo = math.cos(lo), math.cos(hi)
        half, mid = 0.5 * (u_hi - u_lo), 0.5 * (u_hi + u_lo)
        u_nodes.append(mid + half * x)
        u_weights.append(half * w)
    u = np.concatenate(u_nodes)
    weight = np.concatenate(u_weights) * u
    if "pupil_roll_off" in stack:
        r = stack["pupil_roll_off"]
        weight = weight * roll_off(r["model"], r["parameters"], np.arccos(u))
    return k, source, u, weight


def instrument_factor(stack, k, beta):
    """Tau(k, beta) times exp(i (dispersion phase gaps)), on the (k, beta) mesh."""
    factor = np.ones(np.broadcast(k, beta).shape, dtype=complex)
    if "tau" in stack:
        m = stack["tau"].get("magnitude", [0] * 6)
        p = stack["tau"].get("phase", [0] * 8)
        a, b = k, beta
        mag = 1 - (m[0] + m[1] * a + m[2] * a**2) * b**2 - (m[3] + m[4] * a + m[5] * a**2) * b**3
        phi = (p[0] + p[1] * a + p[2] * a**2 + p[3] * a**3) * b**2 + (p[4] + p[5] * a + p[6] * a**2 + p[7] * a**3) * b**3
        factor = factor * mag * np.exp(1j * phi)
    if "dispersion" in stack:
        d = stack["dispersion"].get("no_theta", [0] * 6)
        t = stack["dispersion"].get("two_theta", [0] * 6)
        c = np.cos(beta)
        gap = d[0] * k**2 + d[1] * k * c + d[2] * c**2 + d[3] * k + d[4] * c + d[5]
        gap = gap + (t[0] * c**2 + t[1] * c + t[2]) + 1j * (t[3] * c**2 + t[4] * c + t[5])
        factor = factor * np.exp(1j * gap)
    return factor


def normal_component(index, tangential):
    w = np.sqrt(index**2 - tangential**2 + 0j)
    flip = (w.imag < 0) | ((w.imag == 0) & (w.real < 0))
    return np.where(flip, -w, w)


def transfer_matrix_reflection(k, eta, w, thickness):
    """r of the stack by the characteristic matrix; eta and w per medium (list of arrays over the mesh)."""
    layers = len(thickness)
    b = np.ones_like(eta[0])
    c = eta[layers + 1].copy()
    for j in range(layers, 0, -1):
        delta = k * w[j] * thickness[j - 1]
        cs, sn = np.cos(delta), np.sin(delta)
        b, c = cs * b - 1j * sn / eta[j] * c, -1j * eta[j] * sn * b + cs * c
    y = c / b
    return (eta[0] - y) / (eta[0] + y)


def configurations(stack):
    """(layer thicknesses, per-layer Cauchy overrides) of every configuration, variable 2 fastest."""
    layers = stack["layers"]
    variables = []
    for var in stack.get("vary", []):
        thickness = var["kind"].lower() == "thickness"
        f, t, s = (var["from_um"], var["to_um"], var["step_um"]) if thickness else (var["from"], var["to"], var["step"])
        count = int(math.ceil((t - f) / s) + 1)
        variables.append((var["layer"], var["kind"].lower(), [i * s + f for i in range(count)]))
    grids = [v[2] for v in variables] or [[None]]
    out = []
    for values in np.array(np.meshgrid(*grids, indexing="ij"), dtype=object).reshape(len(grids), -1).T:
        t = [l["thickness_um"] for l in layers]
        override = [{} for _ in layers]
        for (layer, kind, _), value in zip(variables, values):
            if kind == "thickness":
                t[layer] = value
            elif kind == "cauchyn0":
                override[layer][0] = value
            else:
                override[layer][3] = value
        out.append((t, override))
    return out


def spectra(stack, grid, samples, step_um):
    mats = materials_of(stack)
    k, source, u, node_weight = rebuild_grid(stack, grid)
    kk, uu = np.meshgrid(k, u, indexing="ij")  # (n_k, n_u)
    beta = np.arccos(uu)
    lam = 2 * np.pi / kk
    n_amb = material_index(mats[stack["ambient"]], lam)
    tangential = n_amb * np.sin(beta)
    q = 2 * kk * n_amb.real * uu
    # Circular light and the uniform pupil share the weight equally between s and p.
    weight = np.broadcast_to(node_weight, kk.shape)
    weight = weight / weight.sum(axis=1, keepdims=True)
    front = source[:, None] * instrument_factor(stack, kk, beta)
    zeta = (np.arange(samples) - samples // 2) * step_um
    phase_samples = np.exp(1j * q[..., None] * zeta)  # (n_k, n_u, N)
    media = [stack["ambient"]] + [l["material"] for l in stack["layers"]] + [stack["substrate"]]
    zero_layer = stack.get("zero_height_layer", 0)
    rows = []
    for thickness, override in configurations(stack):
        eta_s, eta_p, ws = [], [], []
        for m, name in enumerate(media):
            material = dict(mats[name])
            if 1 <= m <= len(stack["layers"]) and override[m - 1]:
                material = dict(material, parameters=list(material["parameters"]))
                for index, value in override[m - 1].items():
                    material["parameters"][index] = value
            n = material_index(material, lam)
            w = normal_component(n, tangential)
            ws.append(w)
            eta_s.append(w)
            eta_p.append(n**2 / w)
        rs = transfer_matrix_reflection(kk, eta_s, ws, thickness)
        rp = transfer_matrix_reflection(kk, eta_p, ws, thickness)
        top = sum(thickness[:zero_layer])
        c = front * 0.5 * weight * (rs + rp) * np.exp(-1j * q * top)
        signal = np.einsum("ab,abj->j", c, phase_samples).real
        rows.append(np.fft.rfft(signal))
    mirror_signal = np.einsum("ab,abj->j", front * 0.5 * weight * 2, phase_samples).real
    return np.array(rows), np.fft.rfft(mirror_signal), (k, u)


def valid_bins(stack, grid, samples, step_um):
    """First and last bin reached by the source band S >= cut-off x peak."""
    lo, hi = grid["k_lo"], grid["k_hi"]
    s = lambda kv: sum(g["amplitude"] * np.exp(-0.5 * ((kv - g["centre_rad_per_um"]) / g["width_rad_per_um"]) ** 2)
                       for g in stack["source"])
    probe = np.linspace(lo, hi, 8193)
    threshold = stack.get("source_cutoff", 0.02) * s(probe).max()
    inside = np.nonzero(s(probe) >= threshold)[0]

    def edge(i_in, i_out):
        a, b = probe[i_in], probe[i_out]
        for _ in range(60):
            mid = 0.5 * (a + b)
            if s(mid) >= threshold:
                a = mid
            else:
                b = mid
        return a

    k_lo = edge(inside[0], max(inside[0] - 1, 0)) if inside[0] > 0 else probe[0]
    k_hi = edge(inside[-1], min(inside[-1] + 1, 8192)) if inside[-1] < 8192 else probe[-1]
    amb = materials_of(stack)[stack["ambient"]]
    n_lo = material_index(amb, 2 * np.pi / k_lo).real
    n_hi = material_index(amb, 2 * np.pi / k_hi).real
    scan = samples * step_um / (2 * np.pi)
    first = max(0, math.ceil(2 * k_lo * n_lo * math.cos(grid["breakpoints"][-1]) * scan))
    last = min(samples // 2, math.floor(2 * k_hi * n_hi * scan))
    return first, last


CASES = {
    # The documentation's example at a coarser thickness step (50 signals).
    "oxide_on_silicon": ({
        "materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]}},
        "ambient": "Air", "layers": [{"material": "SiO2", "thickness_um": 1.0}], "substrate": "Si",
        "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.47, "width_rad_per_um": 1.2}], "source_cutoff": 0.02,
        "numerical_aperture": 0.2, "vary": [{"layer": 0, "kind": "Thickness", "from_um": 0.05, "to_um": 2.5,
                                             "step_um": 0.05}]}, 128, 80.0),
    # Two layers (a tabulated resist over oxide), height zero at the substrate, two Gaussians, a roll-off,
    # the instrument's Tau and dispersion, thickness and Cauchy index varied together.
    "resist_oxide_instrument": ({
        "materials": {"SiO2": {"model": "Complex-Cauchy/um", "parameters": [1.4485, 0.00354, 0, 0, 0, 0]},
                      "Resist": {"model": "Table", "wavelength_um": [0.4, 0.6, 0.8], "n": [1.70, 1.64, 1.62],
                                 "k": [0.01, 0.0, 0.0]}},
        "ambient": "Air", "layers": [{"material": "Resist", "thickness_um": 0.6},
                                     {"material": "SiO2", "thickness_um": 0.3}],
        "substrate": "Si", "zero_height_layer": 2,
        "source": [{"amplitude": 1.0, "centre_rad_per_um": 10.0, "width_rad_per_um": 1.0},
                   {"amplitude": 0.4, "centre_rad_per_um": 12.5, "width_rad_per_um": 0.6}],
        "source_cutoff": 0.05, "numerical_aperture": 0.5,
        "tau": {"magnitude": [0.2, 0.01, 0, 0.1, 0, 0], "phase": [0.3, 0, 0.001, 0, 0.2, 0, 0, 0]},
        "dispersion": {"no_theta": [0.001, 0.01, 0.1, 0.02, 0.05, 0.3], "two_theta": [0.1, 0, 0.05, 0.02, 0, 0.01]},
        "pupil_roll_off": {"model": 6, "parameters": [0.05, 0.35, 1.0, 2.0, 4.0, 0.02, 0.45]},
        "vary": [{"layer": 1, "kind": "Thickness", "from_um": 0.25, "to_um": 0.75, "step_um": 0.25},
                 {"layer": 1, "kind": "CauchyN0", "from": 1.25, "to": 1.75, "step": 0.25}]}, 64, 60.0),
    # An absorbing Cauchy film whose extinction is varied, linear polarisation, height zero at the film top.
    "absorbing_film": ({
        "materials": {"Film": {"model": "Complex-Cauchy/um", "parameters": [2.0, 0.01, 0.0005, 0.05, 0.002, 0]}},
        "ambient": "Air", "layers": [{"material": "Film", "thickness_um": 0.4}], "substrate": "Si",
        "source": [{"amplitude": 1.0, "centre_rad_per_um": 11.0, "width_rad_per_um": 1.5}],
        "numerical_aperture": 0.3, "polarization": "LinearlyPolarized",
        "vary": [{"layer": 0, "kind": "CauchyK0", "from": 0.0, "to": 0.5, "step": 0.125}]}, 96, 70.0),
}


def run_dump(dump, stack_path, samples, step_nm):
    out = subprocess.run([dump, stack_path, str(samples), str(step_nm)], check=True, capture_output=True, text=True)
    return json.loads(out.stdout)


def check(args):
    os.makedirs(args.workdir, exist_ok=True)
    failures = 0
    for name, (stack, samples, step_nm) in CASES.items():
        path = os.path.join(args.workdir, name + ".json")
        with open(path, "w") as f:
            json.dump(stack, f)
        dump = run_dump(args.dump, path, samples, step_nm)
        grid = dump["grid"]
        step_um = step_nm / 1000
        reference, mirror, (k, u) = spectra(stack, grid, samples, step_um)
        if not (np.allclose(k, grid["k"], rtol=0, atol=1e-12) and np.allclose(u, grid["cos_beta"], rtol=0, atol=1e-14)):
            print(f"{name}: the rebuilt integration grid differs from the generator's")
            failures += 1
            continue
        first, last = valid_bins(stack, grid, samples, step_um)
        if (first, last) != (dump["first_bin"], dump["last_bin"]):
            print(f"{name}: valid bins {dump['first_bin']}..{dump['last_bin']}, expected {first}..{last}")
            failures += 1
        generated = np.array(dump["spectra"])
        generated = generated[:, 0::2] + 1j * generated[:, 1::2]
        if generated.shape != reference.shape:
            print(f"{name}: {generated.shape} spectra, expected {reference.shape}")
            failures += 1
            continue
        mask = np.zeros(reference.shape[1], dtype=bool)
        mask[first:last + 1] = True
        worst = 0.0
        for row_generated, row_reference in zip(generated, reference):
            scale = np.abs(row_reference[mask]).max()
            worst = max(worst, np.abs(row_generated[mask] - row_reference[mask]).max() / scale)
            if np.any(row_generated[~mask] != 0):
                print(f"{name}: a bin outside the valid bins is not 0")
                failures += 1
                break
        mirror_generated = np.array(dump["mirror"])
        mirror_generated = mirror_generated[0::2] + 1j * mirror_generated[1::2]
        mirror_error = np.abs(mirror_generated[mask] - mirror[mask]).max() / np.abs(mirror[mask]).max()
        ok = worst <= 1e-9 and mirror_error <= 1e-9
        failures += 0 if ok else 1
        print(f"{name}: {len(reference)} spectra of {reference.shape[1]} bins, valid {first}..{last}, "
              f"largest difference {worst:.2e} (mirror {mirror_error:.2e}) of the peak bin: {'ok' if ok else 'FAILED'}")
    return 1 if failures else 0


def bench(args):
    stack, samples, step_nm = CASES["oxide_on_silicon"]
    stack = json.loads(json.dumps(stack))
    stack["vary"][0]["step_um"] = 0.002
    os.makedirs(args.workdir, exist_ok=True)
    path = os.path.join(args.workdir, "bench.json")
    with open(path, "w") as f:
        json.dump(stack, f)
    start = time.perf_counter()
    dump = run_dump(args.dump, path, samples, step_nm)
    generator = time.perf_counter() - start
    start = time.perf_counter()
    reference, _, _ = spectra(stack, dump["grid"], samples, step_nm / 1000)
    numpy_time = time.perf_counter() - start
    print(f"{len(reference)} signals of {samples} samples: dump program (generation, JSON out) {generator:.3f} s, "
          f"numpy {numpy_time:.3f} s")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("mode", choices=["check", "bench"])
    parser.add_argument("--dump", required=True, help="the film_library_dump program")
    parser.add_argument("--workdir", default="film_cross_check")
    args = parser.parse_args()
    return check(args) if args.mode == "check" else bench(args)


if __name__ == "__main__":
    sys.exit(main())
