"""Images: a snap's shape, type and pixels against the host layer's own
(the kr7 tool's PGM of the same fixed frame), and kr7.save / kr7.load."""

import os
import struct
import subprocess
import zlib

import numpy as np
import pytest

import kr7
from conftest import kr7_tool


def read_pgm(path):
    """A binary PGM (P5, maxval 255) parsed here, not by kr7."""
    with open(path, "rb") as f:
        data = f.read()
    fields = []
    at = 0
    while len(fields) < 4:
        while data[at : at + 1].isspace():
            at += 1
        if data[at : at + 1] == b"#":
            at = data.index(b"\n", at) + 1
            continue
        end = at
        while not data[end : end + 1].isspace():
            end += 1
        fields.append(data[at:end])
        at = end
    magic, width, height, maxval = fields[0], int(fields[1]), int(fields[2]), int(fields[3])
    assert magic == b"P5" and maxval == 255
    pixels = data[at + 1 : at + 1 + width * height]
    return np.frombuffer(pixels, np.uint8).reshape(height, width)


def png_ppi(path):
    """The pixels per inch of a PNG's pHYs chunk (None without one)."""
    with open(path, "rb") as f:
        data = f.read()
    at = 8
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at : at + 8])
        if kind == b"pHYs":
            x, y, unit = struct.unpack(">IIB", data[at + 8 : at + 17])
            assert unit == 1 and x == y
            return round(x * 0.0254)
        at += 12 + length
    return None


def test_snap_is_the_host_layers_image(tmp_path, scanner_settings):
    # A finger held still; every capture hands out the first frame again.
    scanner_settings.setenv("KR7SIM_SCENARIO", "place pressure=1.2; hold 60s")
    scanner_settings.setenv("KR7SIM_FIXED_FRAME", "1")
    reference = tmp_path / "tool.pgm"
    subprocess.run([kr7_tool(), "--virtual", "--quiet", "snap", "-o", str(reference)], check=True)
    expected = read_pgm(reference)

    with kr7.open(virtual=True) as scanner:
        image = scanner.snap()
        again = scanner.snap()
    assert isinstance(image, kr7.Image) and isinstance(image, np.ndarray)
    assert image.dtype == np.uint8
    assert image.shape == expected.shape == (472, 314)  # (height, width)
    assert image.flags.c_contiguous and image.flags.writeable
    assert image.ppi == kr7.PPI == 500
    # Pixel for pixel the host layer's image, top-down; the finger image is
    # no mirror of itself, so a flip or shift would show.
    np.testing.assert_array_equal(image, expected)
    assert not np.array_equal(image, np.flipud(expected))
    assert not np.array_equal(image, np.fliplr(expected))
    assert not np.array_equal(image[1:], expected[:-1])
    assert 100 < image.mean() < 250
    # Each image owns its memory: valid after the scanner is gone, apart
    # from every other.
    np.testing.assert_array_equal(again, expected)
    image[:] = 0
    np.testing.assert_array_equal(again, expected)
    assert type(image.base).__name__ == "PyCapsule"


def test_image_arrays_behave_as_numpy_arrays():
    with kr7.open(virtual=True) as scanner:
        image = scanner.snap()
    assert isinstance(image.mean(), float)
    assert isinstance(image.max(), (int, np.integer))
    assert type(image[10:20, 5:50]) is kr7.Image
    assert type(image + 1) is np.ndarray
    assert type(image > 128) is np.ndarray
    assert image[10:20].ppi == 500
    image.ppi = 1000
    assert image[::2].ppi == 1000


def test_save_writes_png_bmp_and_pgm_with_the_resolution(tmp_path):
    with kr7.open(virtual=True) as scanner:
        image = scanner.snap()
    for name in ("a.png", "a.bmp", "a.pgm", "A.PNG"):
        kr7.save(tmp_path / name, image)
        back = kr7.load(str(tmp_path / name))
        np.testing.assert_array_equal(back, image)
    np.testing.assert_array_equal(read_pgm(tmp_path / "a.pgm"), image)
    assert png_ppi(tmp_path / "a.png") == 500
    assert kr7.load(tmp_path / "a.png").ppi == 500
    # Any 2-D uint8 array, also a view that is not contiguous.
    kr7.save(tmp_path / "half.png", image[::2, ::2])
    np.testing.assert_array_equal(kr7.load(tmp_path / "half.png"), image[::2, ::2])
    shrunk = np.ascontiguousarray(image[::2, ::2]).view(kr7.Image)
    shrunk.ppi = 250
    kr7.save(tmp_path / "shrunk.png", shrunk)
    assert png_ppi(tmp_path / "shrunk.png") == 250

    with pytest.raises(ValueError, match="png"):
        kr7.save(tmp_path / "a.jpg", image)
    with pytest.raises(ValueError, match="uint8"):
        kr7.save(tmp_path / "f.png", image.astype(np.float32))
    with pytest.raises(ValueError, match="2-D"):
        kr7.save(tmp_path / "f.png", np.zeros((2, 3, 3), np.uint8))
    with pytest.raises(OSError, match="nowhere"):
        kr7.save(tmp_path / "nowhere" / "a.png", image)
    with pytest.raises(OSError, match="missing.png"):
        kr7.load(tmp_path / "missing.png")
