"""Batch conversion of an archive on a Dask cluster.

    python3 -m imagelib.batch SRC... --to DIR [--type T] [convert options]
                              [--scheduler ADDRESS] [--workers N] [--manifest FILE] [--retries K]
    python3 -m imagelib.batch info SRC... [--output FILE] [--scheduler ADDRESS] [--workers N]

SRC are files, folders (searched recursively) or glob patterns (``**`` spans
folders). Every file becomes DIR/<its path below the folder or the pattern's
fixed part>/<name>.<ext>, so the archive's folders keep their shape. Without
``--scheduler`` a local cluster of N worker processes runs on this machine;
with ``--scheduler tcp://HOST:PORT`` the batch goes to a running cluster
(``dask-scheduler`` and ``dask-worker``) whose workers see the same paths and
import imagelib.

Work goes out in groups of files, each group one Dask task, sized so that the
scheduling cost of a task is a small part of its work. A worker converts each
file of its group through ``imagelib.convert`` into a temporary name in the
target folder and renames it on success, so a name in DIR is always a whole
file. The client writes the manifest (JSON Lines, one line a file) as groups
finish; a rerun with the same manifest skips every file already converted
whose output is still there with the recorded size, so an interrupted batch
resumes where it stopped. A failed file is recorded with its status and the
others go on: exit status 0 when every file succeeded, 1 otherwise.

Manifest lines: {"source", "output", "status", "statusText", "bytesIn",
"bytesOut", "seconds", "worker"}: status 0 is success, a negative number the
library's status (-111 for a file system failure while writing or renaming,
-126 for an output name two sources would share) or -1 when the task itself
was lost (a group whose workers kept dying).

The same machinery runs from Python:

    >>> from imagelib import batch
    >>> summary = batch.convert_files(["archive/"], "out", type=28, workers=4, manifest="m.jsonl")
    >>> summary.failed
"""

from __future__ import annotations

import argparse
import contextlib
import dataclasses
import glob
import json
import logging
import os
import secrets
import sys
import threading
import time

import imagelib

__all__ = ["Job", "Summary", "scan", "plan", "convert_files", "info_files", "main"]

STATUS_OK = 0
STATUS_WRITEFAILED = -111
STATUS_OPENFAILED = -113
STATUS_BADARG = -126
STATUS_TASKLOST = -1

# Statuses of the file system rather than of the file's contents: a shared
# file system may fail for a moment, so these are tried again.
_TRANSIENT = (STATUS_WRITEFAILED, STATUS_OPENFAILED)

# Group sizing. A task costs the scheduler and the client about 2 ms of CPU
# and the worker as much again (docs/performance.md); a file costs a fixed part
# (open, detect, create, rename: 2 to 4 ms for a small file) plus a part that
# grows with its bytes (70 to 100 MB/s for uncompressed sources, far less for
# compressed ones). The estimate below takes the low ends, so it never
# overstates a group's work. Groups are filled until it reaches the target:
# GROUP_TARGET_SECONDS (50 times a task's cost), or more on a large cluster,
# where the one scheduler would otherwise become the limit: every worker
# thread finishing a task each `target` seconds must keep the scheduler at
# most a quarter busy. A small batch gets smaller groups, so every worker
# thread has several (the last groups then finish together), but never below
# MIN_GROUP_SECONDS (20 times a task's cost).
GROUP_TARGET_SECONDS = 0.25
MIN_GROUP_SECONDS = 0.1
SCHEDULER_TASK_SECONDS = 0.0025
FILE_SECONDS = 0.002
BYTE_SECONDS = 1.0 / 100e6
INFO_FILE_SECONDS = 0.0001     # a header read: 0.1 to 0.3 ms whatever the file's size
GROUPS_PER_THREAD = 4
MAX_GROUP_FILES = 2500

_PART = ".part-"  # temporary outputs: .<name>.part-<token>.<ext>


@dataclasses.dataclass
class Job:
    """One file of a batch: where it is, where its output goes, its size."""
    source: str
    output: str
    size: int = 0


@dataclasses.dataclass
class Summary:
    """What a batch did. ``failed`` counts files recorded with a nonzero status."""
    files: int = 0
    converted: int = 0
    skipped: int = 0
    failed: int = 0
    bytes_in: int = 0
    bytes_out: int = 0
    seconds: float = 0.0
    tasks: int = 0

    @property
    def ok(self) -> bool:
        return self.failed == 0

    def line(self) -> str:
        done = self.converted + self.failed
        rate = done / self.seconds if self.seconds > 0 else 0.0
        mb = self.bytes_in / 1e6 / self.seconds if self.seconds > 0 else 0.0
        return (f"{self.files} files: {self.converted} converted, {self.failed} failed, "
                f"{self.skipped} already done; {self.seconds:.1f} s, {rate:.1f} files/s, {mb:.1f} MB/s read "
                f"({self.tasks} tasks)")


# ---- finding the files -------------------------------------------------------------------

def _has_magic(s: str) -> bool:
    return glob.has_magic(s)


def _fixed_part(pattern: str) -> str:
    """The folder a glob pattern's matches are named relative to: its leading
    components without wildcards."""
    parts = pattern.split(os.sep)
    fixed = []
    for p in parts[:-1]:
        if _has_magic(p):
            break
        fixed.append(p)
    base = os.sep.join(fixed)
    if not base and pattern.startswith(os.sep):
        base = os.sep
    return base or "."


def _is_part(name: str) -> bool:
    return name.startswith(".") and _PART in name


def _walk(folder: str, prune: set[str]):
    """Regular files below a folder, sorted, without our temporary outputs and
    without the folders in `prune` (the batch's own output folder)."""
    for root, dirs, files in os.walk(folder):
        dirs[:] = sorted(d for d in dirs if os.path.realpath(os.path.join(root, d)) not in prune)
        for f in sorted(files):
            p = os.path.join(root, f)
            if not _is_part(f) and os.path.isfile(p):
                yield p


def scan(sources, prune=()):
    """Expands SRC arguments into (absolute path, path relative to its base)
    pairs, in order, each file once. Folders are searched recursively; a
    pattern's matches are relative to its fixed part. Arguments that name
    nothing come back as (absolute path, None)."""
    prune = {os.path.realpath(p) for p in prune}
    seen = set()

    def emit(path, base):
        a = os.path.abspath(path)
        if a in seen:
            return None
        seen.add(a)
        return (a, os.path.relpath(a, os.path.abspath(base)))

    for src in sources:
        src = os.fspath(src)
        if os.path.isdir(src):
            found = [emit(p, src) for p in _walk(src, prune)]
        elif os.path.isfile(src):
            found = [emit(src, os.path.dirname(src) or ".")]
        elif _has_magic(src):
            base = _fixed_part(src)
            found = []
            for m in sorted(glob.glob(src, recursive=True)):
                if os.path.isdir(m):
                    found += [emit(p, base) for p in _walk(m, prune)]
                elif os.path.isfile(m) and not _is_part(os.path.basename(m)):
                    found.append(emit(m, base))
        else:
            found = [(os.path.abspath(src), None)]
        yield from (f for f in found if f is not None)


def _extension(type_) -> tuple[int | None, str | None]:
    """--type: a type number or a name extension (tif, png, ppm...). Returns
    (the number to convert with or None for the name's rule, the extension)."""
    if type_ is None:
        return None, None
    if isinstance(type_, int) or (isinstance(type_, str) and type_.isdigit()):
        t = int(type_)
        rows = {f["type"]: f for f in imagelib.formats()}
        if t not in rows or not rows[t]["writable"]:
            raise ValueError(f"type {t} is not a type the library writes")
        return t, rows[t]["extension"]
    ext = type_.lstrip(".").lower()
    if not ext or os.sep in ext:
        raise ValueError(f"bad type {type_!r}")
    return None, ext


def plan(sources, to, *, type=None, prune_output=True):
    """The jobs of a batch: every file found with its output name. Returns
    (jobs, refused) where refused holds (source, output, status, text) for
    arguments that name nothing and outputs two sources would share."""
    number, ext = _extension(type)
    to = os.path.abspath(os.fspath(to))
    jobs, refused, owner = [], [], {}
    for src, rel in scan(sources, prune=[to] if prune_output else []):
        if rel is None:
            refused.append((src, "", STATUS_OPENFAILED, imagelib.status_text(STATUS_OPENFAILED)))
            continue
        if ext is not None:
            rel = os.path.splitext(rel)[0] + "." + ext
        out = os.path.normpath(os.path.join(to, rel))
        if os.path.realpath(out) == os.path.realpath(src):
            refused.append((src, out, STATUS_BADARG, "the output would replace its source"))
            continue
        if out in owner:
            refused.append((src, out, STATUS_BADARG, f"output name also made from {owner[out]}"))
            continue
        owner[out] = src
        try:
            size = os.stat(src).st_size
        except OSError:
            size = 0
        jobs.append(Job(src, out, size))
    return jobs, refused, number


def _group_seconds(threads):
    """(smallest, largest) estimated work of a group for a cluster of `threads`."""
    scheduler_bound = 4 * threads * SCHEDULER_TASK_SECONDS
    return max(MIN_GROUP_SECONDS, scheduler_bound), max(GROUP_TARGET_SECONDS, scheduler_bound)


def _groups(jobs, threads, *, files_per_group=None, file_seconds=FILE_SECONDS, byte_seconds=BYTE_SECONDS):
    """Splits jobs into consecutive groups (neighbouring files stay together),
    each worth about the target work (see above), with GROUPS_PER_THREAD
    groups a worker thread when there is enough work for groups of at least
    the smallest."""
    if not jobs:
        return []
    if files_per_group:
        n = max(1, int(files_per_group))
        return [jobs[i:i + n] for i in range(0, len(jobs), n)]
    cost = [file_seconds + j.size * byte_seconds for j in jobs]
    threads = max(threads, 1)
    smallest, largest = _group_seconds(threads)
    target = max(smallest, min(largest, sum(cost) / (GROUPS_PER_THREAD * threads)))
    groups, cur, acc = [], [], 0.0
    for j, c in zip(jobs, cost):
        cur.append(j)
        acc += c
        if acc >= target or len(cur) >= MAX_GROUP_FILES:
            groups.append(cur)
            cur, acc = [], 0.0
    if cur:
        groups.append(cur)
    return groups


# ---- the manifest --------------------------------------------------------------------------

def read_manifest(path) -> dict:
    """{(source, output): bytes out} of the files a manifest lists as
    converted, by their last record; lines that do not parse (the end of a
    batch killed while writing) are passed over."""
    done = {}
    try:
        f = open(path, encoding="utf-8")
    except FileNotFoundError:
        return done
    with f:
        for line in f:
            try:
                r = json.loads(line)
                key = (r["source"], r["output"])
            except (ValueError, KeyError, TypeError):
                continue
            if r.get("status") == STATUS_OK:
                done[key] = r.get("bytesOut")
            else:
                done.pop(key, None)
    return done


def _already_done(output, bytes_out) -> bool:
    """Whether an output the manifest lists is still there, as it was written."""
    try:
        return bytes_out is not None and os.stat(output).st_size == bytes_out
    except OSError:
        return False


class _Manifest:
    """Appends records as they come, one flushed line each."""

    def __init__(self, path):
        self.f = None
        if path is None:
            return
        path = os.fspath(path)
        folder = os.path.dirname(os.path.abspath(path))
        os.makedirs(folder, exist_ok=True)
        self.f = open(path, "a+b")
        # A batch killed in the middle of a line left it without its end:
        # start on a fresh line.
        self.f.seek(0, os.SEEK_END)
        if self.f.tell() > 0:
            self.f.seek(-1, os.SEEK_END)
            if self.f.read(1) != b"\n":
                self.f.write(b"\n")

    def write(self, rec):
        if self.f is not None:
            self.f.write(json.dumps(rec).encode() + b"\n")
            self.f.flush()

    def close(self):
        if self.f is not None:
            self.f.close()


# ---- the tasks (run on the workers) --------------------------------------------------------

def _worker_name() -> str:
    try:
        from distributed import get_worker
        return get_worker().address
    except (ImportError, ValueError):
        return f"local:{os.getpid()}"


def _status_of(e: BaseException) -> tuple[int, str]:
    if isinstance(e, imagelib.ImagelibError):
        return e.status, str(e.args[0]) if e.args else imagelib.status_text(e.status)
    if isinstance(e, OSError):
        return STATUS_WRITEFAILED, f"{e.strerror or e}"
    return STATUS_BADARG, f"{type(e).__name__}: {e}"


def _remove_stale_parts(jobs):
    """Removes the temporary outputs an interrupted run left for these jobs:
    one listing of each of their folders."""
    by_folder = {}
    for j in jobs:
        folder, name = os.path.split(j.output)
        stem, ext = os.path.splitext(name)
        by_folder.setdefault(folder, set()).add((stem, ext))
    for folder, names in by_folder.items():
        try:
            entries = list(os.scandir(folder))
        except OSError:
            continue
        for e in entries:
            if not _is_part(e.name):
                continue
            stem = e.name[1:e.name.rindex(_PART)]
            if (stem, os.path.splitext(e.name)[1]) in names:
                with contextlib.suppress(OSError):
                    os.unlink(e.path)


def _convert_one(source, output, options, retries, worker):
    t0 = time.perf_counter()
    rec = {"source": source, "output": output, "status": STATUS_OK, "statusText": "",
           "bytesIn": None, "bytesOut": None, "seconds": 0.0, "worker": worker}
    folder, name = os.path.split(output)
    stem, ext = os.path.splitext(name)
    for attempt in range(retries + 1):
        # The temporary name keeps the extension: the output type may come from it.
        tmp = os.path.join(folder, f".{stem}{_PART}{os.getpid()}-{secrets.token_hex(4)}{ext}")
        try:
            rec["bytesIn"] = os.stat(source).st_size
        except OSError:
            rec["status"], rec["statusText"] = STATUS_OPENFAILED, imagelib.status_text(STATUS_OPENFAILED)
        else:
            try:
                os.makedirs(folder, exist_ok=True)
                imagelib.convert(source, tmp, **options)
                os.replace(tmp, output)
                rec["bytesOut"] = os.stat(output).st_size
                rec["status"], rec["statusText"] = STATUS_OK, ""
            except Exception as e:  # one file's failure is its record, never the group's
                rec["status"], rec["statusText"] = _status_of(e)
            finally:
                with contextlib.suppress(OSError):
                    os.unlink(tmp)
        if rec["status"] not in _TRANSIENT or attempt == retries:
            break
        time.sleep(0.1 * (attempt + 1))
    rec["seconds"] = round(time.perf_counter() - t0, 6)
    return rec


def _convert_group(jobs, options, file_retries):
    """A task: converts each (source, output) of a group; one record each."""
    worker = _worker_name()
    return [_convert_one(s, o, options, file_retries, worker) for s, o in jobs]


def _info_group(paths):
    """A task: the info of each file of a group (with its byte count), or its
    status when the library cannot tell."""
    out = []
    for p in paths:
        try:
            d = imagelib.info(p)
            d["bytes"] = os.stat(p).st_size
        except Exception as e:
            st, text = _status_of(e)
            d = {"file": p, "status": st, "statusText": text}
        out.append(d)
    return out


def _noop(x):
    return x


# ---- the cluster ---------------------------------------------------------------------------

@contextlib.contextmanager
def cluster(scheduler=None, workers=None):
    """A Dask client: to the scheduler at `scheduler`, or to a local cluster
    of `workers` single-threaded worker processes (the CPU count by default),
    closed on exit."""
    from distributed import Client, LocalCluster
    if scheduler:
        client = Client(scheduler)
        try:
            yield client
        finally:
            client.close()
        return
    n = workers or os.cpu_count() or 1
    local = LocalCluster(n_workers=n, threads_per_worker=1, processes=True, dashboard_address=None,
                         silence_logs=logging.ERROR)
    try:
        client = Client(local)
        try:
            yield client
        finally:
            client.close()
    finally:
        local.close()


def _threads(client) -> int:
    try:
        return max(1, sum(client.nthreads().values()))
    except Exception:
        return 1


class _Progress:
    """Dask's text progress bar over a set of futures, drawn from its own thread."""

    def __init__(self, futures, enabled):
        self.thread = None
        if not enabled or not futures:
            return
        from distributed.diagnostics.progressbar import TextProgressBar
        address = futures[0].client.scheduler.address

        def run():
            with contextlib.suppress(Exception):
                TextProgressBar(futures, scheduler=address)

        self.thread = threading.Thread(target=run, daemon=True, name="imagelib-batch-progress")
        self.thread.start()

    def finish(self):
        if self.thread is not None:
            self.thread.join(timeout=2.0)


def _run(client, func, groups, kwargs, retries, progress, on_result, on_lost):
    """Submits one task per group and hands each result to on_result as it
    arrives (on_lost(group, text) for a task that could not be run)."""
    from distributed import as_completed
    futures = client.map(func, groups, **kwargs, retries=retries, pure=False)
    by_key = {f.key: g for f, g in zip(futures, groups)}
    bar = _Progress(futures, progress)
    try:
        for fut, result in as_completed(futures, with_results=True, raise_errors=False):
            group = by_key.pop(fut.key)
            if fut.status == "finished":
                on_result(result)
            else:
                try:
                    exc = fut.exception(timeout=10)
                    text = f"task failed: {type(exc).__name__}: {exc}"
                except Exception:
                    text = f"task failed: {fut.status}"
                on_lost(group, text)
    finally:
        bar.finish()
        client.cancel(futures)
        del futures


# ---- the two commands ----------------------------------------------------------------------

def convert_files(sources, to, *, type=None, options=None, client=None, scheduler=None, workers=None,
                  manifest=None, retries=2, files_per_group=None, progress=False, log=None) -> Summary:
    """Converts every file of `sources` into folder `to` on a Dask cluster.

    type: a type number or an extension (tif, png, ppm...) of the outputs;
    None rewrites every file in its own type and name. options: keywords of
    imagelib.convert (mode, quality, compression, size, crop, rotate, mirror).
    client: a distributed.Client to use; else one to `scheduler`, else a local
    cluster of `workers` processes. manifest: the JSON Lines file to append
    to and resume from. retries: times a task that failed, or a file that
    failed on the file system, is tried again. log(text) is told each failure.
    """
    t0 = time.perf_counter()
    options = dict(options or {})
    for k in ("type", "progress"):
        if k in options:
            raise ValueError(f"{k} is not a conversion option here")
    jobs, refused, number = plan(sources, to, type=type)
    options["type"] = number
    summary = Summary(files=len(jobs) + len(refused))
    previous = read_manifest(manifest) if manifest is not None else {}
    todo = []
    for j in jobs:
        key = (j.source, j.output)
        if key in previous and _already_done(j.output, previous[key]):
            summary.skipped += 1
        else:
            todo.append(j)
    if previous:
        _remove_stale_parts(todo)
    man = _Manifest(manifest)

    def record(rec):
        man.write(rec)
        if rec["status"] == STATUS_OK:
            summary.converted += 1
            summary.bytes_in += rec["bytesIn"] or 0
            summary.bytes_out += rec["bytesOut"] or 0
        else:
            summary.failed += 1
            if log:
                log(f"{rec['source']}: {rec['statusText']} ({rec['status']})")

    try:
        for src, out, st, text in refused:
            record({"source": src, "output": out, "status": st, "statusText": text, "bytesIn": None,
                    "bytesOut": None, "seconds": 0.0, "worker": None})
        if todo:
            with contextlib.ExitStack() as stack:
                if client is None:
                    client = stack.enter_context(cluster(scheduler, workers))
                groups = _groups(todo, _threads(client), files_per_group=files_per_group)
                summary.tasks = len(groups)

                def on_result(recs):
                    for r in recs:
                        record(r)

                def on_lost(group, text):
                    for source, output in group:
                        record({"source": source, "output": output, "status": STATUS_TASKLOST,
                                "statusText": text, "bytesIn": None, "bytesOut": None, "seconds": 0.0,
                                "worker": None})

                _run(client, _convert_group, [[(j.source, j.output) for j in g] for g in groups],
                     {"options": options, "file_retries": retries}, retries, progress, on_result, on_lost)
    finally:
        man.close()
    summary.seconds = time.perf_counter() - t0
    return summary


def info_files(sources, out, *, client=None, scheduler=None, workers=None, retries=2, files_per_group=None,
               progress=False) -> Summary:
    """Writes the info of every file of `sources` to the text stream `out`,
    one JSON object a line, in the order the groups finish."""
    t0 = time.perf_counter()
    found = list(scan(sources))
    summary = Summary(files=len(found))

    def emit(d):
        out.write(json.dumps(d) + "\n")
        if "status" in d:
            summary.failed += 1
        else:
            summary.converted += 1
            summary.bytes_in += d.get("bytes", 0)

    paths = []
    for path, rel in found:
        if rel is None:
            emit({"file": path, "status": STATUS_OPENFAILED, "statusText": imagelib.status_text(STATUS_OPENFAILED)})
        else:
            paths.append(Job(path, ""))
    if paths:
        with contextlib.ExitStack() as stack:
            if client is None:
                client = stack.enter_context(cluster(scheduler, workers))
            groups = _groups(paths, _threads(client), files_per_group=files_per_group,
                             file_seconds=INFO_FILE_SECONDS, byte_seconds=0.0)
            summary.tasks = len(groups)

            def on_result(ds):
                for d in ds:
                    emit(d)

            def on_lost(group, text):
                for p in group:
                    emit({"file": p, "status": STATUS_TASKLOST, "statusText": text})

            _run(client, _info_group, [[j.source for j in g] for g in groups], {}, retries, progress,
                 on_result, on_lost)
    out.flush()
    summary.seconds = time.perf_counter() - t0
    return summary


# ---- command line ------------------------------------------------------------------------------

def _size_arg(s):
    try:
        w, h = (int(v) for v in s.lower().split("x"))
    except ValueError:
        raise argparse.ArgumentTypeError("takes WxH") from None
    if w <= 0 or h <= 0:
        raise argparse.ArgumentTypeError("takes WxH, both positive")
    return (w, h)


def _crop_arg(s):
    try:
        r = tuple(int(v) for v in s.split(","))
    except ValueError:
        raise argparse.ArgumentTypeError("takes x0,y0,x1,y1") from None
    if len(r) != 4:
        raise argparse.ArgumentTypeError("takes x0,y0,x1,y1")
    return r


def _mode_arg(s):
    if s.isdigit() and 1 <= int(s) <= 6:
        return int(s)
    if s.lower() in imagelib.MODES:
        return s.lower()
    raise argparse.ArgumentTypeError("takes rgb, 16, 256, grey, bilevel, rgba or 1..6")


def _cluster_args(p):
    g = p.add_argument_group("cluster")
    g.add_argument("--scheduler", metavar="ADDRESS",
                   help="a running Dask scheduler (tcp://HOST:PORT); default: a local cluster")
    g.add_argument("--workers", type=int, metavar="N",
                   help="worker processes of the local cluster (default: the CPU count)")
    g.add_argument("--retries", type=int, default=2, metavar="K",
                   help="times a failed task, or a file failing on the file system, is tried again (default 2)")
    g.add_argument("--group", type=int, metavar="FILES", dest="files_per_group",
                   help="files a task (default: sized from the files' bytes)")
    g.add_argument("--progress", action=argparse.BooleanOptionalAction, default=None,
                   help="Dask's progress bar (default: when the output is a terminal)")


def _convert_parser():
    p = argparse.ArgumentParser(
        prog="python3 -m imagelib.batch",
        description="Converts files, folders and glob patterns into DIR on a Dask cluster, keeping the folders' "
                    "shape. 'python3 -m imagelib.batch info SRC...' lists what the files are.")
    p.add_argument("sources", nargs="+", metavar="SRC", help="file, folder (searched recursively) or glob pattern")
    p.add_argument("--to", required=True, metavar="DIR", help="output folder")
    p.add_argument("--type", metavar="T",
                   help="output type: a type number or an extension (tif, png, ppm...); default: each file's own")
    g = p.add_argument_group("conversion (as imagelib convert)")
    g.add_argument("--mode", type=_mode_arg, help="rgb, 16, 256, grey, bilevel, rgba or 1..6")
    g.add_argument("--quality", type=int, help="JPEG quality")
    g.add_argument("--compression", type=int, help="the writer's compression code")
    g.add_argument("--size", type=_size_arg, metavar="WxH")
    g.add_argument("--crop", type=_crop_arg, metavar="x0,y0,x1,y1")
    g.add_argument("--rotate", type=int, choices=(90, 180, 270))
    g.add_argument("--mirror", choices=("v", "h"))
    p.add_argument("--manifest", metavar="FILE",
                   help="JSON Lines record of every file, appended; a rerun skips files it lists as done")
    _cluster_args(p)
    return p


def _info_parser():
    p = argparse.ArgumentParser(prog="python3 -m imagelib.batch info",
                                description="Writes the info of every file as JSON Lines.")
    p.add_argument("sources", nargs="+", metavar="SRC", help="file, folder (searched recursively) or glob pattern")
    p.add_argument("--output", "-o", metavar="FILE", help="write to FILE instead of the standard output")
    _cluster_args(p)
    return p


def _quiet_dask_logs():
    # The client's own warnings (a worker lost and its tasks rescheduled) are
    # handled here; the failures that matter are in the manifest.
    for name in ("distributed", "distributed.client", "distributed.scheduler", "distributed.worker",
                 "distributed.nanny", "distributed.core", "distributed.comm"):
        logging.getLogger(name).setLevel(logging.ERROR)


def main(argv=None) -> int:
    argv = list(sys.argv[1:] if argv is None else argv)
    _quiet_dask_logs()
    if argv and argv[0] == "info":
        a = _info_parser().parse_args(argv[1:])
        out = open(a.output, "w", encoding="utf-8") if a.output else sys.stdout
        show = a.progress if a.progress is not None else (a.output is not None and sys.stdout.isatty())
        try:
            s = info_files(a.sources, out, scheduler=a.scheduler, workers=a.workers, retries=a.retries,
                           files_per_group=a.files_per_group, progress=show)
        finally:
            if out is not sys.stdout:
                out.close()
        print(f"imagelib.batch info: {s.files} files, {s.failed} unreadable, {s.seconds:.1f} s", file=sys.stderr)
        return 0 if s.ok else 1

    p = _convert_parser()
    a = p.parse_args(argv)
    if a.workers is not None and a.workers < 1:
        p.error("--workers takes a positive number")
    if a.retries < 0:
        p.error("--retries takes 0 or more")
    options = {k: getattr(a, k) for k in ("mode", "quality", "compression", "size", "crop", "mirror")
               if getattr(a, k) is not None}
    if a.rotate:
        options["rotate"] = a.rotate
    show = a.progress if a.progress is not None else sys.stdout.isatty()
    try:
        s = convert_files(a.sources, a.to, type=a.type, options=options, scheduler=a.scheduler, workers=a.workers,
                          manifest=a.manifest, retries=a.retries, files_per_group=a.files_per_group, progress=show,
                          log=lambda t: print(f"imagelib.batch: {t}", file=sys.stderr))
    except ValueError as e:
        p.error(str(e))
    print(f"imagelib.batch: {s.line()}")
    return 0 if s.ok else 1


if __name__ == "__main__":
    sys.exit(main())
