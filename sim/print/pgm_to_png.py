#!/usr/bin/env python3
"""Converts 8-bit binary PGM files (P5) to greyscale PNG files.

Usage: pgm_to_png.py IN.pgm [OUT.png] [--scale N]
The PNG carries the scanner's 500 pixels per inch (divided by N) in its pHYs
chunk, so that fingerprint tools read the scale. Only the standard library is
used (zlib for the compressed image data).
"""
import struct
import sys
import zlib


def read_pgm(path):
    with open(path, "rb") as f:
        data = f.read()
    fields, pos = [], 0
    while len(fields) < 4:
        while data[pos:pos + 1].isspace():
            pos += 1
        if data[pos:pos + 1] == b"#":
            pos = data.index(b"\n", pos) + 1
            continue
        end = pos
        while not data[end:end + 1].isspace():
            end += 1
        fields.append(data[pos:end])
        pos = end
    if fields[0] != b"P5" or int(fields[3]) > 255:
        raise ValueError(path + ": not an 8-bit binary PGM")
    width, height = int(fields[1]), int(fields[2])
    pixels = data[pos + 1:pos + 1 + width * height]
    return width, height, pixels


def downscale(width, height, pixels, n):
    w2, h2 = width // n, height // n
    out = bytearray(w2 * h2)
    for y in range(h2):
        for x in range(w2):
            total = 0
            for dy in range(n):
                row = (y * n + dy) * width + x * n
                total += sum(pixels[row:row + n])
            out[y * w2 + x] = total // (n * n)
    return w2, h2, bytes(out)


SCANNER_PPI = 500


def write_png(path, width, height, pixels, ppi=SCANNER_PPI):
    def chunk(kind, body):
        crc = zlib.crc32(kind + body) & 0xFFFFFFFF
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", crc)

    raw = b"".join(b"\x00" + pixels[y * width:(y + 1) * width] for y in range(height))
    header = struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0)
    per_metre = round(ppi / 0.0254)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", header))
        f.write(chunk(b"pHYs", struct.pack(">IIB", per_metre, per_metre, 1)))
        f.write(chunk(b"IDAT", zlib.compress(raw, 9)))
        f.write(chunk(b"IEND", b""))


def main(argv):
    args = [a for a in argv[1:] if not a.startswith("--")]
    scale = 1
    if "--scale" in argv:
        scale = int(argv[argv.index("--scale") + 1])
        args.remove(str(scale))
    if not args:
        sys.exit(__doc__)
    src = args[0]
    dst = args[1] if len(args) > 1 else src.rsplit(".", 1)[0] + ".png"
    w, h, px = read_pgm(src)
    if scale > 1:
        w, h, px = downscale(w, h, px, scale)
    write_png(dst, w, h, px, SCANNER_PPI // scale)


if __name__ == "__main__":
    main(sys.argv)
