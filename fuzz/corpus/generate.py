#!/usr/bin/env python3
"""Writes the binary seed inputs of the fuzz targets into the folders beside
this script (the text seeds are written by hand). Run it again after changing
a format; the files it writes are kept in the repository."""
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    os.makedirs(os.path.join(HERE, target), exist_ok=True)
    with open(os.path.join(HERE, target, name), "wb") as f:
        f.write(data)


def optics(width=64, height=64, margin=(6, 6), centre=None, keystone=20000, falloff=200000,
           tilt=(10000, -8000), flat=240, target=248, seed=1, crc=True):
    """The 56-byte optics record of sim/common/optics.h."""
    cx, cy = centre or ((width - 1) * 500, (height - 1) * 500)
    body = b"KR7O" + struct.pack("<HHHHHHiiiiiiHHQ", 1, 56, width, height, margin[0], margin[1],
                                 cx, cy, keystone, falloff, tilt[0], tilt[1], flat, target, seed)
    return body + struct.pack("<I", zlib.crc32(body) if crc else 0)


def block(payload, description=b"Virtual unit", revision=b"KR7SIM CAL 1.0.0"):
    """A calibration block (src/calibration/calibration_header.h), dated 9/1/2026."""
    return (bytes([1, 9, 1, 126]) + revision.ljust(16, b"\0") + bytes([len(description)]) +
            description + struct.pack("<I", len(payload)) + payload)


def dib(width, height, bits, compression=0, colours=0, table=None, fill=0x41):
    """A bitmap block: the 40-byte header, the colour table, the rows."""
    header = struct.pack("<IiiHHIIiiII", 40, width, height, 1, bits, compression, 0, 19685,
                         19685, colours, 0)
    if table is None:
        entries = colours or (1 << bits if bits <= 8 else 0)
        table = b"".join(bytes([i * 255 // max(entries - 1, 1)] * 3 + [0]) for i in range(entries))
    row = ((width * bits + 7) // 8 + 3) // 4 * 4
    return header + table + bytes((fill + i) & 0xFF for i in range(row * height))


def main():
    record = optics()
    # The scanner's memory: its reported size, then its contents.
    memory = lambda size, content: struct.pack("<H", size) + content
    good = block(record)
    write("calibration_block", "block", memory(len(good), good))
    write("calibration_block", "block_in_erased_memory", memory(300, good + b"\xff" * 40))
    write("calibration_block", "truncated", memory(len(good) - 9, good))
    write("calibration_block", "no_description", memory(40, block(b"abc", b"") + b"\0" * 8))
    write("calibration_block", "version_2", memory(len(good), b"\2" + good[1:]))
    write("calibration_block", "long_description", memory(len(good), good[:20] + b"\xff" + good[21:]))
    write("calibration_block", "huge_payload",
          memory(len(good), good[:33] + b"\xff\xff\xff\x7f" + good[37:]))

    header = b"KR7 calibration file".ljust(100, b"\0")
    write("calibration_file", "record", header + record)
    write("calibration_file", "record_80x96", header + optics(80, 96, margin=(8, 8)))
    write("calibration_file", "bad_crc", header + optics(crc=False))
    write("calibration_file", "header_only", header)
    write("calibration_file", "short", header[:60])

    write("bitmap", "grey_4x3", dib(4, 3, 8))
    write("bitmap", "mono_9x2", dib(9, 2, 1))
    write("bitmap", "nibbles_short_table", dib(5, 2, 4, colours=3))
    write("bitmap", "rgb_3x2", dib(3, 2, 24))
    masks = struct.pack("<III", 0x001F, 0x03E0, 0x7C00)
    write("bitmap", "bitfields_16", dib(2, 2, 16, compression=3, table=masks))
    write("bitmap", "rgba_1x1", dib(1, 1, 32))
    write("bitmap", "no_rows", dib(7, 0, 8, colours=2))
    write("bitmap", "negative_width", dib(2, 2, 8)[:40].replace(struct.pack("<i", 2), b"\xfe\xff\xff\xff", 1))
    write("bitmap", "depth_0", dib(2, 2, 8, table=b"")[:40].replace(b"\1\0\x08\0", b"\1\0\0\0"))

    write("optics", "record_64x64", record)
    write("optics", "record_with_tail", record + bytes([0x35]) + b"tail")
    write("optics", "record_96x80", optics(96, 80, margin=(9, 7), keystone=-35000, tilt=(-20000, 0)))
    write("optics", "bad_crc", optics(keystone=30000, crc=False))
    write("optics", "margins_too_wide", optics(margin=(29, 6)))
    write("optics", "short", record[:40])

    # Recorded frames for replay steps, decoded by the scenario target.
    pgm = b"P5\n# recorded\n4 3\n200\n" + bytes(range(60, 72))
    write("scenario", "frame.pgm", pgm)
    palette = b"".join(bytes([i, i, i, 0]) for i in range(256))
    pixels = bytes(range(16))  # 3 x 4, rows padded to 4 bytes
    bmp8 = struct.pack("<IiiHHIIiiII", 40, 3, -4, 1, 8, 0, 0, 0, 0, 0, 0) + palette + pixels
    write("scenario", "frame8_top_down.bmp",
          b"BM" + struct.pack("<IHHI", 14 + len(bmp8), 0, 0, 14 + 40 + 1024) + bmp8)
    bmp24 = struct.pack("<IiiHHIIiiII", 40, 2, 2, 1, 24, 0, 0, 0, 0, 0, 0) + bytes(range(16))
    write("scenario", "frame24.bmp", b"BM" + struct.pack("<IHHI", 14 + len(bmp24), 0, 0, 54) + bmp24)

    # kr7host's readers: a BMP file as kr7 writes it, the plug-in's block, a PGM.
    block5x3 = dib(5, 3, 8)
    write("host_image", "grey_5x3.bmp",
          b"BM" + struct.pack("<IHHI", 14 + len(block5x3), 0, 0, 14 + 40 + 1024) + block5x3)
    bottom_up = dib(3, 2, 8)
    write("host_image", "block_top_down", bottom_up[:8] + struct.pack("<i", -2) + bottom_up[12:])
    write("host_image", "block_short_table", dib(6, 2, 8, colours=16))
    write("host_image", "frame.pgm", b"P5\n# kr7\n4 2\n255\n" + bytes(range(100, 108)))


if __name__ == "__main__":
    main()
