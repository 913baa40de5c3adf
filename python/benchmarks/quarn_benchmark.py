#!/usr/bin/python3
"""Benchmarks of the Python package, in one run:

1. Python-call overhead: quarn.psi on a 2048 x 2048 x 13 uint16 stack (phase and modulation) against
   the C++ job (RunPsi) on the same array, timed in C++ without Python. Goal: at most 5 % overhead.
2. Dask batch throughput: quarn.batch.run on a LocalCluster of 2 single-threaded workers against a
   serial loop of quarn.batch.process_file, same files, same outputs (each job single-threaded).
   Goal: at least 1.6 x the serial loop on 2 cores.

Medians of several runs; the machine's load shows in the spread, which is printed.

    PYTHONPATH=build/python python/benchmarks/quarn_benchmark.py [--repeats 7] [--files 16] [--size 512]
"""
import argparse
import os
import statistics
import sys
import tempfile
import time

import numpy as np
import tifffile

import quarn


def stack_of(frames, rows, cols, seed):
    r, c = np.mgrid[0:rows, 0:cols]
    phi = 0.002 * ((r - rows / 2) ** 2 + (c - cols / 2) ** 2)
    k = np.arange(frames)[:, None, None]
    noise = np.random.default_rng(seed).normal(0, 80, (frames, rows, cols)).astype(np.float32)
    return np.clip(np.rint(30000 + 25000 * np.cos(phi[None] - np.pi / 4 * (k - 6)) + noise), 0, 65535).astype(np.uint16)


def spread(values):
    return f"median {statistics.median(values) * 1e3:.1f} ms (min {min(values) * 1e3:.1f}, max {max(values) * 1e3:.1f})"


def overhead(repeats, threads):
    stack = stack_of(13, 2048, 2048, 1)
    assert quarn.psi(stack, threads=threads)["valid_fraction"] > 0.99  # warm: thread pool
    cpp, host, python = [], [], []
    for _ in range(repeats):  # interleaved, so that load changes hit all alike
        timed = quarn._quarn._time_psi_in_cpp(stack, 1, threads)
        cpp += timed["maps"]
        host += timed["host"]
        start = time.perf_counter()
        quarn.psi(stack, threads=threads)
        python.append(time.perf_counter() - start)
    ratio = statistics.median(python) / statistics.median(cpp)
    label = "all processors" if threads is None else f"{threads} thread(s)"
    print(f"psi 2048 x 2048 x 13 uint16 -> phase + modulation, {label}:")
    print(f"  C++ job, maps handed over      {spread(cpp)}")
    print(f"  C++ RunPsi into host arrays    {spread(host)}")
    print(f"  Python call quarn.psi          {spread(python)}")
    print(f"  Python overhead vs the C++ job {100 * (ratio - 1):+.1f} % (goal <= 5 %)")
    return ratio


def throughput(files, size, repeats):
    with tempfile.TemporaryDirectory() as folder:
        paths = []
        for i in range(files):
            path = os.path.join(folder, f"stack{i:03d}.tif")
            tifffile.imwrite(path, stack_of(13, size, size, i))
            paths.append(path)
        from dask.distributed import Client, LocalCluster

        serial, batch = [], []
        with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
                Client(cluster) as client:
            client.run(lambda: __import__("quarn")._quarn)  # the workers import the package once
            for run in range(repeats):
                start = time.perf_counter()
                rows = [quarn.batch.process_file("psi", p, out_dir=os.path.join(folder, f"serial{run}"), threads=0)
                        for p in paths]
                serial.append(time.perf_counter() - start)
                assert all(r["status"] == "ok" for r in rows)
                start = time.perf_counter()
                rows = quarn.batch.run("psi", paths, out_dir=os.path.join(folder, f"dask{run}"), client=client,
                                       threads=0)
                batch.append(time.perf_counter() - start)
                assert all(r["status"] == "ok" for r in rows), rows
    ratio = statistics.median(serial) / statistics.median(batch)
    print(f"batch of {files} psi stacks {size} x {size} x 13 (read, job on one thread, 2 float32 maps + JSON written):")
    print(f"  serial loop        {spread(serial)}, {files / statistics.median(serial):.1f} stacks/s")
    print(f"  Dask, 2 workers    {spread(batch)}, {files / statistics.median(batch):.1f} stacks/s")
    print(f"  speed-up           {ratio:.2f} x (goal >= 1.6 x on 2 cores; {os.cpu_count()} processors here)")
    return ratio


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--repeats", type=int, default=7)
    parser.add_argument("--files", type=int, default=16)
    parser.add_argument("--size", type=int, default=512)
    parser.add_argument("--threads", type=int, default=None, help="library threads of the overhead run")
    args = parser.parse_args()
    print(f"quarn {quarn.__version__}, {os.cpu_count()} processors")
    overhead(args.repeats, args.threads)
    throughput(args.files, args.size, max(3, args.repeats // 2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
