"""An archive of recordings as Dask collections.

Every function takes `paths`: files, directories (their .kel files, directly
inside them) and glob patterns, in any mix. The collections are lazy: each
file is opened on a worker when the collection is computed, and a file that
cannot be read is a row that says why, never a failed computation. Paths
must name the same files on the client and on every worker (one machine, or
a shared file system).

    import kel.dask
    from distributed import Client
    client = Client(kel.dask.local_cluster(2))
    kel.dask.verify("/takes").compute()
    kel.dask.frames("/takes", streams=[0]).map(analyse).compute()
"""

import glob
import math
import os
import shutil
import subprocess
import uuid
import warnings

try:
    import dask
    import dask.bag
    import dask.dataframe
    import numpy as np
    import pandas as pd
    from dask.base import tokenize
    from dask.highlevelgraph import HighLevelGraph
except ImportError as error:
    raise ImportError(
        f"kel.dask needs Dask, distributed and pandas, which this Python cannot import ({error}). Install Debian's "
        "packages: apt-get install python3-dask python3-distributed python3-pandas") from error

import kel

__all__ = ["local_cluster", "expand", "files", "index", "frames", "verify", "copy"]

FRAMES_PER_PARTITION = 32


def local_cluster(workers=None, **options):
    """A distributed.LocalCluster of `workers` worker processes (default: one
    per core), one thread each, bound to 127.0.0.1 only: the scheduler, the
    workers and the HTTP servers of both (distributed's defaults put the
    latter on every interface). `options` go to LocalCluster as well, e.g.
    memory_limit="2GiB" per worker.

    Its scheduler sends every ready task to the workers at once instead of
    queuing them (worker-saturation inf): a task of this module reads one
    file or frame range, so a worker's memory is bounded by the one it runs
    either way, and a worker that goes straight on to its next task saves a
    round trip per file (half of what 20 small files cost on two cores)."""
    import logging

    import distributed
    settings = dict(n_workers=workers or os.cpu_count(), threads_per_worker=1, processes=True, host="127.0.0.1",
                    dashboard_address="127.0.0.1:0", worker_dashboard_address="127.0.0.1:0",
                    silence_logs=logging.ERROR)
    settings.update(options)
    with dask.config.set({"distributed.scheduler.worker-saturation": float("inf")}):
        return distributed.LocalCluster(**settings)


def expand(paths):
    """The files that `paths` name, in order, each once, as (path, problem)
    pairs with absolute paths: a file as given, a directory's .kel files
    (sorted), a pattern's matches (sorted). `problem` is None, or why nothing
    could be listed (a directory that cannot be read, a pattern that matches
    nothing); such a path becomes a row that says so."""
    if isinstance(paths, (str, os.PathLike)):
        paths = [paths]
    found, seen = [], set()

    def add(path, problem=None):
        if path not in seen:
            seen.add(path)
            found.append((path, problem))

    # Absolute, so that workers started elsewhere (dask-worker) find them.
    for given in (os.path.abspath(os.fspath(p)) for p in paths):
        if os.path.isdir(given):
            try:
                names = sorted(os.listdir(given))
            except OSError as error:
                add(given, f"cannot list the directory: {error.strerror}")
                continue
            for name in names:
                path = os.path.join(given, name)
                if name.endswith(".kel") and not os.path.isdir(path):
                    add(path)
        elif glob.has_magic(given):
            matches = sorted(glob.glob(given, recursive=True))
            if not matches:
                add(given, "no file matches")
            for path in matches:
                if not os.path.isdir(path):
                    add(path)
        else:
            add(given)
    return found


def _stat_token(path):
    """What tells one version of a file from the next, for the task keys."""
    try:
        st = os.stat(path)
        return st.st_size, st.st_mtime_ns, st.st_ino
    except OSError:
        return None


def _key(kind, *parts):
    return f"kel-{kind}-{tokenize(*parts)}"


def _frame(rows, columns):
    """A pandas DataFrame of `rows` (a list of dicts, or a dict of columns)
    with exactly `columns`' dtypes."""
    if not isinstance(rows, dict):
        rows = {name: [row[name] for row in rows] for name in columns}
    data = {}
    for name, dtype in columns.items():
        values = rows[name]
        if dtype is object:
            # Element by element: numpy would make a list of equal tuples
            # a 2-D array.
            data[name] = np.empty(len(values), dtype=object)
            for i, value in enumerate(values):
                data[name][i] = value
        else:
            data[name] = pd.array(values, dtype=dtype)
    return pd.DataFrame(data, copy=False)


_metas = {}


def _meta(columns):
    key = tuple(columns.items())
    if key not in _metas:
        _metas[key] = _frame([], columns)
    return _metas[key]


def _from_parts(kind, function, items, columns, *args, pure=True):
    """A dask DataFrame with one partition per item (a tuple): the rows of
    function(*item, *args)."""
    meta = _meta(columns)
    if not items:
        return dask.dataframe.from_pandas(meta, npartitions=1)
    token = tokenize(kind, [(item, _stat_token(item[0])) for item in items], args, None if pure else uuid.uuid4())
    return dask.dataframe.from_map(_rows, items, args=(function, columns, *args), meta=meta, label=f"kel-{kind}",
                                   token=token, enforce_metadata=False)


def _rows(item, function, columns, *args):
    return _frame(function(*item, *args), columns)


# ---- files ----

FILE_COLUMNS = {"path": object, "size": "Int64", "closed": "boolean", "atoms": "Int64", "streams": object,
                "damage": object, "error": object}


def _file_facts(path, problem=None):
    """One file's row of files(), from the runtime's summary of it
    (kel.summary: what its index and the first atom of each stream say)."""
    row = {"path": path, "size": None, "closed": None, "atoms": None, "streams": None, "damage": None,
           "error": problem}
    if problem is not None:
        return row
    summary = kel.summary(path)
    if summary["ok"]:
        row.update(size=summary["file_size"], closed=summary["closed"], atoms=summary["atoms"],
                   streams=summary["streams"], damage=summary["damage"])
        return row
    row["error"] = summary["error"]
    try:
        row["size"] = os.stat(path).st_size
    except OSError:
        pass
    return row


def _file_rows(path, problem):
    return [_file_facts(path, problem)]


def files(paths):
    """One row per file: path, size (bytes), closed (its writer closed it),
    atoms, streams (a list of dicts as kel.summary gives them: id, name,
    frames, time span, stored bytes, missing frames, first-atom layers),
    damage (the reader's damage report, a dict) and error (None, or why it
    cannot be read; the other columns are then NA, size too when it does not
    exist)."""
    return _from_parts("files", _file_rows, expand(paths), FILE_COLUMNS)


# ---- index ----

INDEX_COLUMNS = {"file": object, "file_id": "uint64", "stream": "uint16", "frame": "uint32", "time_stamp": "int64",
                 "stored_bytes": "uint64", "layer_types": object, "damaged": bool}


def _index_rows(path, problem, streams):
    if problem is not None:
        return []
    try:
        with kel.open(path) as rec:
            listing = rec.atom_index()
            file_id = rec.file_id
    except kel.KelError:
        return []  # files() says why
    keep = np.ones(len(listing["stream"]), bool) if streams is None else np.isin(listing["stream"], streams)
    columns = {name: listing[name][keep] for name in ("stream", "frame", "time_stamp", "stored_bytes", "damaged")}
    count = len(columns["stream"])
    return {"file": [path] * count, "file_id": np.full(count, file_id, np.uint64),
            "layer_types": [types for types, kept in zip(listing["layer_types"], keep) if kept], **columns}


def index(paths, streams=None):
    """One row per atom of every file, in file order, one partition per file:
    file (its path), file_id, stream, frame, time_stamp (microseconds),
    stored_bytes (its record in the file), layer_types (a tuple of type names)
    and damaged. Read from each file's index and each record's header and
    layer descriptors, without the payloads: `damaged` tells of records whose
    header or descriptors fail their checks (verify() checks every byte). A
    file that cannot be opened has no rows (files() says why); an unclosed or
    damaged one lists what a reader finds. `streams` keeps those stream ids."""
    wanted = None if streams is None else sorted({int(s) for s in streams})
    return _from_parts("index", _index_rows, expand(paths), INDEX_COLUMNS, wanted)


# ---- frames ----

def _position_times(rec, streams):
    """The time stamp of every frame position of `streams` (all when None), as
    Recording.frames() numbers them: the distinct frame numbers of those
    streams, ascending, each at the earliest time stamp any of them has.
    From the index only."""
    ids = rec.streams if streams is None else streams
    numbers = np.concatenate([rec.frame_numbers(s) for s in ids] or [np.zeros(0, np.uint32)])
    stamps = np.concatenate([rec.time_stamps(s) for s in ids] or [np.zeros(0, np.int64)])
    distinct, position = np.unique(numbers, return_inverse=True)
    times = np.full(len(distinct), np.iinfo(np.int64).max, np.int64)
    np.minimum.at(times, position, stamps)
    return times


def _position(bound, times, fallback):
    """A frame position (int) or seconds from the first frame (float) as a
    position, as Recording.frames() reads `start` and `stop`."""
    if bound is None:
        return fallback
    if isinstance(bound, float):
        if len(times) == 0:
            return 0
        micro = math.copysign(math.floor(abs(bound) * 1e6 + 0.5), bound)  # rounds half away from zero
        at = np.flatnonzero(times >= times[0] + int(micro))
        return int(at[0]) if len(at) else len(times)
    if bound < 0:
        raise ValueError("a frame position cannot be negative")
    return min(int(bound), len(times))


def _frames_piece(path, streams, start, stop, skip_damaged):
    with kel.open(path) as rec:
        yield from rec.frames(streams=streams, start=start, stop=stop, skip_damaged=skip_damaged)


def frames(paths, streams=None, start=None, stop=None, frames_per_partition=FRAMES_PER_PARTITION,
           skip_damaged=True):
    """The frames of every file as a dask Bag, file after file: each a list of
    complete atoms, one per stream, as Recording.frames() yields them (each
    stream restored from its own first atom). `start` and `stop` apply to
    each file: frame positions (int) or seconds from its first frame (float),
    `stop` excluded; they are resolved from the index on the client, so no
    payload outside the range is read. Each partition is one file's frame
    range of at most `frames_per_partition` frames, read on a worker, which
    holds about one frame at a time when the bag is mapped and reduced.

    Frames lost to damage are left out (skip_damaged=False makes them fail
    the computation, as Recording.frames() does); files that cannot be
    opened, or lack a stream asked for, are left out with a warning (files()
    and verify() say why)."""
    if frames_per_partition < 1:
        raise ValueError("frames_per_partition must be at least 1")
    wanted = None if streams is None else [int(s) for s in streams]
    pieces, left_out = [], []
    for path, problem in expand(paths):
        if problem is not None:
            left_out.append(f"{path}: {problem}")
            continue
        try:
            with kel.open(path) as rec:
                missing = [s for s in wanted or () if s not in rec.streams]
                if missing:
                    left_out.append(f"{path}: holds no stream {', '.join(map(str, missing))}")
                    continue
                times = _position_times(rec, wanted)
        except kel.KelError as error:
            left_out.append(str(error))
            continue
        first, end = _position(start, times, 0), _position(stop, times, len(times))
        token = _stat_token(path)
        pieces += [(path, lo, min(lo + frames_per_partition, end), token)
                   for lo in range(first, end, frames_per_partition)]
    if left_out:
        warnings.warn("kel.dask.frames leaves out " + "; ".join(left_out), UserWarning, stacklevel=2)
    if not pieces:
        return dask.bag.from_sequence([], npartitions=1)
    name = _key("frames", pieces, wanted, skip_damaged)
    # (list, generator) as dask.bag's own readers do: a mapped and reduced bag
    # streams through the generator instead of holding the partition.
    graph = {(name, i): (list, (_frames_piece, path, wanted, lo, hi, skip_damaged))
             for i, (path, lo, hi, _) in enumerate(pieces)}
    return dask.bag.Bag(HighLevelGraph.from_collections(name, graph, dependencies=[]), name, len(pieces))


# ---- verify ----

VERIFY_COLUMNS = {"path": object, "verdict": object, "intact": bool, "open_error": object, "atom_records": "int64",
                  "damaged_records": "int64", "damaged_bytes": "int64", "truncated_tail_bytes": "int64",
                  "recoverable_atoms": "int64", "problems": object, "warnings": object}


def _verify_rows(path, problem):
    if problem is not None:
        return [{"path": path, "verdict": "UNREADABLE", "intact": False, "open_error": problem, "atom_records": 0,
                 "damaged_records": 0, "damaged_bytes": 0, "truncated_tail_bytes": 0, "recoverable_atoms": 0,
                 "problems": [], "warnings": []}]
    report = kel.verify(path)
    return [{"path": path, **{column: report[column] for column in VERIFY_COLUMNS if column != "path"}}]


def verify(paths):
    """Every byte of every file checked on the workers, one row per file: the
    verdict of `kel verify` ("OK", "NOT CLOSED", "DAMAGED", "UNREADABLE"),
    whether it is intact, why it cannot be opened, the counts of its records
    and damage, and the problems and warnings found (lists of dicts)."""
    return _from_parts("verify", _verify_rows, expand(paths), VERIFY_COLUMNS)


# ---- copy ----

COPY_COLUMNS = {"path": object, "output": object, "done": bool, "verdict": object, "error": object}


def kel_tool():
    """The `kel` tool of this installation or build tree: $KEL_TOOL when set,
    else the one beside this package (<build>/tools/kel/kel for the build
    tree's <build>/python/kel, <prefix>/bin/kel for an installed
    <prefix>/lib/python3.X/dist-packages/kel), else `kel` on the PATH."""
    if os.environ.get("KEL_TOOL"):
        return os.environ["KEL_TOOL"]
    here = os.path.dirname(os.path.abspath(__file__))
    for candidate in (os.path.join(here, "..", "..", "tools", "kel", "kel"),
                      os.path.join(here, "..", "..", "..", "..", "bin", "kel")):
        if os.access(candidate, os.X_OK):
            return os.path.normpath(candidate)
    return shutil.which("kel")


def _copy_rows(path, problem, output, streams, compress, overwrite, skip_damaged):
    row = {"path": path, "output": output, "done": False, "verdict": None, "error": problem}
    if problem is not None:
        return [row]
    tool = kel_tool()
    if tool is None:
        row["error"] = "the kel tool was not found (set KEL_TOOL to its path)"
        return [row]
    command = [tool, "copy", path, output, "--quiet"]
    if streams:
        command += ["--streams", ",".join(map(str, streams))]
    if compress == "none":
        command.append("--decompress")
    elif compress is not None:
        command += ["--compress", compress]
    if overwrite:
        command.append("--overwrite")
    if skip_damaged:
        command.append("--skip-damaged")
    run = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if run.returncode != 0:
        row["error"] = run.stderr.strip() or f"kel copy exited with {run.returncode}"
        return [row]
    report = kel.verify(output)
    row.update(verdict=report["verdict"], done=report["verdict"] == "OK")
    if not row["done"]:
        row["error"] = f"the copy does not verify: {report['verdict']}"
    return [row]


def copy(paths, out_dir, compress=None, streams=None, overwrite=False, skip_damaged=False):
    """Each file copied into `out_dir` (same name) on a worker by `kel copy`
    (all streams, or `streams`: ids or names), then verified there: one row
    per file with the output's path, done (copied and verified "OK"), the
    output's verdict and the error (kel copy's message: an existing output
    unless overwrite, frames lost to damage unless skip_damaged, a
    `compress` it refuses). `compress`: "zstd" or "zstd:LEVEL" stores the
    blobs compressed, "none" as they are, None as `kel copy` does by default
    (KEL_COMPRESSION of the workers, else as they are). The files are written
    when the DataFrame is computed."""
    out_dir = os.path.abspath(os.fspath(out_dir))
    items = [(path, problem, os.path.join(out_dir, os.path.basename(path))) for path, problem in expand(paths)]
    inputs = {}
    for path, _, output in items:
        if output in inputs:
            raise ValueError(f"'{inputs[output]}' and '{path}' would both be copied to '{output}'")
        inputs[output] = path
    os.makedirs(out_dir, exist_ok=True)
    wanted = None if streams is None else [str(s) for s in streams]
    return _from_parts("copy", _copy_rows, items, COPY_COLUMNS, wanted, compress, overwrite, skip_damaged,
                       pure=False)
