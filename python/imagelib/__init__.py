"""imagelib: read, write and convert raster images as numpy arrays.

A thin layer over the imagelib shared library's C functions. Every file type
the library reads or writes is reachable here: files are read and written
through the library's own type detection and dispatch.

    >>> import imagelib
    >>> img = imagelib.read("photo.bmp")          # Image: pixels, palette, mode, type
    >>> img.pixels.shape                          # (h, w, 3) for true colour
    >>> imagelib.write("photo.tga", img)          # file type from the name
    >>> imagelib.convert("photo.bmp", "small.pcx", size=(320, 200), mode="256")

Pixels are C-contiguous uint8 arrays: (h, w, 3) RGB, (h, w, 4) RGBA, (h, w)
palette indices or grey levels (with a palette), (h, w) of 0 and 1 for
bilevel images. Failures raise ImagelibError with the library's status.
Library calls release the GIL, so threads convert files in parallel.
"""

from __future__ import annotations

import os

import numpy as np

from . import _imagelib

__all__ = [
    "Image", "ImagelibError", "formats", "file_type", "info", "read", "write", "convert",
    "quantize", "resize", "rotate", "warp", "mirror", "rows", "RowWriter", "status_text", "MODES",
    "thumbnail", "transparent",
]

__version__ = _imagelib.version()

#: Colour modes by name; write() and convert() take a name or the number.
MODES = {"rgb": 1, "16": 2, "256": 3, "grey": 4, "gray": 4, "bilevel": 5, "rgba": 6}

STATUS_BADARG = -126
STATUS_STOPPED = -144


def status_text(status: int) -> str:
    """The library's English text for a status code."""
    return _imagelib.status_text(status)


class ImagelibError(OSError):
    """A failed library operation.

    ``status`` is the library's negative status code (the few failures some
    readers report with a positive code come as their negative equivalents:
    -113, -154, -116, -111), ``str(e)`` the library's text for it and
    ``filename`` the file concerned, when there is one. Bad arguments raise
    the subclass that is also a ValueError (status -126).
    """

    def __init__(self, status: int, message: str | None = None, filename: str | None = None):
        super().__init__(message if message is not None else status_text(status))
        self.status = status
        self.filename = filename

    def __str__(self) -> str:
        text = self.args[0] if self.args else status_text(self.status)
        return f"{self.filename}: {text}" if self.filename else str(text)


class _ArgumentError(ImagelibError, ValueError):
    """An argument the library (or this module) refuses: status -126."""


def _raise(status: int, filename: str | None = None, message: str | None = None):
    cls = _ArgumentError if status == STATUS_BADARG else ImagelibError
    raise cls(status, message, filename)


def _bad(message: str):
    _raise(STATUS_BADARG, None, message)


def _path(path) -> str:
    p = os.fspath(path)
    if isinstance(p, bytes):
        p = os.fsdecode(p)
    return p


def _progress(progress):
    if progress is not None and not callable(progress):
        _bad("progress must be a callable (total, done) -> bool")
    return progress


def _mode(mode) -> int:
    if mode is None:
        return -1
    if isinstance(mode, str):
        if mode.lower() not in MODES:
            _bad(f"unknown colour mode {mode!r}")
        return MODES[mode.lower()]
    if isinstance(mode, (int, np.integer)) and 1 <= int(mode) <= 6:
        return int(mode)
    _bad(f"colour mode must be 1..6 or one of {sorted(MODES)}")


def _type(type) -> int:
    if type is None:
        return -1
    if isinstance(type, (int, np.integer)) and 0 <= int(type) <= 41:
        return int(type)
    _bad("file type must be a type number 0..41")


def _size(size):
    if size is None:
        return None
    try:
        w, h = (int(v) for v in size)
    except (TypeError, ValueError):
        _bad("size must be (width, height)")
    if w <= 0 or h <= 0:
        _bad("size must be positive")
    return (w, h)


def _compression(quality, compression) -> int:
    # The CLI's rule: the quality when given, else the compression code, else 90.
    if quality is not None:
        return int(quality)
    if compression is not None:
        return int(compression)
    return 90


def _pixels(array, *, ndims=(2, 3)) -> np.ndarray:
    a = np.asarray(array)
    if a.dtype == np.bool_:
        a = a.view(np.uint8)
    if a.dtype != np.uint8:
        _bad(f"pixels must be uint8, not {a.dtype}")
    if a.ndim not in ndims or (a.ndim == 3 and a.shape[2] not in (3, 4)):
        _bad(f"pixels must be (h, w), (h, w, 3) or (h, w, 4), not {a.shape}")
    if 0 in a.shape:
        _bad("empty image")
    return np.ascontiguousarray(a)


def _palette(palette):
    if palette is None:
        return None
    p = np.ascontiguousarray(np.asarray(palette, dtype=np.uint8))
    if p.ndim != 2 or p.shape[1] != 3 or not 1 <= p.shape[0] <= 256:
        _bad(f"palette must be (n, 3) with 1 <= n <= 256, not {p.shape}")
    return p


_GREY = np.repeat(np.arange(256, dtype=np.uint8)[:, None], 3, axis=1)


class Image:
    """An image in memory.

    ``pixels``: C-contiguous uint8 array, (h, w, 3) RGB, (h, w, 4) RGBA,
    (h, w) palette indices or grey levels, or (h, w) of 0/1 for bilevel.
    ``palette``: (n, 3) uint8 array or None. ``mode``: the colour mode number
    (1 RGB, 2 16 colours, 3 256 colours, 4 grey, 5 bilevel, 6 RGBA).
    ``type``: the file type number it was read from (-1 when made in memory).
    ``numpy.asarray(image)`` gives the pixels.
    """

    __slots__ = ("pixels", "palette", "mode", "type")

    def __init__(self, pixels, palette=None, mode: int | None = None, type: int = -1):
        a = np.asarray(pixels)
        if mode is None:
            if a.ndim == 3:
                mode = 6 if a.shape[2] == 4 else 1
            elif a.dtype == np.bool_:
                mode = 5
            elif palette is None:
                mode = 4
            else:
                mode = 2 if len(palette) <= 16 else 3
        self.pixels = _pixels(a)
        self.palette = _palette(palette)
        self.mode = int(mode)
        self.type = int(type)

    @property
    def size(self) -> tuple[int, int]:
        """(width, height)."""
        return (self.pixels.shape[1], self.pixels.shape[0])

    def __array__(self, dtype=None):
        return self.pixels if dtype is None else self.pixels.astype(dtype)

    def save(self, path, **options) -> None:
        """Same as imagelib.write(path, self, **options)."""
        write(path, self, **options)

    def __repr__(self) -> str:
        pal = "" if self.palette is None else f", {len(self.palette)} colours"
        return f"<imagelib.Image {self.size[0]}x{self.size[1]} mode {self.mode} type {self.type}{pal}>"


def formats() -> list[dict]:
    """Every file type: the rows of ``imagelib formats --json``."""
    return _imagelib.formats()


def file_type(path) -> int:
    """The file type number of a file (its contents, then its name)."""
    return _imagelib.file_type(_path(path))


def info(path) -> dict:
    """What the file's header tells: the keys of ``imagelib info --json``."""
    p = _path(path)
    d = {"file": p}
    d.update(_imagelib.info(p))
    return d


def read(path, *, layout: str = "native", size=None, progress=None) -> Image:
    """Reads a file into an Image.

    layout: "native" reads what the file stores (RGB, palette indices with
    their palette, bilevel 0/1, RGBA), "rgb" always (h, w, 3), "rgba" always
    (h, w, 4) (files without alpha get alpha 0). size=(w, h) resamples: "rgb"
    and "rgba" ask the reader for that size; "native" resamples what was read
    (true colour smoothly, indices by nearest neighbour). progress(total, done)
    is called as rows are done; returning True stops the read (status -144).
    """
    codes = {"native": 0, "rgb": 1, "rgba": 2}
    if layout not in codes:
        _bad("layout must be 'native', 'rgb' or 'rgba'")
    wanted = _size(size)
    p = _path(path)
    pixels, palette, mode, ftype = _imagelib.read(
        p, codes[layout], wanted if layout != "native" else None, _progress(progress))
    if wanted is not None and layout == "native" and (pixels.shape[1], pixels.shape[0]) != wanted:
        pixels = _imagelib.resize(pixels, wanted)
    img = Image.__new__(Image)
    img.pixels, img.palette, img.mode, img.type = pixels, palette, mode, ftype
    return img


def write(path, data, *, type=None, mode=None, quality=None, compression=None, palette=None,
          progress=None) -> None:
    """Writes an Image or an array to a file.

    type: file type number; from the name's extension when None (.ppm/.pam
    names write netpbm files, as the CLI does). mode: colour mode to write
    (name or number); when None the image's own if the writer takes it, else
    the writer's default. quality: JPEG quality; compression: the writer's
    compression code. palette: (n, 3) colours of a (h, w) array of indices;
    a (h, w) array without one is grey, a bool array bilevel.
    """
    if isinstance(data, Image):
        pixels, pal, source = data.pixels, data.palette if palette is None else _palette(palette), data.mode
    else:
        a = np.asarray(data)
        pixels, pal = _pixels(a), _palette(palette)
        if a.ndim == 3:
            source = 6 if a.shape[2] == 4 else 1
        elif a.dtype == np.bool_:
            source = 5
        elif pal is None:
            source = 4
        else:
            source = 2 if len(pal) <= 16 else 3
    if pixels.ndim == 3:
        kind = "rgba" if pixels.shape[2] == 4 else "rgb"
    elif source == 5:
        kind = "bilevel"
    else:
        kind = "map"
        if pal is None:
            pal, source = _GREY, 4
    _imagelib.write(_path(path), kind, pixels, pal, source, _type(type), _mode(mode),
                    _compression(quality, compression), _progress(progress))


def convert(src, dst, *, type=None, mode=None, quality=None, compression=None, size=None,
            crop=None, rotate: int = 0, mirror: str | None = None, progress=None) -> None:
    """``imagelib convert SRC DST [options]``: same options, same bytes.

    type, mode, quality, compression as for write(); size=(w, h) resamples,
    crop=(x0, y0, x1, y1) keeps a rectangle (corners inclusive), rotate is
    90, 180 or 270 (counter-clockwise), mirror "v" (top to bottom) or "h"
    (left to right). The steps run in that order: crop, size, rotate, mirror.
    """
    if rotate not in (0, 90, 180, 270):
        _bad("rotate must be 90, 180 or 270")
    if mirror not in (None, "v", "h"):
        _bad("mirror must be 'v' or 'h'")
    if crop is not None:
        crop = tuple(int(v) for v in crop)
        if len(crop) != 4:
            _bad("crop must be (x0, y0, x1, y1)")
    _imagelib.convert(_path(src), _path(dst), _type(type), _mode(mode), _compression(quality, compression),
                      _size(size), crop, int(rotate), -1 if mirror is None else (0 if mirror == "v" else 1),
                      _progress(progress))


def quantize(rgb, *, colours: int = 256, dither: bool = True):
    """Reduces an (h, w, 3) image to at most `colours` colours.

    Median cut chooses the palette; with dither the pixels are mapped by error
    diffusion, otherwise to the nearest palette colour. Returns
    (indices (h, w) uint8, palette (n, 3) uint8).
    """
    return _imagelib.quantize(_pixels(rgb, ndims=(3,)), int(colours), bool(dither))


def resize(array, size):
    """Resamples an array to size=(w, h): (h, w, 3|4) smoothly (linear when
    growing, area average when shrinking), (h, w) by nearest neighbour."""
    return _imagelib.resize(_pixels(array), _size(size))


_INTERPOLATIONS = {"nearest": 0, "bilinear": 1, "bicubic": 2}


def _warp_options(array, background, interpolate):
    if interpolate not in _INTERPOLATIONS:
        _bad("interpolate must be nearest, bilinear or bicubic")
    channels = 1 if array.ndim == 2 else array.shape[2]
    if background is None:
        values = [0] * channels
    elif isinstance(background, int):
        values = [background]
    else:
        values = [int(v) for v in background]
        if channels == 4 and len(values) == 3:
            values.append(255)
    if len(values) != channels or any(v < 0 or v > 255 for v in values):
        _bad(f"background must be {channels} value(s) 0..255 for this array")
    return bytes(values), _INTERPOLATIONS[interpolate]


def rotate(array, degrees: float, background=None, interpolate: str = "bilinear"):
    """Rotates an array counter-clockwise by any number of degrees.

    90, 180 and 270 (and their equivalents) are exact quarter turns; other
    angles give the bounding box of the turned picture, with `background`
    ((r, g, b), (r, g, b, a), or an index for (h, w) arrays; default zeros)
    where the picture does not reach. (h, w) arrays are turned by nearest
    neighbour.
    """
    pixels = _pixels(array)
    bg, code = _warp_options(pixels, background, interpolate)
    return _imagelib.rotate(pixels, float(degrees), bg, code)


def warp(array, matrix, size, background=None, interpolate: str = "bilinear"):
    """Warps an array by the affine matrix (a, b, c, d, e, f), which maps a
    source point (x, y) to (a x + c y + e, b x + d y + f), pixel centres at
    half-integers, into an array of size=(w, h). background and interpolate
    as for rotate."""
    pixels = _pixels(array)
    bg, code = _warp_options(pixels, background, interpolate)
    m = [float(v) for v in matrix]
    if len(m) != 6:
        _bad("matrix must hold six numbers")
    return _imagelib.warp(pixels, m, _size(size), bg, code)


def mirror(array, axis: str):
    """Mirrors an array: "h" reverses each row (left to right), "v" the row
    order (top to bottom). Returns a new array."""
    if axis not in ("h", "v"):
        _bad("axis must be 'h' or 'v'")
    return _imagelib.mirror(_pixels(array), axis == "h")


def thumbnail(path, size) -> np.ndarray:
    """Reads a file reduced to fit size=(w, h) or a number for a square box:
    aspect kept, never enlarged, (h, w, 3). Large JPEG files are reduced by
    the decoder, so memory stays close to the thumbnail's."""
    if isinstance(size, int):
        size = (size, size)
    return _imagelib.thumbnail(_path(path), _size(size))


def transparent(rgb, colour, *, tolerance: int = 0) -> np.ndarray:
    """Makes the pixels of an (h, w, 3) image within tolerance of colour
    (r, g, b) on every channel transparent: (h, w, 4) with alpha 0 there and
    255 elsewhere."""
    if not 0 <= int(tolerance) <= 255:
        _bad("tolerance must be 0..255")
    return _imagelib.transparent(_pixels(rgb, ndims=(3,)), tuple(int(c) for c in colour), int(tolerance))


class _Rows:
    """Iterator over the rows of a file, one (w, 3) or (w, 4) array each."""

    def __init__(self, path, size):
        self._r = _imagelib.RowReader(_path(path), _size(size))

    size = property(lambda self: self._r.size, doc="(width, height) of the rows handed out")
    bottom_up = property(lambda self: self._r.bottom_up,
                         doc="True when the rows come bottom row first (as the file stores them)")
    alpha = property(lambda self: self._r.alpha, doc="True when the rows are (w, 4) with alpha")

    def __iter__(self):
        return self

    def __next__(self) -> np.ndarray:
        return self._r.next()

    def close(self) -> None:
        self._r.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def rows(path, *, size=None) -> _Rows:
    """Iterates over the rows of a file through the library's streaming row
    access, holding one row at a time. Rows come in the order the file
    stores them: when ``.bottom_up`` is True the bottom row comes first.
    size=(w, h) resamples rows on the fly. Types with a row reader only
    (Targa and the others the library streams); others raise."""
    return _Rows(path, size)


class RowWriter:
    """Writes a file row by row, for images larger than memory.

        with imagelib.RowWriter("big.tga", 2, (20000, 2000), "rgb") as w:
            for row in produce_rows():      # (w, 3) uint8, (w, 4) for "rgba"
                w.write_row(row)

    type: file type number (None: from the name). Rows go to the file in the
    order it stores them: when ``.bottom_up`` is True the first row written is
    the bottom row of the picture. Closing with fewer rows than the height
    raises ImagelibError (the file is closed all the same).
    """

    def __init__(self, path, type, size, mode="rgb"):
        wh = _size(size)
        if wh is None:
            _bad("size must be (width, height)")
        self._path = _path(path)
        t = -1 if type is None else _type(type)
        self._w = _imagelib.RowWriter(self._path, t, wh, max(_mode(mode), 1))
        self._closed = False

    size = property(lambda self: self._w.size, doc="(width, height)")
    bottom_up = property(lambda self: self._w.bottom_up,
                         doc="True when the first row written is the bottom row of the picture")
    alpha = property(lambda self: self._w.alpha, doc="True when rows are (w, 4) with alpha")
    rows_written = property(lambda self: self._w.rows_done)

    def write_row(self, row) -> None:
        """Writes the next row: a (w, 3) uint8 array, (w, 4) when alpha."""
        self._w.put(_pixels(row, ndims=(2,)))

    def close(self) -> None:
        """Finishes the file (idempotent)."""
        if self._closed:
            return
        self._closed = True
        self._w.close()
        done = self._w.rows_done
        if done < self.size[1]:
            _raise(STATUS_BADARG, self._path, f"only {done} of {self.size[1]} rows were written")

    def __enter__(self):
        return self

    def __exit__(self, exc_type, *exc):
        if exc_type is None:
            self.close()
        elif not self._closed:
            self._closed = True
            self._w.close()
