#!/usr/bin/python3
"""Writes a large tiled Group 4 Intergraph raster (data type 65 over 24) of a
drawing-like picture, for timing the GDAL plugin.

usage: ingr_tiled_g4.py OUT [SIZE] [TILE]   (default 20000 x 20000 in tiles of 512)
Each tile's stream is coded by libtiff through GDAL and turned to least
significant bit first."""
import struct
import sys

import numpy as np
from osgeo import gdal

gdal.UseExceptions()


def tile_pixels(x0, y0, w, h):
    y, x = np.mgrid[y0:y0 + h, x0:x0 + w]
    grid = ((x % 250) < 2) | ((y % 250) < 2)
    diagonal = np.abs((x - y) % 997) < 3
    rings = np.abs(np.hypot(x % 1000 - 500, y % 1000 - 500) - 300) < 1.5
    return (grid | diagonal | rings).astype(np.uint8)


def group4(bits):
    path = "/vsimem/tile.tif"
    ds = gdal.GetDriverByName("GTiff").Create(path, bits.shape[1], bits.shape[0], 1, gdal.GDT_Byte,
                                              ["NBITS=1", "COMPRESS=CCITTFAX4", "BLOCKYSIZE=%d" % bits.shape[0]])
    ds.GetRasterBand(1).WriteArray(bits)
    ds = None
    ds = gdal.Open(path)
    band = ds.GetRasterBand(1)
    off, size = int(band.GetMetadataItem("BLOCK_OFFSET_0_0", "TIFF")), int(band.GetMetadataItem("BLOCK_SIZE_0_0", "TIFF"))
    ds = None
    f = gdal.VSIFOpenL(path, "rb")
    gdal.VSIFSeekL(f, off, 0)
    raw = np.frombuffer(gdal.VSIFReadL(1, size, f), np.uint8)
    gdal.VSIFCloseL(f)
    gdal.Unlink(path)
    return np.unpackbits(raw).reshape(-1, 8)[:, ::-1].dot(1 << np.arange(7, -1, -1)).astype(np.uint8).tobytes()


def main():
    out = sys.argv[1]
    size = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    t = int(sys.argv[3]) if len(sys.argv) > 3 else 512
    cols = rows = -(-size // t)
    head = bytearray(1024)
    struct.pack_into("<HHH", head, 0, 2312, 510, 65)
    struct.pack_into("<16d", head, 56, 0.25, 0, 0, 300000.0, 0, -0.25, 0, 5000000.0, 0, 0, 1, 0, 0, 0, 0, 1)
    struct.pack_into("<II", head, 184, size, size)
    head[194], head[511] = 4, 3
    dir_bytes = 128 + 12 * cols * rows
    packet = bytearray(dir_bytes)
    struct.pack_into("<HHI", packet, 0, 1, 7, (dir_bytes - 8) // 2)
    struct.pack_into("<H", packet, 18, 24)
    struct.pack_into("<I", packet, 120, t)
    with open(out, "wb") as f:
        f.write(head)
        f.write(packet)
        at = dir_bytes
        for k in range(cols * rows):
            c, r = k % cols, k // cols
            data = group4(tile_pixels(c * t, r * t, min(t, size - c * t), min(t, size - r * t)))
            struct.pack_into("<III", packet, 128 + 12 * k, at, len(data), len(data))
            f.write(data)
            at += len(data)
        f.seek(1024)
        f.write(packet)


if __name__ == "__main__":
    main()
