"""The INGR GDAL plugin seen from GDAL's tools: hand-built Intergraph files of
every data type through gdalinfo, gdal_translate and python3-gdal, and
GeoTIFF written as Intergraph by gdal_translate read back by the imagelib
CLI. Run with GDAL_DRIVER_PATH at the plugin and IMAGELIB_CLI at the CLI."""
import json
import os
import struct
import subprocess

import numpy as np
import pytest
from osgeo import gdal

gdal.UseExceptions()
CLI = os.environ.get("IMAGELIB_CLI", "imagelib")
W, H = 150, 100
MATRIX = (0.5, 0.25, 0, 500000.0, -0.125, -0.75, 0, 4100000.5, 0, 0, 1, 0, 0, 0, 0, 1)


def header(data_type, w, h, length=1024, orientation=4, scannable=0, table=None):
    hd = bytearray(length)
    struct.pack_into("<HHH", hd, 0, 2312, length // 2 - 2, data_type)
    struct.pack_into("<16d", hd, 56, *MATRIX)
    struct.pack_into("<II", hd, 184, w, h)
    hd[194], hd[195], hd[511] = orientation, scannable, 3
    if table is not None:
        struct.pack_into("<II", hd, 532, 1, len(table))
        hd[768:768 + 3 * len(table)] = bytes(np.asarray(table, np.uint8).ravel())
    return bytes(hd)


def atoms(values):
    """Run-length atoms of one plane: repeats of 3 or more, literals otherwise."""
    out, i, n = bytearray(), 0, len(values)
    while i < n:
        r = 1
        while i + r < n and r < 128 and values[i + r] == values[i]:
            r += 1
        if r >= 3:
            out += struct.pack("<bB", -r, values[i])
            i += r
            continue
        j = i
        while j < n and j - i < 127 and not (j + 2 < n and values[j] == values[j + 1] == values[j + 2]):
            j += 1
        out += bytes([j - i]) + bytes(values[i:j])
        i = j
    return bytes(out)


def runs_record(line, y):
    runs, v, x = [], 0, 0
    while x < len(line):
        k = 0
        while x + k < len(line) and line[x + k] == v:
            k += 1
        runs.append(k)
        x += k
        v ^= 1
    return struct.pack("<4H", 0x5900, len(runs) + 2, y, 0) + struct.pack("<%dH" % len(runs), *runs)


def group4(bits, tmp):
    """The Group 4 stream of a 0/1 picture (1 black), least significant bit first."""
    path = str(tmp / "g4.tif")
    ds = gdal.GetDriverByName("GTiff").Create(path, bits.shape[1], bits.shape[0], 1, gdal.GDT_Byte,
                                              ["NBITS=1", "COMPRESS=CCITTFAX4", "BLOCKYSIZE=%d" % bits.shape[0]])
    ds.GetRasterBand(1).WriteArray(bits)
    ds = None
    ds = gdal.Open(path)
    off = int(ds.GetRasterBand(1).GetMetadataItem("BLOCK_OFFSET_0_0", "TIFF"))
    size = int(ds.GetRasterBand(1).GetMetadataItem("BLOCK_SIZE_0_0", "TIFF"))
    ds = None
    with open(path, "rb") as f:
        f.seek(off)
        raw = np.frombuffer(f.read(size), np.uint8)
    return bytes(np.unpackbits(raw).reshape(-1, 8)[:, ::-1].dot(1 << np.arange(7, -1, -1)).astype(np.uint8))


def picture(bands, bilevel=False):
    y, x = np.mgrid[0:H, 0:W]
    if bilevel:
        return [(((x // 7) ^ (y // 5)) & 1).astype(np.uint8)]
    return [((x * (3 + b) + y * (5 + 2 * b) + b * 40) % 256).astype(np.uint8) for b in range(bands)]


def tiled(tile_type, planes, tmp, t=64, orientation=4):
    cols, rows = -(-W // t), -(-H // t)
    dir_bytes = 128 + 12 * cols * rows
    packet = bytearray(dir_bytes)
    struct.pack_into("<HHI", packet, 0, 1, 7, (dir_bytes - 8) // 2)
    struct.pack_into("<H", packet, 18, tile_type)
    struct.pack_into("<I", packet, 120, t)
    payload = bytearray()
    for k in range(cols * rows):
        c, r = k % cols, k // cols
        part = [p[r * t:(r + 1) * t, c * t:(c + 1) * t] for p in planes]
        if tile_type == 24:
            data = group4(part[0], tmp)
        else:
            data = np.stack(part, axis=-1).tobytes()  # 28: red, green, blue a pixel
        struct.pack_into("<III", packet, 128 + 12 * k, dir_bytes + len(payload), len(data), len(data))
        payload += data
    return header(65, W, H, orientation=orientation) + bytes(packet) + bytes(payload)


def build(kind, tmp):
    """(file bytes, planes of the picture, colour table or None)."""
    grey = picture(1)
    rgb = picture(3)
    bits = picture(1, True)
    table = [(i, 255 - i, (i * 7) % 256) for i in range(256)]
    if kind == "2-grey":
        return header(2, W, H) + grey[0].tobytes(), grey, None
    if kind == "2-palette":
        return header(2, W, H, 1536, table=table) + grey[0].tobytes(), grey, table
    if kind == "9":
        data = b"".join(runs_record(list(bits[0][y]), y) for y in range(H))
        return header(9, W, H, scannable=1) + data, bits, [(255,) * 3, (0,) * 3]
    if kind == "24":
        return header(24, W, H) + group4(bits[0], tmp), bits, [(255,) * 3, (0,) * 3]
    if kind == "27":
        data = b"".join(atoms(list(p[y])) for y in range(H) for p in rgb)
        return header(27, W, H) + data, rgb, None
    if kind == "28":
        return header(28, W, H) + np.stack(rgb, axis=-1).tobytes(), rgb, None
    if kind == "29":
        return header(29, W, H) + b"".join(atoms(list(grey[0][y])) for y in range(H)), grey, None
    if kind == "65-g4":
        return tiled(24, bits, tmp), bits, [(255,) * 3, (0,) * 3]
    if kind == "65-rgb":
        return tiled(28, rgb, tmp), rgb, None
    raise ValueError(kind)


KINDS = ["2-grey", "2-palette", "9", "24", "27", "28", "29", "65-g4", "65-rgb"]


@pytest.fixture
def made(request, tmp_path):
    data, planes, table = build(request.param, tmp_path)
    path = tmp_path / ("in-%s.int" % request.param)
    path.write_bytes(data)
    return str(path), planes, table


def as_rgb(planes, table):
    if len(planes) == 3:
        return np.stack(planes, axis=-1)
    if table is None:
        return np.stack([planes[0]] * 3, axis=-1)
    return np.asarray(table, np.uint8)[planes[0]]


def read_pam(path):
    with open(path, "rb") as f:
        data = f.read()
    end = data.index(b"ENDHDR\n") + 7
    fields = dict(line.split(b" ", 1) for line in data[:end].split(b"\n")[1:-2])
    w, h, d = int(fields[b"WIDTH"]), int(fields[b"HEIGHT"]), int(fields[b"DEPTH"])
    px = np.frombuffer(data[end:], np.uint8).reshape(h, w, d)
    if int(fields[b"MAXVAL"]) == 1:
        px = px * 255
    return px if d == 3 else np.repeat(px[:, :, :1], 3, axis=2)


def gdal_rgb(path):
    ds = gdal.Open(path)
    planes = [ds.GetRasterBand(b + 1).ReadAsArray() for b in range(ds.RasterCount)]
    ct = ds.GetRasterBand(1).GetColorTable()
    table = [ct.GetColorEntry(i)[:3] for i in range(ct.GetCount())] if ct else None
    return as_rgb(planes, table)


@pytest.mark.parametrize("made", KINDS, indirect=True)
def test_gdalinfo_reports_size_bands_table_and_geotransform(made):
    path, planes, table = made
    info = json.loads(subprocess.run(["gdalinfo", "-json", path], check=True, capture_output=True).stdout)
    assert info["driverShortName"] == "INGR"
    assert info["size"] == [W, H]
    assert len(info["bands"]) == len(planes)
    m = MATRIX
    assert info["geoTransform"] == [m[3], m[0], -m[1], m[7], m[4], -m[5]]
    band = info["bands"][0]
    if table is None:
        assert "colorTable" not in band
    else:
        assert [e[:3] for e in band["colorTable"]["entries"]] == [list(e) for e in table]


@pytest.mark.parametrize("made", KINDS, indirect=True)
def test_gdal_translate_gives_the_pixels_of_imagelib_convert(made, tmp_path):
    path, planes, table = made
    tif, pam = str(tmp_path / "out.tif"), str(tmp_path / "out.pam")
    subprocess.run(["gdal_translate", "-q", "-of", "GTiff", path, tif], check=True)
    subprocess.run([CLI, "convert", path, pam], check=True, capture_output=True)
    ours = read_pam(pam)
    assert np.array_equal(gdal_rgb(tif), ours)
    assert np.array_equal(ours, as_rgb(planes, table))


def test_scan_orientation_turns_the_picture_as_the_cli_does(tmp_path):
    bits = picture(1, True)
    path, tif, pam = str(tmp_path / "o2.int"), str(tmp_path / "o2.tif"), str(tmp_path / "o2.pam")
    (tmp_path / "o2.int").write_bytes(tiled(24, bits, tmp_path, orientation=2))
    subprocess.run(["gdal_translate", "-q", "-of", "GTiff", path, tif], check=True)
    subprocess.run([CLI, "convert", path, pam], check=True, capture_output=True)
    got = gdal_rgb(tif)
    assert got.shape[:2] == (W, H)  # lines run vertically: the picture is turned
    assert np.array_equal(got, read_pam(pam))


@pytest.mark.parametrize("made", ["24", "29", "65-g4", "65-rgb", "28"], indirect=True)
def test_window_equals_the_same_window_of_the_whole(made):
    path = made[0]
    for x, y, w, h in [(0, 0, 10, 7), (37, 61, 80, 30), (W - 5, H - 3, 5, 3), (63, 0, 3, 100)]:
        ds = gdal.Open(path)  # fresh: no block of the whole in the cache
        window = ds.ReadAsArray(x, y, w, h)
        whole = gdal.Open(path).ReadAsArray()
        assert np.array_equal(window, whole[..., y:y + h, x:x + w])


@pytest.mark.parametrize("kind", ["rgb", "cot", "cot-palette", "cit", "rle"])
def test_translate_to_ingr_reads_back_with_pixels_and_geotransform(kind, tmp_path):
    src, out, pam = str(tmp_path / "src.tif"), str(tmp_path / "out.int"), str(tmp_path / "out.pam")
    bands = 3 if kind == "rgb" else 1
    planes = picture(bands)
    ds = gdal.GetDriverByName("GTiff").Create(src, W, H, bands, gdal.GDT_Byte)
    for b, p in enumerate(planes):
        ds.GetRasterBand(b + 1).WriteArray(p)
    table = None
    if kind == "cot-palette":
        table = [(i, (i * 3) % 256, 255 - i) for i in range(256)]
        ct = gdal.ColorTable()
        for i, e in enumerate(table):
            ct.SetColorEntry(i, e + (255,))
        ds.GetRasterBand(1).SetColorTable(ct)
    gt = (653210.125, 0.3, 0.0, 5210987.625, 0.0, -0.3)
    ds.SetGeoTransform(gt)
    ds = None
    subprocess.run(["gdal_translate", "-q", "-of", "INGR", "-co", "TYPE=" + kind.split("-")[0], src, out], check=True)
    info = json.loads(subprocess.run(["gdalinfo", "-json", out], check=True, capture_output=True).stdout)
    assert info["geoTransform"] == list(gt)
    subprocess.run([CLI, "convert", out, pam], check=True, capture_output=True)
    expect = as_rgb(planes, table)
    if kind in ("cit", "rle"):
        grey = expect[:, :, 0]  # grey source: its value is its grey level
        expect = np.repeat(np.where(grey < 128, 0, 255).astype(np.uint8)[:, :, None], 3, axis=2)
    assert np.array_equal(read_pam(pam), expect)


def test_the_driver_is_ours_and_gdal_has_none_of_its_own():
    assert gdal.GetDriverByName("INGR").LongName == "Intergraph Raster (imagelib)"
    env = {k: v for k, v in os.environ.items() if k != "GDAL_DRIVER_PATH"}
    formats = subprocess.run(["gdalinfo", "--formats"], env=env, check=True, capture_output=True, text=True).stdout
    assert all("(imagelib)" in line for line in formats.splitlines() if line.split()[:1] == ["INGR"])


def test_one_bit_source_without_table_writes_cit_with_zero_black(tmp_path):
    src, out, pam = str(tmp_path / "bits.tif"), str(tmp_path / "bits.int"), str(tmp_path / "bits.pam")
    bits = picture(1, True)[0]
    ds = gdal.GetDriverByName("GTiff").Create(src, W, H, 1, gdal.GDT_Byte, ["NBITS=1"])
    ds.GetRasterBand(1).WriteArray(bits)
    ds = None
    subprocess.run(["gdal_translate", "-q", "-of", "INGR", src, out], check=True)
    assert gdal.Open(out).GetMetadataItem("DATA_TYPE") == "24"
    subprocess.run([CLI, "convert", out, pam], check=True, capture_output=True)
    assert np.array_equal(read_pam(pam)[:, :, 0], bits * 255)
