"""Batches of measurements on Dask.

`run` maps one job over many TIFF files (a list of paths, or a glob) on a `dask.distributed`
cluster: a `LocalCluster` of two single-threaded workers by default, or the cluster whose scheduler
address is given (the same call runs unchanged on many machines, provided every worker can import
`quarn` and read the files). Each file is read with tifffile, the job runs with the options given
(`threads=0` by default: one thread per job, the workers supply the parallelism), and the result
maps are written as float32 TIFFs (NaN = no data) with a JSON record beside them:

    <stem>.<map>.tif    e.g. stack.phase.tif, stack.modulation.tif
    <stem>.<job>.json   the record: status, valid fraction, the job's figures

next to the input or in `out_dir`. As with the qphase tool, a file's outputs appear only when all of
them are written (staged under temporary names, then renamed); a file without a result (no valid
pixel, unreadable, unsuitable) leaves nothing behind and overwrites nothing.

The result is one row per input, in input order: a dict with "name", "path", "status" ("ok",
"no result" or "error"), "message", "valid_fraction", the job's scalar figures ("seconds": the job's
own time), "outputs" (the files written), "read_seconds" and "write_seconds" (reading the input;
converting and writing the outputs). `format_table` prints them; nothing is lost: an input whose task failed in any way
is a row with its error.

    rows = quarn.batch.run("psi", "line7/*.tif", out_dir="maps", min_modulation=10.0)
    print(quarn.batch.format_table(rows))
"""

import glob as _glob
import json
import os
import tempfile
import time

import numpy as np

from . import _quarn

# The maps each job writes (spot has none: its record is the result).
JOB_MAPS = {
    "psi": ("phase", "modulation"),
    "psi_check": ("step_values",),
    "swli": ("height", "intensity"),
    "carrier": ("phase", "modulation"),
    "spot": (),
    "quadrants": ("final", "calibration"),
    "film": ("height", "thickness", "variable2", "merit"),
}

# A quadrants measurement in one file: its pages are the quadrant maps in this order.
QUADRANT_PAGES = {2: ("q1", "q3"), 4: ("q1", "q2", "q3", "q4")}

# mkstemp makes private files; the outputs get the permissions a plain new file would have. The mask
# is read once, here: reading it means setting it, which other threads would see.
_UMASK = os.umask(0o022)
os.umask(_UMASK)

_ARRAYS = ("phase", "modulation", "step_values", "height", "intensity", "final", "calibration", "thickness",
           "variable2", "merit")


def _inputs(files):
    if isinstance(files, (str, os.PathLike)):
        paths = sorted(_glob.glob(os.fspath(files)))
        if not paths and os.path.exists(files):
            paths = [os.fspath(files)]
        return paths
    return [dict(f) if isinstance(f, dict) else os.fspath(f) for f in files]


def _name(item):
    """A measurement's name: its file's, or for quadrant maps in separate files, Q1's."""
    return os.path.basename(os.fspath(item["q1"] if isinstance(item, dict) and "q1" in item else item))


def _read_quadrants(item):
    """The quadrant maps of one measurement as keyword arguments of quarn.quadrants."""
    import tifffile

    if isinstance(item, dict):
        unknown = sorted(set(item) - {"q1", "q2", "q3", "q4"})
        if unknown:
            raise ValueError(f"{unknown[0]!r} is not a quadrant; the maps are named q1, q2, q3, q4")
        return {key: tifffile.imread(os.fspath(path)) for key, path in item.items()}
    data = tifffile.imread(item)
    pages = data.shape[0] if data.ndim == 3 else 1
    if pages not in QUADRANT_PAGES:
        raise ValueError(f"{_name(item)} has {pages} page{'s' if pages != 1 else ''}; a quadrants measurement "
                         "is 2 maps (Q1, Q3) or 4 (Q1, Q2, Q3, Q4), one per page")
    return dict(zip(QUADRANT_PAGES[pages], data))


def _read(path, job):
    import tifffile

    # An uncompressed file in native byte order is mapped rather than read: the job reads the frames
    # from the page cache where they lie, instead of from a copy of the whole stack (at 2048 x 2048 x
    # 13 that copy costs a third of the job's own time). Anything else (compressed, big-endian, pages
    # scattered through the file, truncated) is read as tifffile reads it. A mapped file must not be
    # shortened while its job runs.
    try:
        data = tifffile.memmap(path, mode="r")
        if not data.dtype.isnative:  # tifffile maps a big-endian file as it lies
            data = None
    except Exception:  # not mappable: the plain read says what is wrong, if anything
        data = None
    if data is None:
        data = tifffile.imread(path)
    if job in ("carrier", "spot"):
        # One frame: the first page of a multi-page file, as the tool reads it.
        return data[0] if data.ndim == 3 else data
    return data[np.newaxis] if data.ndim == 2 else data


def _figures(result):
    """The record's scalar figures (everything but the maps)."""
    row = {}
    for key, value in result.items():
        if key in _ARRAYS:
            continue
        if isinstance(value, np.generic):
            value = value.item()
        row[key] = value
    return row


def _write_atomically(targets):
    """Writes {path: writer(tmp_path)} so that either all files appear or none (none overwritten)."""
    staged = []
    try:
        for path, write in targets.items():
            folder = os.path.dirname(path) or "."
            fd, tmp = tempfile.mkstemp(prefix="." + os.path.basename(path) + ".", suffix=".partial", dir=folder)
            os.close(fd)
            staged.append((tmp, path))
            write(tmp)
            os.chmod(tmp, 0o666 & ~_UMASK)
        for tmp, path in staged:
            os.replace(tmp, path)
        staged = []
    finally:
        for tmp, _ in staged:
            if os.path.exists(tmp):
                os.remove(tmp)


def process_file(job, path, out_dir=None, write=True, **options):
    """Runs `job` on one TIFF file and writes its outputs; returns the row (never raises).

    The serial form of what `run` does on each worker. For "quadrants", `path` is a TIFF whose
    pages are the maps (Q1, Q3 or Q1, Q2, Q3, Q4) or a dict of one file per map {"q1": ..., "q3": ...}."""
    name = _name(path)
    row = {"name": name, "path": path, "status": "error", "message": "", "valid_fraction": 0.0, "outputs": []}
    try:
        if job not in JOB_MAPS:
            raise ValueError(f"job {job!r} not in {sorted(JOB_MAPS)}")
        import tifffile

        start = time.perf_counter()
        if job == "quadrants":  # float maps, read whole; the job has no threads to set
            maps = _read_quadrants(path)
            row["read_seconds"] = time.perf_counter() - start
            result = _quarn.quadrants(**maps, **options)
            del maps
        else:
            options.setdefault("threads", 0)
            data = _read(path, job)
            row["read_seconds"] = time.perf_counter() - start
            result = getattr(_quarn, job)(data, name=name, **options)
            del data  # a mapped file is let go before the outputs are written
        row.update(_figures(result))
        if result["status"] != "ok" or not write:
            return row
        start = time.perf_counter()
        first = path["q1"] if isinstance(path, dict) else path
        folder = out_dir if out_dir is not None else (os.path.dirname(os.fspath(first)) or ".")
        os.makedirs(folder, exist_ok=True)
        stem = os.path.splitext(name)[0]
        targets = {}
        for key in JOB_MAPS[job]:
            if result.get(key) is not None:
                image = result[key].astype(np.float32)
                targets[os.path.join(folder, f"{stem}.{key}.tif")] = (
                    lambda tmp, image=image: tifffile.imwrite(tmp, image, photometric="minisblack"))
        record = dict(_figures(result), name=name)
        def write_record(tmp):
            with open(tmp, "w") as out:
                out.write(json.dumps(record, indent=1, default=str) + "\n")

        targets[os.path.join(folder, f"{stem}.{job}.json")] = write_record
        _write_atomically(targets)
        row["outputs"] = sorted(targets)
        row["write_seconds"] = time.perf_counter() - start
    except Exception as error:  # every failure of one input is that input's row
        row["status"] = "error"
        row["message"] = f"{name}: {error}"
    return row


def _process_files(job, paths, **kwargs):
    return [process_file(job, path, **kwargs) for path in paths]


# Input bytes a task gathers from small files (see `run`'s files_per_task).
_TASK_BYTES = 64 << 20


def _files_per_task(paths, threads):
    sizes = []
    for item in paths[:32]:  # a sample is enough for a line of similar stacks
        try:
            sizes.append(os.path.getsize(item["q1"] if isinstance(item, dict) else item))
        except (OSError, KeyError):
            pass  # not readable from here (a remote cluster's paths): one file per task
    if not sizes:
        return 1
    by_size = _TASK_BYTES // max(sorted(sizes)[len(sizes) // 2], 1)
    by_balance = -(-len(paths) // (2 * threads))
    return int(max(1, min(by_size, by_balance)))


# Dask's housekeeping, tuned for workers whose every task is one long library call. Its defaults
# suit interactive clusters of many small tasks and cost a two-core machine a seventh of a core while
# the cluster merely waits: a statistical profiler that samples each worker's stack every 10 ms (and
# takes the GIL to do it), event-loop health ticks every 20 ms, and disk and memory polls every
# 100-500 ms in every process. None of it changes what is computed.
CLUSTER_CONFIG = {
    "distributed.worker.profile.enabled": False,
    "distributed.admin.tick.interval": "1s",
    "distributed.admin.system-monitor.interval": "2s",
    "distributed.admin.system-monitor.disk": False,
    "distributed.worker.memory.monitor-interval": "1s",
    # Every task is handed to a worker at once (work stealing evens out the load) instead of one
    # more than the worker has threads: a worker then starts its next file without waiting for a
    # round trip to the scheduler, which on a busy machine costs as much as a small file's job.
    "distributed.scheduler.worker-saturation": float("inf"),
    # Dask starts its workers with MALLOC_TRIM_THRESHOLD_=65536, which hands freed memory back to the
    # system at once and (being set) stops glibc from raising its mmap threshold: every map of a
    # job then comes fresh from the kernel, a page fault per 4 KB. At 512 x 512 that is 1500 faults
    # and 6 ms of processor time per file, as much as the job. These workers keep no data between
    # tasks (a task returns a small row), so nothing is gained by trimming; the thread limits of the
    # numerical libraries stay as Dask sets them.
    "distributed.nanny.pre-spawn-environ": {"OMP_NUM_THREADS": 1, "MKL_NUM_THREADS": 1, "OPENBLAS_NUM_THREADS": 1},
}


def local_cluster(n_workers=2, **kwargs):
    """A LocalCluster of `n_workers` single-threaded worker processes with CLUSTER_CONFIG applied.

    Single-threaded processes because each job runs on one thread (threads=0) and two jobs in one
    process would share its GIL for the Python parts (reading, writing). Use it as a context
    manager, or close it."""
    import dask
    from dask.distributed import LocalCluster

    options = dict(n_workers=n_workers, threads_per_worker=1, processes=True, dashboard_address=None)
    options.update(kwargs)
    with dask.config.set(CLUSTER_CONFIG):  # handed to the worker processes as they start
        return LocalCluster(**options)


def run(job, files, *, out_dir=None, scheduler=None, client=None, n_workers=2, write=True,
        files_per_task=None, **options):
    """Maps `job` ("psi", "psi_check", "swli", "carrier", "spot", "quadrants" or "film") over TIFF `files`
    on Dask.

    files: a list of paths or a glob pattern ("line7/*.tif"); every file is one measurement. For
        "quadrants" a file holds the maps as pages (Q1, Q3 or Q1, Q2, Q3, Q4), or a list item is a
        dict of one file per map ({"q1": "a_q1.tif", "q3": "a_q3.tif"}; named and written after Q1).
    out_dir: folder for the outputs (created); None writes each beside its input.
    scheduler: address of a running scheduler ("tcp://host:8786"); None starts a LocalCluster of
        `n_workers` single-threaded worker processes for this call.
    client: an existing dask.distributed.Client to use instead.
    write: False runs the jobs and returns the rows without writing files.
    files_per_task: files one Dask task processes one after the other. None chooses: Dask costs a
        worker a few milliseconds per task (more on a busy machine), as much as the whole job on a
        small stack, so small files are grouped until a task holds about 64 MB of input, keeping at
        least two tasks per worker thread. A worker lost takes its task's files with it (error rows).
    options: the job's keyword options (see help(quarn.psi) ...); threads defaults to 0 (quadrants
        has none: it runs on the worker's thread). For "film", stack (the STACK.json path or text,
        read by each task) and scan_step_nm are required.

    Returns one row (dict) per input, in input order."""
    from dask.distributed import Client, wait

    paths = _inputs(files)
    own_cluster = None
    own_client = None
    if client is None:
        if scheduler is None:
            own_cluster = local_cluster(n_workers)
            own_client = Client(own_cluster)
        else:
            own_client = Client(scheduler)
        client = own_client
    try:
        if files_per_task is None:
            files_per_task = _files_per_task(paths, sum(client.nthreads().values()) or 1)
        chunks = [paths[i:i + files_per_task] for i in range(0, len(paths), files_per_task)]
        futures = client.map(_process_files, [job] * len(chunks), chunks, out_dir=out_dir, write=write,
                             pure=False, **options)
        # The rows come back in one exchange with the scheduler rather than one per task; a task
        # that failed outside process_file (a worker lost, the task killed) is a row with its error
        # for each of its files.
        wait(futures)
        finished = [f for f in futures if f.status == "finished"]
        try:
            results = dict(zip((f.key for f in finished), client.gather(finished)))
        except Exception:  # a result lost since: asked for one by one below
            results = {}
        rows = []
        for chunk, future in zip(chunks, futures):
            try:
                rows += results[future.key] if future.key in results else future.result()
            except Exception as error:
                rows += [{"name": _name(path), "path": path, "status": "error",
                          "message": f"{_name(path)}: {error!r}", "valid_fraction": 0.0, "outputs": []}
                         for path in chunk]
        return rows
    finally:
        if own_client is not None:
            own_client.close()
        if own_cluster is not None:
            own_cluster.close()


def format_table(rows, columns=None):
    """The rows as a fixed-width text table (name, status, valid %, then the figures)."""
    if not rows:
        return ""
    skip = {"path", "outputs", "read_seconds", "write_seconds", "warnings", "message", "properties", "spots", "name", "status", "valid_fraction"}
    if columns is None:
        columns = [k for k in rows[0] if k not in skip]
        for row in rows[1:]:
            columns += [k for k in row if k not in skip and k not in columns]
    header = ["name", "status", "valid %"] + list(columns) + ["message"]

    def cell(value):
        if isinstance(value, float):
            return f"{value:.6g}"
        return "" if value is None else str(value)

    table = [header]
    for row in rows:
        table.append([row["name"], row["status"], f"{100.0 * row.get('valid_fraction', 0.0):.1f}"] +
                     [cell(row.get(c)) for c in columns] + [row.get("message", "")])
    widths = [max(len(r[i]) for r in table) for i in range(len(header))]
    return "\n".join("  ".join(v.ljust(w) for v, w in zip(r, widths)).rstrip() for r in table)
