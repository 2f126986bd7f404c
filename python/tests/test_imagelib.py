import numpy as np
import pytest

import imagelib
from conftest import palette_picture, picture

LOSSY = {18}  # JPEG
WRITE_ONLY = {4, 6, 8}  # PICT, EPS, WPG: no reader to read them back
MODE_FLAGS = {"rgb": 1, "palette16": 2, "palette256": 3, "grey": 4, "bilevel": 5}


def _writable_cases():
    """(type, extension, mode) for every mode every writer takes."""
    for f in imagelib.formats():
        support = f["exportSupport"]
        if not f["writable"] or support is None:
            continue
        modes = [m for key, m in MODE_FLAGS.items() if support[key]] + ([6] if f["alpha"] else [])
        for mode in modes:
            yield pytest.param(f["type"], f["extension"], mode, id=f"{f['extension']}{f['type']}-mode{mode}")


def _sample(mode):
    """(data to write, palette, the picture in RGB(A) as a reader should give it back)."""
    if mode in (1, 6):
        rgb = picture()
        if mode == 1:
            return rgb, None, rgb
        rgba = np.dstack([rgb, (np.arange(rgb.shape[1]) * 7 % 256).astype(np.uint8)[None, :].repeat(rgb.shape[0], 0)])
        return rgba, None, rgba
    if mode in (2, 3):
        idx, pal = palette_picture(16 if mode == 2 else 200)
        return idx, pal, pal[idx]
    if mode == 4:
        grey = picture()[:, :, 0]
        return grey, None, np.dstack([grey] * 3)
    bits = picture()[:, :, 2] > 128
    return bits, None, np.where(bits[:, :, None], 0, 255).astype(np.uint8).repeat(3, 2)


@pytest.mark.parametrize("ftype,ext,mode", list(_writable_cases()))
def test_round_trip_every_writable_type_and_mode(tmp_path, ftype, ext, mode):
    data, pal, expected = _sample(mode)
    path = tmp_path / f"x.{ext}"
    try:
        imagelib.write(path, data, type=ftype, mode=mode, palette=pal)
    except imagelib.ImagelibError as e:
        if e.status == -119:
            pytest.skip("writer not available yet")
        raise
    if ftype in WRITE_ONLY:
        assert path.stat().st_size > 0
        return
    try:
        back = imagelib.read(path, layout="rgba" if mode == 6 else "rgb")
    except imagelib.ImagelibError as e:
        if e.status == -119:
            pytest.skip("write-only type")
        raise
    assert back.pixels.shape == expected.shape and back.pixels.flags.c_contiguous
    diff = np.abs(back.pixels.astype(int) - expected)
    if ftype in LOSSY:
        assert diff.mean() < 8
    elif (ftype, mode) == (28, 4):
        # PNG grey files read through the grey scale (i x 256) / (count + 1).
        assert diff.max() <= 1
    else:
        assert diff.max() == 0


def test_native_layouts_palette_grey_and_image_objects(tmp_path):
    idx, pal = palette_picture(200)
    imagelib.write(tmp_path / "p.bmp", idx, palette=pal)
    img = imagelib.read(tmp_path / "p.bmp")
    assert (img.mode, img.type, img.size, img.pixels.shape) == (3, 9, (37, 23), (23, 37))
    assert np.array_equal(img.pixels, idx) and np.array_equal(img.palette[:200], pal)
    assert np.asarray(img) is img.pixels

    grey = picture()[:, :, 1]
    imagelib.write(tmp_path / "g.bmp", grey)
    g = imagelib.read(tmp_path / "g.bmp")
    assert np.array_equal(g.palette[g.pixels][:, :, 0], grey)

    # An Image writes back as it was read; its palette survives a Targa detour as RGB.
    img.save(tmp_path / "copy.bmp")
    assert (tmp_path / "copy.bmp").read_bytes() == (tmp_path / "p.bmp").read_bytes()
    imagelib.write(tmp_path / "p.tga", img)
    assert np.array_equal(imagelib.read(tmp_path / "p.tga").pixels, pal[idx])

    # Sizes: "rgb" asks the reader, "native" resamples what it read.
    rgb = picture()
    imagelib.write(tmp_path / "c.bmp", rgb)
    assert imagelib.read(tmp_path / "c.bmp", layout="rgb", size=(10, 40)).pixels.shape == (40, 10, 3)
    assert imagelib.read(tmp_path / "p.bmp", size=(74, 46)).pixels.shape == (46, 74)
    rgba = imagelib.read(tmp_path / "c.bmp", layout="rgba")
    assert rgba.pixels.shape == (23, 37, 4) and np.array_equal(rgba.pixels[:, :, :3], rgb)


def test_formats_and_info_equal_the_cli(tmp_path, cli):
    assert imagelib.formats() == cli("formats", "--json", json_out=True)
    for name, data in (("a.tga", picture()), ("b.bmp", picture()[:, :, 0])):
        path = tmp_path / name
        imagelib.write(path, data)
        assert imagelib.info(path) == cli("info", "--json", path, json_out=True)
        assert imagelib.file_type(path) == int(cli("type", path).split()[0])


@pytest.mark.parametrize("options,args", [
    ({}, []),
    ({"size": (20, 50), "rotate": 90, "mirror": "h"}, ["--size", "20x50", "--rotate", "90", "--mirror", "h"]),
    ({"mode": "256", "crop": (3, 2, 30, 20)}, ["--mode", "256", "--crop", "3,2,30,20"]),
    ({"mode": "grey", "type": 9, "mirror": "v"}, ["--mode", "grey", "--type", "9", "--mirror", "v"]),
])
@pytest.mark.parametrize("out", ["o.bmp", "o.tga", "o.ppm", "o.pcx", "o.ras"])
def test_convert_writes_the_cli_bytes(tmp_path, cli, options, args, out):
    src = tmp_path / "src.tga"
    imagelib.write(src, picture(61, 47))
    if "type" in options and not out.endswith(".bmp"):
        pytest.skip("the type decides")
    imagelib.convert(src, tmp_path / ("py-" + out), **options)
    cli("convert", src, tmp_path / ("cli-" + out), *args)
    assert (tmp_path / ("py-" + out)).read_bytes() == (tmp_path / ("cli-" + out)).read_bytes()


def test_refusals_raise_with_the_library_status(tmp_path):
    rgb = picture()
    (tmp_path / "junk.dat").write_bytes(b"not an image at all" * 10)
    (tmp_path / "short.bmp").write_bytes(b"BM" + bytes(10))
    (tmp_path / "short.tga").write_bytes(bytes(5))
    cases = [
        (lambda: imagelib.read(tmp_path / "missing.bmp"), -113),
        (lambda: imagelib.read(tmp_path / "missing.tga"), -113),  # the Targa reader answers 1
        (lambda: imagelib.read(tmp_path / "short.tga"), None),
        (lambda: imagelib.read(tmp_path / "junk.dat"), -126),  # no detector, unknown extension
        (lambda: imagelib.read(tmp_path / "short.bmp"), None),
        (lambda: imagelib.write(tmp_path / "x.hmr", rgb), -119),  # a registry row without a writer
        (lambda: imagelib.write(tmp_path / "x.xyz", rgb), -126),
        (lambda: imagelib.RowWriter(tmp_path / "x.pcx", 5, (4, 4)), -119),
        (lambda: imagelib.rows(tmp_path / "missing.tga"), None),
        (lambda: imagelib.write(tmp_path / "x.bmp", rgb.astype(np.float32)), -126),
        (lambda: imagelib.write(tmp_path / "x.bmp", rgb, mode="purple"), -126),
        (lambda: imagelib.rotate(rgb, 45, interpolate="cubic"), -126),
        (lambda: imagelib.warp(rgb, (1, 2, 2, 4, 0, 0), (5, 5)), -126),
        (lambda: imagelib.resize(rgb, (0, 3)), -126),
        (lambda: imagelib.read(tmp_path / "x.bmp", layout="cmyk"), -126),
    ]
    for call, status in cases:
        with pytest.raises(imagelib.ImagelibError) as e:
            call()
        assert e.value.status < 0
        if e.value.status != -126:  # argument checks carry their own text
            assert str(e.value).endswith(imagelib.status_text(e.value.status))
        if status is not None:
            assert e.value.status == status
        assert isinstance(e.value, OSError)
        assert isinstance(e.value, ValueError) == (e.value.status == -126)
    assert not (tmp_path / "x.xyz").exists()


def test_progress_stops_and_reports(tmp_path):
    path = tmp_path / "p.tga"
    imagelib.write(path, picture(40, 30))
    seen = []
    imagelib.read(path, progress=lambda total, done: seen.append((total, done)))
    assert seen == [(30, done) for done in range(30)]
    with pytest.raises(imagelib.ImagelibError) as e:  # the streamed read answers 1: still a stop
        imagelib.read(path, progress=lambda total, done: done >= 5)
    assert e.value.status == -144
    for ext in ("bmp", "tga"):
        with pytest.raises(imagelib.ImagelibError) as e:
            imagelib.write(tmp_path / f"q.{ext}", picture(), progress=lambda total, done: True)
        assert e.value.status == -144

    def boom(total, done):
        raise KeyError("from the callback")

    with pytest.raises(KeyError):
        imagelib.convert(path, tmp_path / "o.bmp", progress=boom)
    imagelib.convert(path, tmp_path / "o.bmp")  # nothing left behind on this thread


def test_pixel_operations():
    rgb = picture()
    for a in (rgb, rgb[:, :, 0], np.dstack([rgb, rgb[:, :, :1]])):
        assert np.array_equal(imagelib.rotate(a, 90), np.rot90(a))
        assert np.array_equal(imagelib.rotate(a, 180), np.rot90(a, 2))
        assert np.array_equal(imagelib.rotate(a, 270), np.rot90(a, 3))
        assert np.array_equal(imagelib.mirror(a, "h"), a[:, ::-1])
        assert np.array_equal(imagelib.mirror(a, "v"), a[::-1])
        assert np.array_equal(imagelib.resize(a, (37, 23)), a)
    # 2x2 blocks of one colour halve to that colour; indices are stepped, never blended.
    blocks = picture(8, 6).repeat(2, 0).repeat(2, 1)
    assert np.array_equal(imagelib.resize(blocks, (8, 6)), picture(8, 6))
    idx = np.arange(12, dtype=np.uint8).reshape(3, 4)
    big = imagelib.resize(idx, (8, 6))
    assert big.shape == (6, 8) and big[0, 0] == 0 and big[-1, -1] == 11 and set(big.flat) == set(idx.flat)

    # Eight colours keep eight boxes: each pixel lands within the histogram's 5-bit step.
    few, pal = palette_picture(8)
    for dither, worst in ((False, "max"), (True, "mean")):
        i, p = imagelib.quantize(pal[few], colours=8, dither=dither)
        assert len(p) == 8 and getattr(np.abs(p[i].astype(int) - pal[few]), worst)() < 8
    i, p = imagelib.quantize(rgb, colours=16)
    assert i.shape == rgb.shape[:2] and len(p) <= 16 and i.max() < len(p)
    near = np.abs(p[imagelib.quantize(rgb, colours=16, dither=False)[0]].astype(int) - rgb).mean()
    assert near < 40


def test_rotate_any_angle_and_warp():
    rgb = picture()
    h, w = rgb.shape[:2]
    for a in (rgb, rgb[:, :, 0], np.dstack([rgb, rgb[:, :, :1]])):
        # Quarter turns stay exact whatever the filter; 0 is a copy.
        assert np.array_equal(imagelib.rotate(a, -90, interpolate="bicubic"), np.rot90(a, 3))
        assert np.array_equal(imagelib.rotate(a, 0.0), a)
        turned = imagelib.rotate(a, 30, background=7 if a.ndim == 2 else (7,) * a.shape[2])
        r = np.radians(30)
        assert turned.shape[:2] == (np.ceil(w * np.sin(r) + h * np.cos(r)), np.ceil(w * np.cos(r) + h * np.sin(r)))
        assert (turned[0, 0] == 7).all() and (turned[-1, -1] == 7).all()
        # A whole-pixel translation shifts exactly; the rest is background.
        moved = imagelib.warp(a, (1, 0, 0, 1, 3, -2), (w, h), interpolate="bicubic")
        assert np.array_equal(moved[:-2, 3:], a[2:, :-3])
        assert not moved[-2:].any() and not moved[:, :3].any()


def test_thumbnail_and_transparent(tmp_path):
    rgb = picture(300, 120)
    path = tmp_path / "p.png"
    imagelib.write(path, rgb)
    thumb = imagelib.thumbnail(path, 60)
    assert thumb.shape == (24, 60, 3)
    assert np.abs(thumb.astype(int) - imagelib.resize(rgb, (60, 24))).mean() < 1
    assert imagelib.thumbnail(path, (1000, 1000)).shape == rgb.shape  # never enlarged
    with pytest.raises(imagelib.ImagelibError):
        imagelib.thumbnail(tmp_path / "missing.png", 10)

    rgba = imagelib.transparent(rgb, rgb[0, 0], tolerance=3)
    near = (np.abs(rgb.astype(int) - rgb[0, 0]) <= 3).all(axis=2)
    assert near[0, 0] and not near.all()
    assert np.array_equal(rgba[:, :, 3], np.where(near, 0, 255))
    assert np.array_equal(rgba[:, :, :3], rgb)
