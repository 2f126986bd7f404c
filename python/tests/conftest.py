import json
import os
import pathlib
import subprocess

import numpy as np
import pytest

import imagelib


def _cli_path():
    env = os.environ.get("IMAGELIB_CLI")
    if env:
        return env
    # <build>/python/imagelib/__init__.py -> <build>/imagelib
    return str(pathlib.Path(imagelib.__file__).resolve().parents[2] / "imagelib")


@pytest.fixture(scope="session")
def cli():
    path = _cli_path()
    if not os.access(path, os.X_OK):
        pytest.skip(f"the imagelib CLI is not at {path} (set IMAGELIB_CLI)")

    def run(*args, json_out=False):
        out = subprocess.run([path, *map(str, args)], check=True, capture_output=True, text=True).stdout
        return json.loads(out) if json_out else out

    return run


def picture(w=37, h=23, seed=1):
    """A deterministic true-colour test picture: gradients plus noise."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:h, 0:w]
    rgb = np.stack([x * 255 // max(w - 1, 1), y * 255 // max(h - 1, 1), (x * y) % 256], axis=2)
    return (rgb + rng.integers(0, 16, rgb.shape)).clip(0, 255).astype(np.uint8)


def palette_picture(colours, w=37, h=23, seed=2):
    rng = np.random.default_rng(seed)
    palette = rng.integers(0, 256, (colours, 3), dtype=np.uint8)
    palette[:, 0] = np.arange(colours)  # distinct entries
    return rng.integers(0, colours, (h, w), dtype=np.uint8), palette
