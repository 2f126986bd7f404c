import faulthandler
import os
import subprocess
import sys
import textwrap
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import imagelib
from conftest import picture


def test_rows_follow_the_files_row_order(tmp_path):
    rgb = picture(29, 11)
    path = tmp_path / "r.tga"
    with imagelib.RowWriter(path, 2, (29, 11), "rgb") as w:
        order = rgb[::-1] if w.bottom_up else rgb
        for row in order:
            w.write_row(row)
    assert np.array_equal(imagelib.read(path).pixels, rgb)
    with imagelib.rows(path) as r:
        assert r.size == (29, 11) and not r.alpha
        got = np.stack(list(r))
    assert np.array_equal(got[::-1] if r.bottom_up else got, rgb)

    with pytest.raises(imagelib.ImagelibError):  # closing short of the height
        with imagelib.RowWriter(tmp_path / "s.tga", 2, (29, 11)) as w:
            w.write_row(rgb[0])


@pytest.mark.skipif("asan" in os.environ.get("LD_PRELOAD", ""), reason="AddressSanitizer's own memory")
def test_rows_and_row_writer_keep_memory_far_below_the_image(tmp_path):
    # 20000 x 2000 RGB is 120 MB; write and read it back row by row in a
    # fresh interpreter and compare its peak memory with its start.
    script = textwrap.dedent("""
        import resource, sys, zlib
        import numpy as np, imagelib
        path = sys.argv[1]
        w, h = 20000, 2000
        base = np.arange(w * 3, dtype=np.uint32).reshape(w, 3)
        start = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        crc = 0
        with imagelib.RowWriter(path, 2, (w, h), "rgb") as out:
            for y in range(h):
                row = ((base + y) % 251).astype(np.uint8)
                crc = zlib.crc32(row, crc)
                out.write_row(row)
        back, n = 0, 0
        for row in imagelib.rows(path):
            back = zlib.crc32(row, back)
            n += 1
        peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        print(n, crc == back, (peak - start) // 1024)
    """)
    out = subprocess.run([sys.executable, "-c", script, str(tmp_path / "big.tga")], check=True,
                         capture_output=True, text=True, env=os.environ).stdout.split()
    assert out[:2] == ["2000", "True"]
    assert int(out[2]) < 16, f"peak grew by {out[2]} MB"  # the image is 120 MB
    assert (tmp_path / "big.tga").stat().st_size >= 20000 * 2000 * 3


def _waiting_in_open(thread):
    """True once the thread sleeps in open(2) for a FIFO without a reader."""
    try:
        with open(f"/proc/self/task/{thread.native_id}/wchan") as f:
            return f.read().strip() == "wait_for_partner"
    except OSError:
        pytest.skip("no /proc task state to see a blocked thread")


def test_two_threads_convert_at_once_with_the_bytes_of_one(tmp_path):
    sources = []
    for i, ext in enumerate(["bmp", "tga", "bmp", "tga"]):
        sources.append(tmp_path / f"s{i}.{ext}")
        imagelib.write(sources[-1], picture(300, 200, seed=i))
    jobs = [(s, tmp_path / f"{s.stem}-{ext}.{ext}", opts) for s in sources for ext in ("bmp", "tga")
            for opts in ({}, {"size": (150, 90)}, {"mode": "256", "rotate": 90})]

    def run(job, tag):
        src, dst, opts = job
        out = dst.with_name(f"{tag}-{dst.name}")
        imagelib.convert(src, out, **opts)
        return out.read_bytes()

    alone = [run(job, "one") for job in jobs]
    with ThreadPoolExecutor(2) as pool:
        assert list(pool.map(run, jobs * 3, [f"t{i}" for i in range(len(jobs) * 3)])) == alone * 3

    # Proof that the GIL is released: one thread is held inside the library
    # (creating a file on a FIFO blocks until a reader opens it) while this
    # thread converts a whole batch; only then does it read the FIFO. If the
    # library call kept the GIL, this thread could never run: the watchdog
    # ends the process instead of letting it hang.
    fifo = tmp_path / "pipe.tga"
    os.mkfifo(fifo)
    image = picture(300, 200, seed=9)
    imagelib.write(tmp_path / "ref.tga", image)
    errors = []

    def blocked_writer():
        try:
            imagelib.write(fifo, image)
        except Exception as e:  # reported below
            errors.append(e)

    faulthandler.dump_traceback_later(120, exit=True)
    try:
        t = threading.Thread(target=blocked_writer)
        t.start()
        while not _waiting_in_open(t):
            time.sleep(0.01)
        during = [run(job, "fifo") for job in jobs]
        with open(fifo, "rb") as f:
            piped = f.read()
        t.join()
    finally:
        faulthandler.cancel_dump_traceback_later()
    assert not errors and during == alone
    assert piped == (tmp_path / "ref.tga").read_bytes()
