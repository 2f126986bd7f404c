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

    def batch(threads):
        def one(i):
            imagelib.convert(sources[i], os.path.join(tmp, f"o{i}.tga"), size=(700, 700))
        with ThreadPoolExecutor(threads) as pool:
            list(pool.map(one, range(len(sources))))

    t1 = median_time(lambda: batch(1), max(3, runs // 2))
    t2 = median_time(lambda: batch(2), max(3, runs // 2))
    print(f"| convert 16 x 1024x1024 BMP to TGA 700x700 | 1 thread {t1 * 1000:.0f} ms | "
          f"2 threads {t2 * 1000:.0f} ms | rate x{t1 / t2:.2f} (cores: {os.cpu_count()}) |")
