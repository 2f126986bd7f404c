"""Batch conversion on a local Dask cluster: files a second for 1 and 2 worker
processes, and the per-task cost of the scheduler.

    PYTHONPATH=build/release/python KV_KOR=data /usr/bin/python3 bench/batch_bench.py [--files 200] [--size 512]

Writes FILES source images (BMP, TIFF, PNG, JPEG and Targa in turn, SIZE x SIZE,
in 10 folders) to a temporary folder, then for 1 and 2 workers:
  - the time of one conversion after another in this process (the work alone),
  - the batch (imagelib.batch.convert_files on a started cluster; new output
    folder each run) with its own group sizing and with one file a task,
  - the per-task cost: wall time of many empty tasks through map/as_completed.
Reports medians of the repetitions.
"""

import argparse
import logging
import os
import statistics
import tempfile
import time

import numpy as np

import imagelib
from imagelib import batch


def make_sources(root, files, size):
    rng = np.random.default_rng(7)
    y, x = np.mgrid[0:size, 0:size]
    base = np.stack([x % 256, y % 256, (x * y) % 256], axis=2)
    exts = ["bmp", "tif", "png", "jpg", "tga"]
    out = []
    for i in range(files):
        folder = os.path.join(root, f"folder{i % 10}")
        os.makedirs(folder, exist_ok=True)
        a = (base + rng.integers(0, 24, base.shape)).clip(0, 255).astype(np.uint8)
        path = os.path.join(folder, f"img{i:04d}.{exts[i % len(exts)]}")
        imagelib.write(path, a)
        out.append(path)
    return out


def cpu_seconds(client):
    """CPU time of this process (the client and, for a local cluster, the
    scheduler) and of the worker processes."""
    return time.process_time(), sum(client.run(time.process_time).values())


def per_task_ms(client, n):
    """(wall, CPU here, CPU in the workers) a task, in ms, for empty tasks of
    a group's size."""
    from distributed import as_completed
    payload = [("/archive/folder/img0000.tif", "/converted/folder/img0000.tif")] * 30
    c0 = cpu_seconds(client)
    t = time.perf_counter()
    futures = client.map(batch._noop, [payload] * n, pure=False)
    for _ in as_completed(futures, with_results=True):
        pass
    dt = time.perf_counter() - t
    client.cancel(futures)
    c1 = cpu_seconds(client)
    return dt / n * 1e3, (c1[0] - c0[0]) / n * 1e3, (c1[1] - c0[1]) / n * 1e3


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--files", type=int, default=200)
    p.add_argument("--size", type=int, default=512)
    p.add_argument("--reps", type=int, default=3)
    p.add_argument("--type", default="tif")
    a = p.parse_args()
    from distributed import Client, LocalCluster

    with tempfile.TemporaryDirectory() as tmp:
        src = os.path.join(tmp, "src")
        sources = make_sources(src, a.files, a.size)
        total = sum(os.path.getsize(s) for s in sources)
        print(f"{a.files} files of {a.size}x{a.size}, {total / 1e6:.1f} MB, to .{a.type}; "
              f"load average {os.getloadavg()[0]:.1f}")

        serial, serial_cpu = [], []
        for r in range(a.reps):
            d = os.path.join(tmp, f"serial{r}")
            c = time.process_time()
            t = time.perf_counter()
            for s in sources:
                rel = os.path.relpath(s, src)
                o = os.path.join(d, os.path.splitext(rel)[0] + "." + a.type)
                os.makedirs(os.path.dirname(o), exist_ok=True)
                imagelib.convert(s, o)
            serial.append(time.perf_counter() - t)
            serial_cpu.append(time.process_time() - c)
        work = statistics.median(serial)
        work_cpu = min(serial_cpu)
        print(f"one process, one file after another: {a.files / work:.1f} files/s "
              f"({work / a.files * 1e3:.2f} ms a file; CPU {work_cpu / a.files * 1e3:.2f} ms a file)")

        run = 0
        for n in (1, 2):
            t = time.perf_counter()
            cluster = LocalCluster(n_workers=n, threads_per_worker=1, processes=True, dashboard_address=None,
                                   silence_logs=logging.ERROR)
            client = Client(cluster)
            client.wait_for_workers(n)
            start = time.perf_counter() - t
            try:
                client.map(batch._noop, range(20), pure=False)  # workers warm
                results = {}
                for label, group in (("grouped", None), ("1 file a task", 1)):
                    times, cpus, tasks = [], [], 0
                    for r in range(a.reps):
                        run += 1
                        c0 = cpu_seconds(client)
                        s = batch.convert_files([src], os.path.join(tmp, f"out{run}"), type=a.type,
                                                client=client, files_per_group=group)
                        c1 = cpu_seconds(client)
                        assert s.converted == a.files and s.failed == 0, s
                        times.append(s.seconds)
                        cpus.append((c1[0] - c0[0], c1[1] - c0[1]))
                        tasks = s.tasks
                    results[label] = (statistics.median(times), min(cpus, key=sum), tasks)
                costs = [per_task_ms(client, 500) for _ in range(a.reps)]
                overhead = [statistics.median(c[i] for c in costs) for i in range(3)]
            finally:
                client.close()
                cluster.close()
            for label, (sec, (here, there), tasks) in results.items():
                print(f"{n} worker(s), {label}: {a.files / sec:.1f} files/s, {tasks} tasks, {sec:.2f} s; "
                      f"CPU: workers {there / a.files * 1e3:.2f} ms a file, client and scheduler "
                      f"{here / a.files * 1e3:.2f} ms a file")
            print(f"{n} worker(s): cluster start {start:.1f} s; an empty task of 30 files: wall {overhead[0]:.2f} ms, "
                  f"CPU client and scheduler {overhead[1]:.2f} ms, workers {overhead[2]:.2f} ms")


if __name__ == "__main__":
    main()
