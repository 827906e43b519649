"""Captures: one result per placement, live frames in order, lazy
generators, a slow reader, and bad arguments refused before the plug-in."""

import threading
import time

import numpy as np
import pytest

import kr7
from conftest import PLACEMENT_FRAMES, threads


def test_plain_capture_gives_one_result_per_placement():
    with kr7.open(virtual=True) as scanner:
        capture = scanner.capture(mode="plain", count=3, timeout=60)
        results = list(capture)
    assert [r.number for r in results] == [1, 2, 3]
    assert capture.stopped == "count"
    # One placement each, one after the other: a placement's frames apart.
    frames = [r.frame for r in results]
    for before, after in zip(frames, frames[1:]):
        assert 0.5 * PLACEMENT_FRAMES < after - before < 1.5 * PLACEMENT_FRAMES, frames
    for result in results:
        assert isinstance(result.image, kr7.Image)
        assert result.image.shape == (472, 314) and result.image.dtype == np.uint8
        # The read-out kr7 capture prints (area 51-52 %, contrast 63 %).
        assert 0.3 < result.area < 0.8
        assert 0.4 < result.contrast < 0.9
    assert not np.shares_memory(results[0].image, results[1].image)


def test_live_frames_come_in_order():
    with kr7.open(virtual=True) as scanner:
        capture = scanner.frames(count=40)
        frames = list(capture)
    assert len(frames) == 40 and capture.handed == 40
    numbers = [f.number for f in frames]
    assert numbers == sorted(set(numbers)) and numbers[0] >= 1
    # Gaps in the numbers are the frames let go, and nothing else.
    assert numbers[-1] - len(numbers) <= capture.dropped
    if capture.dropped == 0:
        assert numbers == list(range(1, 41))
    for frame in frames:
        assert frame.image.shape == (472, 314) and frame.image.dtype == np.uint8
    # The finger moves: the frames are the scanner's, not one image again.
    assert len({f.image.tobytes() for f in frames}) > 10


def test_generators_are_lazy_and_stop_when_closed():
    baseline = threads()
    with kr7.open(virtual=True) as scanner:
        capture = scanner.frames(count=None, timeout=None)
        assert not capture.started and capture.stopped is None
        assert threads() == baseline
        first = next(capture)
        assert capture.started and first.number >= 1
        assert threads() > baseline  # the plug-in's worker
        # One capture at a time on the scanner, refused before the plug-in.
        other = scanner.capture()
        with pytest.raises(RuntimeError, match="capture is running"):
            next(other)
        time.sleep(0.05)  # frames wait in the queue: closing lets them go too
        capture.close()
        assert capture.stopped == "closed"
        assert threads() == baseline
        with pytest.raises(StopIteration):
            next(capture)
        # Leaving a for loop early drops the generator: the capture stops.
        for frame in scanner.frames(count=None):
            break
        assert threads() == baseline
        # Exhausted at the count: stopped before the last frame is handed.
        capture = scanner.frames(count=3)
        for frame in capture:
            pass
        assert capture.stopped == "count" and threads() == baseline
        # A count of 0 never starts.
        assert list(scanner.frames(count=0)) == []
        # And the scanner still captures.
        assert len(list(scanner.capture(count=1))) == 1


def test_timeout_ends_the_generator(scanner_settings):
    scanner_settings.setenv("KR7SIM_SCENARIO", "empty 10s; repeat")
    with kr7.open(virtual=True) as scanner:
        started = time.monotonic()
        capture = scanner.capture(count=1, timeout=0.5)
        assert list(capture) == []
        assert 0.5 <= time.monotonic() - started < 5
        assert capture.stopped == "timeout" and capture.frames > 0


def test_slow_reader_loses_old_frames_counted_and_never_a_result():
    with kr7.open(virtual=True) as scanner:
        frames = scanner.frames(count=8, keep=2)
        numbers = []
        for frame in frames:
            numbers.append(frame.number)
            time.sleep(0.05)
        assert frames.dropped > 0
        assert numbers == sorted(set(numbers))
        assert numbers[-1] - len(numbers) <= frames.dropped

        # The scanner runs through several placements while the reader
        # sleeps; each placement still gives its result.
        results = scanner.capture(count=4)
        taken = []
        for result in results:
            taken.append(result)
            time.sleep(0.6)
        assert [r.number for r in taken] == [1, 2, 3, 4]
        assert results.frames > 3 * PLACEMENT_FRAMES
        gaps = [b.frame - a.frame for a, b in zip(taken, taken[1:])]
        assert all(0.5 * PLACEMENT_FRAMES < gap < 1.5 * PLACEMENT_FRAMES for gap in gaps), gaps


def test_waiting_releases_the_gil(scanner_settings):
    scanner_settings.setenv("KR7SIM_SCENARIO", "empty 10s; repeat")
    ticks = 0
    done = threading.Event()

    def count():
        nonlocal ticks
        while not done.is_set():
            ticks += 1
            time.sleep(0.001)

    with kr7.open(virtual=True) as scanner:
        counter = threading.Thread(target=count)
        counter.start()
        try:
            assert list(scanner.capture(count=1, timeout=0.6)) == []
        finally:
            done.set()
            counter.join()
    assert ticks > 20  # none at all if the wait held the GIL


def test_bad_arguments_raise_value_error_before_the_plugin(tmp_path):
    # No plug-in at all behind these: the arguments are refused first.
    missing = tmp_path / "libnone.so.1"
    with pytest.raises(ValueError, match="device"):
        kr7.open(plugin=missing, device=-1)
    with pytest.raises(ValueError):
        kr7.open(plugin="")
    with kr7.open(virtual=True) as scanner:
        for call in (
            lambda: scanner.capture(mode="sideways"),
            lambda: scanner.capture(mode="live"),
            lambda: scanner.capture(count=-1),
            lambda: scanner.capture(timeout=-1),
            lambda: scanner.capture(timeout=float("nan")),
            lambda: scanner.frames(count=-3),
            lambda: scanner.frames(keep=0),
            lambda: scanner.led("blue", True),
            lambda: scanner.property(-1),
            lambda: scanner.property(6, -5),
        ):
            with pytest.raises(ValueError):
                call()
        with pytest.raises(TypeError):
            scanner.capture(count=1.5)
        # Nothing was started by them.
        assert len(list(scanner.capture(count=1))) == 1


def test_properties_leds_contamination_and_info():
    with kr7.open(virtual=True) as scanner:
        info = scanner.info
        assert info.serial == "KR734652" and info.product == "Norvak QV2 scanner"
        assert info.version.startswith(kr7.__version__)
        assert (info.hardware, info.firmware) == ("3.1.2", "1.7")
        assert info.calibration and info.device == 0
        assert info.plugin == scanner.plugin
        assert scanner.property(3) == 1
        scanner.led("red", True)
        assert scanner.property(7) == 100
        scanner.led("red", False)
        assert scanner.property(7) == 0
        assert scanner.property(8, 100) == 100
        assert 0.0 <= scanner.contamination() <= 1.0
        with pytest.raises(kr7.Error) as failure:
            scanner.property(3, 0)
        assert failure.value.number == 18 and failure.value.operation == "SetFGProperty"
    assert [(d.index, d.serial) for d in kr7.devices(virtual=True)] == [(0, "KR734652")]
