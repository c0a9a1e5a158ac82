"""kel batch: verify, copy or summarise many recordings on a Dask cluster.

    kel batch verify|copy|info PATH... [--scheduler ADDRESS] [--workers N]

The `kel` tool runs this module (`python3 -m kel.batch`); it can be run so
directly too. Without --scheduler it starts a local cluster of N worker
processes bound to 127.0.0.1 and stops it at the end. Prints a progress bar
on a terminal (stderr), then a table with one line per file; exits 1 when a
file failed (verify: not intact; copy: not copied and verified; info: cannot
be opened), 2 for a usage error, 130 when interrupted.
"""

import argparse
import json
import os
import sys
import time

COMMANDS = {
    "verify": "check every byte of every file (as kel verify); a file that is not intact fails",
    "copy": "copy every file into --out with kel copy and verify the copy; a file not copied and verified fails",
    "info": "summarise every file from its index (size, atoms, streams, damage); a file that cannot be opened fails",
}


def parse(argv):
    parser = argparse.ArgumentParser(
        prog="kel batch", description="Verify, copy or summarise many recordings on a Dask cluster.",
        epilog="PATHs are .kel files, directories (their .kel files) and glob patterns. Needs Debian's "
               "python3-dask, python3-distributed and python3-pandas.")
    parser.add_argument("command", choices=COMMANDS, help="; ".join(f"{k}: {v}" for k, v in COMMANDS.items()))
    parser.add_argument("paths", nargs="+", metavar="PATH")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="a running Dask scheduler (tcp://host:8786); default: a local cluster on 127.0.0.1")
    parser.add_argument("--workers", type=int, default=os.cpu_count(), metavar="N",
                        help="worker processes of the local cluster (default: one per core)")
    parser.add_argument("--out", metavar="DIR", help="copy: the directory to write the copies to")
    parser.add_argument("--streams", metavar="LIST", help="copy: comma-separated stream ids or names (default: all)")
    parser.add_argument("--compress", metavar="zstd[:LEVEL]|none",
                        help="copy: store blobs compressed, or as they are (default: as kel copy does)")
    parser.add_argument("--overwrite", action="store_true", help="copy: replace copies that exist")
    parser.add_argument("--skip-damaged", action="store_true",
                        help="copy: leave out frames lost to damage instead of failing the file")
    parser.add_argument("--json", action="store_true", help="print the rows as JSON instead of a table")
    args = parser.parse_args(argv)
    if args.workers < 1:
        parser.error("--workers must be at least 1")
    if args.command == "copy" and not args.out:
        parser.error("copy needs --out DIR")
    if args.command != "copy" and (args.out or args.streams or args.compress or args.overwrite or args.skip_damaged):
        parser.error("--out, --streams, --compress, --overwrite and --skip-damaged belong to copy")
    return args


def collection(args):
    import kel.dask
    if args.command == "verify":
        return kel.dask.verify(args.paths)
    if args.command == "info":
        return kel.dask.files(args.paths)
    streams = args.streams.split(",") if args.streams else None
    return kel.dask.copy(args.paths, args.out, compress=args.compress, streams=streams, overwrite=args.overwrite,
                         skip_damaged=args.skip_damaged)


def failed(args, row):
    if args.command == "verify":
        return not row["intact"]
    if args.command == "info":
        return row["error"] is not None
    return not row["done"]


class Progress:
    """"[#####.....]  50%  10/20  files" on stderr when it is a terminal, at
    most ten times a second, once the work has gone on for a moment."""

    def __init__(self, total):
        self.total, self.done = total, 0
        self.enabled = sys.stderr.isatty()
        self.start, self.last, self.drawn = time.monotonic(), 0.0, False

    def step(self):
        self.done += 1
        now = time.monotonic()
        if not self.enabled or now - self.start < 0.3 or now - self.last < 0.1:
            return
        self.last, self.drawn = now, True
        filled = self.done * 30 // max(self.total, 1)
        sys.stderr.write(f"\r[{'#' * filled}{'.' * (30 - filled)}] {self.done * 100 // max(self.total, 1):3d}%  "
                         f"{self.done}/{self.total}  files\033[K")
        sys.stderr.flush()

    def finish(self):
        if self.drawn:
            sys.stderr.write("\r\033[K")
            sys.stderr.flush()


def plain(value):
    """A cell as JSON takes it: NA as None, numpy numbers as numbers."""
    import pandas as pd
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    if isinstance(value, dict):
        return {k: plain(v) for k, v in value.items()}
    if value is None or (not isinstance(value, str) and pd.isna(value)):
        return None
    return value.item() if hasattr(value, "item") else value


def size_text(size):
    if size is None:
        return "-"
    for unit in ("B", "KiB", "MiB", "GiB"):
        if size < 1024 or unit == "GiB":
            return f"{size:.0f} {unit}" if unit == "B" else f"{size:.1f} {unit}"
        size /= 1024


def table(args, rows):
    if args.command == "verify":
        header = ("FILE", "VERDICT", "RECORDS", "DAMAGED", "DETAIL")
        lines = [(r["path"], r["verdict"], r["atom_records"], r["damaged_records"],
                  r["open_error"] or "; ".join(p["what"] for p in r["problems"][:3])) for r in rows]
    elif args.command == "info":
        header = ("FILE", "SIZE", "ATOMS", "STREAMS", "CLOSED", "SKIPPED", "ERROR")
        lines = [(r["path"], size_text(r["size"]), r["atoms"],
                  None if r["streams"] is None else ",".join(str(s["id"]) for s in r["streams"]),
                  None if r["closed"] is None else ("yes" if r["closed"] else "no"),
                  None if r["damage"] is None else r["damage"]["skipped_records"], r["error"])
                 for r in rows]
    else:
        header = ("FILE", "COPY", "STATUS", "ERROR")
        lines = [(r["path"], r["output"], "done" if r["done"] else "failed",
                  (r["error"] or "").replace("\n", " / ")) for r in rows]
    cells = [header] + [tuple("-" if c is None else str(c) for c in line) for line in lines]
    widths = [max(len(line[i]) for line in cells) for i in range(len(header) - 1)]
    for line in cells:
        print("  ".join(c.ljust(w) for c, w in zip(line, widths)) + "  " + line[-1])


def run(args):
    try:
        import distributed

        import kel.dask
    except ImportError as error:
        print(f"kel: error: {error}", file=sys.stderr)
        return 1
    parts = collection(args).to_delayed()
    if args.scheduler:
        client, cluster = distributed.Client(args.scheduler), None
    else:
        cluster = kel.dask.local_cluster(args.workers)
        client = distributed.Client(cluster)
        print(f"kel batch: a local cluster of {args.workers} worker process(es) at {cluster.scheduler_address}",
              file=sys.stderr)
    try:
        futures = client.compute(parts)
        progress = Progress(len(futures))
        for _ in distributed.as_completed(futures):
            progress.step()
        progress.finish()
        frames = client.gather(futures)
    finally:
        client.close()
        if cluster is not None:
            cluster.close()
    rows = [{k: plain(v) for k, v in row.items()} for frame in frames for row in frame.to_dict("records")]
    if args.json:
        print(json.dumps(rows, indent=2))
    else:
        table(args, rows)
    bad = sum(failed(args, row) for row in rows)
    if bad:
        print(f"kel: error: {bad} of {len(rows)} file(s) failed", file=sys.stderr)
        return 1
    print(f"{len(rows)} file(s), none failed", file=sys.stderr)
    return 0


def main(argv=None):
    args = parse(argv)
    try:
        return run(args)
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
