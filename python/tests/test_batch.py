"""python3 -m imagelib.batch: archive conversion on Dask clusters."""

import json
import logging
import os
import pathlib
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import imagelib
from conftest import palette_picture, picture

distributed = pytest.importorskip("distributed")
from imagelib import batch  # noqa: E402  (needs distributed at run time only)

PYTHON = "/usr/bin/python3" if os.access("/usr/bin/python3", os.X_OK) else sys.executable
TIMEOUT = 120


def _env():
    """The environment worker processes need: imagelib importable, the message catalogue."""
    env = dict(os.environ)
    pkg_root = str(pathlib.Path(imagelib.__file__).resolve().parents[1])
    env["PYTHONPATH"] = os.pathsep.join(p for p in (pkg_root, env.get("PYTHONPATH")) if p)
    return env


def _kill_group(proc):
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    proc.wait()


@pytest.fixture
def batches():
    """Starts `python3 -m imagelib.batch ARGS` in its own process group; every
    one is killed with all it started when the test ends."""
    started = []

    def start(*args):
        p = subprocess.Popen([PYTHON, "-m", "imagelib.batch", *map(str, args)], env=_env(), text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        started.append(p)
        return p

    try:
        yield start
    finally:
        for p in started:
            _kill_group(p)


def _finish(proc):
    out, err = proc.communicate(timeout=TIMEOUT)
    return proc.returncode, out, err


def _write_archive(root: pathlib.Path):
    """60 small files of six types and several colour modes in nested folders."""
    files = []
    for i in range(10):
        folder = root / f"map{i % 3}" / f"sheet{i}"
        folder.mkdir(parents=True)
        w, h = 17 + i, 11 + (i * 5) % 9
        rgb = picture(w, h, seed=i)
        idx16, pal16 = palette_picture(16, w, h, seed=i)
        idx256, pal256 = palette_picture(200, w, h, seed=i + 50)
        cases = [
            ("scan.bmp", rgb, {}),
            ("scan256.bmp", idx256, {"palette": pal256}),
            ("photo.tga", rgb, {}),
            ("line.tif", idx16 % 2 == 1, {}),
            ("grey.png", rgb[:, :, 1], {}),
            ("plan.pcx", idx16, {"palette": pal16}),
        ]
        for name, data, kw in cases:
            imagelib.write(folder / name, data, **kw)
            files.append(folder / name)
    return files


@pytest.fixture(scope="module")
def archive(tmp_path_factory):
    root = tmp_path_factory.mktemp("archive")
    files = _write_archive(root / "good")
    bad = root / "bad.bmp"
    bad.write_bytes(files[0].read_bytes()[:40])  # the header cut short
    return root, files, bad


def _manifest(path):
    """The records of a manifest, without a line cut short."""
    recs = []
    for line in pathlib.Path(path).read_text().splitlines():
        try:
            recs.append(json.loads(line))
        except ValueError:
            pass
    return recs


def _expected(cli, tmp_path, src, ext, *options):
    ref = tmp_path / f"ref.{ext}"
    cli("convert", src, ref, *options)
    return ref.read_bytes()


def _parts(folder):
    return [p for p in pathlib.Path(folder).rglob("*") if ".part-" in p.name]


# ---- finding files and sizing groups (no cluster) --------------------------------------------

def test_plan_keeps_folder_shape_and_refuses_what_it_cannot_name(archive, tmp_path):
    root, files, bad = archive
    out = tmp_path / "out"
    sources = [root / "good", str(root / "good" / "map1" / "**" / "*.tga"), bad, files[0], tmp_path / "nothing.bmp"]
    jobs, refused, number = batch.plan(sources, out, type="tif")
    assert number is None
    outputs = {j.source: j.output for j in jobs}
    # every file once, though the pattern and the file argument name some again
    assert sorted(outputs) == sorted([str(f) for f in files] + [str(bad)])
    assert outputs[str(files[0])] == str(out / files[0].relative_to(root / "good").with_suffix(".tif"))
    assert outputs[str(bad)] == str(out / "bad.tif")
    assert refused == [(str(tmp_path / "nothing.bmp"), "", -113, imagelib.status_text(-113))]

    # A pattern's matches are named below its fixed part; two sources that
    # would share an output name: the second is refused.
    jobs, refused, number = batch.plan([str(root / "good" / "map*" / "sheet0" / "scan*.bmp"), bad], out, type=9)
    assert number == 9
    assert sorted(j.output for j in jobs) == [str(out / "bad.bmp"), str(out / "map0/sheet0/scan.bmp"),
                                              str(out / "map0/sheet0/scan256.bmp")]
    jobs, refused, _ = batch.plan([root / "good" / "map0" / "sheet0" / "scan.bmp",
                                   root / "good" / "map0" / "sheet3" / "scan.bmp"], out, type="png")
    assert len(jobs) == 1 and refused[0][2] == -126 and refused[0][3].endswith("sheet0/scan.bmp")

    # The output folder inside a source folder is not a source; types that
    # cannot be written are refused before anything runs.
    inner = root / "good" / "map0" / "converted"
    inner.mkdir(exist_ok=True)
    (inner / "x.bmp").write_bytes(files[0].read_bytes())
    try:
        jobs, _, _ = batch.plan([root / "good"], inner, type="png")
        assert len(jobs) == len(files)
    finally:
        (inner / "x.bmp").unlink()
        inner.rmdir()
    with pytest.raises(ValueError):
        batch.plan([root], out, type=16)  # a type read only
    # rewriting files in their own type into their own folder would replace them
    jobs, refused, _ = batch.plan([files[0].parent], files[0].parent)
    assert jobs == [] and [r[2] for r in refused] == [-126] * 6


def test_groups_cover_every_file_in_order_and_weigh_enough():
    jobs = [batch.Job(f"s{i}", f"o{i}", size=(i % 7) * 300_000) for i in range(30000)]
    one_file = batch.FILE_SECONDS + 6 * 300_000 * batch.BYTE_SECONDS
    for threads in (1, 2, 100, 1000):
        groups = batch._groups(jobs, threads)
        assert [j for g in groups for j in g] == jobs
        cost = [sum(batch.FILE_SECONDS + j.size * batch.BYTE_SECONDS for j in g) for g in groups]
        smallest, largest = batch._group_seconds(threads)
        # a task's cost is a small part of every group's work but the last
        assert min(cost[:-1]) >= smallest >= 20 * batch.SCHEDULER_TASK_SECONDS
        assert max(cost) < largest + one_file
    # a small batch is spread so every thread has several groups
    assert len(batch._groups(jobs[:400], 2)) >= 2 * batch.GROUPS_PER_THREAD
    assert [len(g) for g in batch._groups(jobs[:10], 4, files_per_group=3)] == [3, 3, 3, 1]


def test_manifest_reading_passes_over_a_cut_line_and_resumes_on_a_fresh_one(tmp_path):
    m = tmp_path / "m.jsonl"
    out = tmp_path / "o.tga"
    out.write_bytes(b"x" * 10)
    recs = [{"source": "/a", "output": str(out), "status": 0, "bytesOut": 10},
            {"source": "/b", "output": "/b.tga", "status": 0, "bytesOut": 3},
            {"source": "/b", "output": "/b.tga", "status": -154}]  # the last record of a file holds
    m.write_text("".join(json.dumps(r) + "\n" for r in recs) + '{"source": "/c", "outp')
    done = batch.read_manifest(m)
    assert done == {("/a", str(out)): 10} and batch._already_done(str(out), 10)
    out.write_bytes(b"x" * 9)  # an output changed since: converted again
    assert not batch._already_done(str(out), 10)
    w = batch._Manifest(m)
    w.write({"source": "/d", "output": "/e", "status": -154})
    w.close()
    assert [r["source"] for r in _manifest(m)] == ["/a", "/b", "/b", "/d"]


# ---- local clusters --------------------------------------------------------------------------

def test_local_cluster_writes_the_bytes_of_imagelib_convert_and_records_a_bad_file(archive, tmp_path, batches, cli):
    root, files, bad = archive
    out, man = tmp_path / "out", tmp_path / "m.jsonl"
    code, stdout, stderr = _finish(batches(root / "good", bad, "--to", out, "--type", "28", "--size", "30x20",
                                           "--mirror", "h", "--workers", "2", "--manifest", man))
    assert code == 1, stderr
    assert "61 files: 60 converted, 1 failed" in stdout
    recs = {r["source"]: r for r in _manifest(man)}
    assert len(recs) == 61
    with pytest.raises(imagelib.ImagelibError) as e:
        imagelib.convert(bad, tmp_path / "bad.png")
    assert recs[str(bad)]["status"] == e.value.status < 0
    assert recs[str(bad)]["statusText"] == imagelib.status_text(e.value.status)
    assert not (out / "bad.png").exists() and str(bad) in stderr
    workers = set()
    for f in files:
        r = recs[str(f)]
        dst = out / f.relative_to(root / "good").with_suffix(".png")
        assert r["status"] == 0 and r["output"] == str(dst)
        assert dst.read_bytes() == _expected(cli, tmp_path, f, "png", "--type", "28", "--size", "30x20",
                                             "--mirror", "h"), f
        assert r["bytesIn"] == f.stat().st_size and r["bytesOut"] == dst.stat().st_size
        workers.add(r["worker"])
    assert all(w.startswith("tcp://") for w in workers)
    assert _parts(out) == []


def test_a_killed_batch_resumes_with_only_what_is_missing(archive, tmp_path, batches):
    root, files, _ = archive
    out, man = tmp_path / "out", tmp_path / "m.jsonl"
    # One file a task and a heavy size, so the batch is still running when killed.
    args = (root / "good", "--to", out, "--type", "tga", "--size", "500x400", "--workers", "2",
            "--group", "1", "--manifest", man)
    first = batches(*args)
    deadline = time.monotonic() + TIMEOUT
    while not (man.exists() and man.read_text().count("\n") >= 2):
        assert first.poll() is None, first.communicate()
        assert time.monotonic() < deadline
        time.sleep(0.01)
    _kill_group(first)
    done = {r["source"]: r for r in _manifest(man) if r.get("status") == 0}
    assert 2 <= len(done) < len(files)  # stopped part-way
    before = {s: os.stat(r["output"]) for s, r in done.items()}

    code, stdout, stderr = _finish(batches(*args))
    assert code == 0, stderr
    assert f"{len(done)} already done" in stdout
    recs = _manifest(man)
    rerun = [r["source"] for r in recs[len(recs) - (len(files) - len(done)):]]
    assert sorted(rerun) == sorted(str(f) for f in files if str(f) not in done)
    for s, st in before.items():  # the files of the first run were left alone
        now = os.stat(done[s]["output"])
        assert (now.st_ino, now.st_mtime_ns) == (st.st_ino, st.st_mtime_ns)
    assert len(list(out.rglob("*.tga"))) == len(files)
    assert _parts(out) == []  # the killed run's temporary files are gone


@pytest.fixture(scope="module")
def local_client():
    from distributed import Client, LocalCluster
    cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                           silence_logs=logging.ERROR)
    try:
        client = Client(cluster)
        try:
            yield client
        finally:
            client.close()
    finally:
        cluster.close()


def test_a_worker_killed_during_a_batch_loses_no_file(archive, tmp_path, local_client):
    root, files, _ = archive
    out, man = tmp_path / "out", tmp_path / "m.jsonl"
    result = {}

    def run():
        result["summary"] = batch.convert_files([root / "good"], out, type="tga", options={"size": (300, 200)},
                                                client=local_client, manifest=man, files_per_group=1)

    pids = local_client.run(os.getpid)
    t = threading.Thread(target=run)
    t.start()
    try:
        deadline = time.monotonic() + TIMEOUT
        victim = None
        while victim is None:
            assert t.is_alive() and time.monotonic() < deadline
            busy = [w for w, tasks in local_client.processing().items() if tasks]
            if busy:
                victim = busy[0]
            time.sleep(0.005)
        os.kill(pids[victim], signal.SIGKILL)
        assert t.is_alive()  # killed while the batch was running
    finally:
        t.join(TIMEOUT)
    s = result["summary"]
    assert (s.converted, s.failed) == (len(files), 0)
    recs = _manifest(man)
    assert sorted(r["source"] for r in recs) == sorted(map(str, files))
    assert all(r["status"] == 0 and os.path.getsize(r["output"]) == r["bytesOut"] for r in recs)


def test_a_task_that_keeps_failing_is_recorded_and_the_batch_goes_on(archive, tmp_path, local_client, monkeypatch):
    root, files, _ = archive
    real = batch._convert_group
    monkeypatch.setattr(batch, "_convert_group", lambda jobs, options, file_retries: (
        1 / 0 if jobs[0][0].endswith("scan.bmp") else real(jobs, options, file_retries)))
    s = batch.convert_files([root / "good"], tmp_path, type="tga", client=local_client, retries=1,
                            manifest=tmp_path / "m.jsonl", files_per_group=1)
    lost = [f for f in files if f.name == "scan.bmp"]
    assert (s.converted, s.failed) == (len(files) - len(lost), len(lost))
    for r in _manifest(tmp_path / "m.jsonl"):
        if r["source"] in map(str, lost):
            assert r["status"] == -1 and "ZeroDivisionError" in r["statusText"]
            assert not os.path.exists(r["output"])
        else:
            assert r["status"] == 0


# ---- a real scheduler with two workers -------------------------------------------------------

@pytest.fixture(scope="module")
def scheduler(tmp_path_factory):
    """dask-scheduler and two dask-worker processes on free local ports."""
    import shutil
    d = tmp_path_factory.mktemp("cluster")
    sfile = d / "scheduler.json"

    def command(name, module):
        exe = shutil.which(name)
        return [exe] if exe else [PYTHON, "-m", module]

    procs = []
    try:
        procs.append(subprocess.Popen(command("dask-scheduler", "distributed.cli.dask_scheduler") +
                                      ["--host", "127.0.0.1", "--port", "0", "--no-dashboard",
                                       "--scheduler-file", str(sfile)],
                                      env=_env(), cwd=d, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                      start_new_session=True))
        deadline = time.monotonic() + TIMEOUT
        while not (sfile.exists() and sfile.stat().st_size > 0):
            assert procs[0].poll() is None and time.monotonic() < deadline, "dask-scheduler did not start"
            time.sleep(0.05)
        time.sleep(0.1)
        address = json.loads(sfile.read_text())["address"]
        for i in range(2):
            procs.append(subprocess.Popen(command("dask-worker", "distributed.cli.dask_worker") +
                                          [address, "--nthreads", "1", "--no-dashboard", "--host", "127.0.0.1",
                                           "--name", f"w{i}", "--local-directory", str(d / f"w{i}")],
                                          env=_env(), cwd=d, stdout=subprocess.DEVNULL,
                                          stderr=subprocess.DEVNULL, start_new_session=True))
        from distributed import Client
        with Client(address, timeout=TIMEOUT) as c:
            c.wait_for_workers(2, timeout=TIMEOUT)
            workers = set(c.scheduler_info()["workers"])
        yield address, workers
    finally:
        for p in reversed(procs):
            _kill_group(p)


def test_dask_scheduler_and_workers_run_the_batch(archive, tmp_path, batches, scheduler, cli):
    root, files, _ = archive
    address, workers = scheduler
    out, man = tmp_path / "out", tmp_path / "m.jsonl"
    pattern = str(root / "good" / "map[01]")  # folders matched by a pattern are searched too
    chosen = [f for f in files if f.parts[-3] in ("map0", "map1")]
    code, stdout, stderr = _finish(batches(pattern, "--to", out, "--type", "tif", "--mode", "256",
                                           "--scheduler", address, "--manifest", man, "--group", "4", "--progress"))
    assert code == 0, stderr
    assert "100% Completed" in stdout  # Dask's progress bar, asked for without a terminal
    recs = {r["source"]: r for r in _manifest(man)}
    assert sorted(recs) == sorted(map(str, chosen))
    assert {r["worker"] for r in recs.values()} <= workers
    for f in chosen:
        dst = out / f.relative_to(root / "good").with_suffix(".tif")
        assert recs[str(f)]["status"] == 0 and recs[str(f)]["output"] == str(dst)
        assert dst.read_bytes() == _expected(cli, tmp_path, f, "tif", "--mode", "256"), f


def test_info_lists_what_the_cli_reports(archive, scheduler, cli, capsys):
    root, files, bad = archive
    address, _ = scheduler
    code = batch.main(["info", str(root / "good" / "map2"), str(bad), "--scheduler", address, "--no-progress"])
    out, err = capsys.readouterr()
    assert code == 1 and "unreadable" in err
    lines = {d["file"]: d for d in map(json.loads, out.splitlines())}
    mine = [f for f in files if f.is_relative_to(root / "good" / "map2")]
    assert sorted(lines) == sorted(map(str, mine + [bad]))
    with pytest.raises(imagelib.ImagelibError) as e:
        imagelib.info(bad)
    assert lines[str(bad)]["status"] == e.value.status < 0
    for f in mine:
        d = dict(lines[str(f)])
        assert d.pop("bytes") == f.stat().st_size
        assert d == cli("info", "--json", f, json_out=True)
