#!/usr/bin/python3
"""Python package timings for docs/performance.md.

1. Reading a 4096 x 4096 24-bit BMP into numpy (imagelib.read) against the
   CLI's BMP-to-PPM conversion of the same file (a whole process).
2. A batch of conversions on one thread and on two: the rate ratio.

usage: PYTHONPATH=build/release/python bench/python_bench.py [CLI] [RUNS]
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import imagelib

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
cli = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "build", "release", "imagelib")
runs = int(sys.argv[2]) if len(sys.argv) > 2 else 7


def median_time(fn, n=runs):
    times = []
    for _ in range(n):
        t = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t)
    return statistics.median(times)


def picture(w, h, seed):
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:h, 0:w]
    rgb = np.stack([x % 256, y % 256, (x + y) % 256], axis=2) + rng.integers(0, 32, (h, w, 3))
    return rgb.clip(0, 255).astype(np.uint8)


with tempfile.TemporaryDirectory() as tmp:
    big = os.path.join(tmp, "big.bmp")
    imagelib.write(big, picture(4096, 4096, 0))
    ppm = os.path.join(tmp, "big.ppm")
    t_cli = median_time(lambda: subprocess.run([cli, "convert", big, ppm], check=True))
    t_py = median_time(lambda: imagelib.read(big))
    print(f"| read 4096x4096 BMP into numpy | {t_py * 1000:.0f} ms | CLI BMP to PPM {t_cli * 1000:.0f} ms "
          f"| ratio {t_py / t_cli:.2f} |")

    sources = []
    for i in range(16):
        sources.append(os.path.join(tmp, f"s{i}.bmp"))
        imagelib.write(sources[-1], picture(1024, 1024, i))

    runs_done = [0]

    def batch(threads):
        # Every run writes new files, as a real batch does: rewriting the same
        # names makes ext4 flush the replaced files at close, which measures
        # the disk rather than the conversions.
        out = os.path.join(tmp, f"run{runs_done[0]}")
        runs_done[0] += 1
        os.mkdir(out)

        def one(i):
            imagelib.convert(sources[i], os.path.join(out, f"o{i}.tga"), size=(700, 700))
        with ThreadPoolExecutor(threads) as pool:
            list(pool.map(one, range(len(sources))))

    def timed(threads):
        # Wall time, and the process's CPU time over it: above 1 only when
        # both threads were on a core at once (never while one GIL holder works).
        wall, cpu = time.perf_counter(), time.process_time()
        batch(threads)
        wall = time.perf_counter() - wall
        return wall, (time.process_time() - cpu) / wall

    n = max(3, runs // 2)
    # One and two threads alternate, so that a drift of the machine's speed
    # reaches both alike.
    ones, twos = [], []
    for _ in range(n):
        ones.append(timed(1))
        twos.append(timed(2))
    one, two = sorted(ones)[n // 2], sorted(twos)[n // 2]
    print(f"| convert 16 x 1024x1024 BMP to TGA 700x700 | 1 thread {one[0] * 1000:.0f} ms (CPU/wall {one[1]:.2f}) | "
          f"2 threads {two[0] * 1000:.0f} ms (CPU/wall {two[1]:.2f}) | rate x{one[0] / two[0]:.2f} "
          f"(cores: {os.cpu_count()}, load {os.getloadavg()[0]:.1f}) |")
