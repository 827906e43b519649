"""Life cycle: Ctrl-C during a capture, leaving a with block on an
exception, the last reference, and 500 open/close cycles."""

import gc
import signal

import pytest

import kr7
from conftest import descriptors, loaded, mappings, threads


def interrupt_after(seconds):
    """KeyboardInterrupt after `seconds`, delivered by a timer's signal."""

    def handler(number, frame):
        raise KeyboardInterrupt

    previous = signal.signal(signal.SIGALRM, handler)
    signal.setitimer(signal.ITIMER_REAL, seconds)
    return previous


@pytest.mark.parametrize("kind", ["capture", "frames"])
def test_keyboard_interrupt_stops_the_capture_and_leaves_no_thread(kind, scanner_settings):
    # No finger ever: the capture waits until the interruption.
    scanner_settings.setenv("KR7SIM_SCENARIO", "empty 10s; repeat")
    scanner_settings.setenv("KR7SIM_REALTIME", "1")
    baseline = threads()
    with kr7.open(virtual=True) as scanner:
        generator = scanner.capture(count=1, timeout=None) if kind == "capture" else (
            scanner.frames(count=None, timeout=None, keep=1))
        previous = interrupt_after(0.4)
        try:
            with pytest.raises(KeyboardInterrupt):
                for item in generator:
                    if kind == "frames":
                        pass  # frames keep coming; the signal interrupts the wait
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)
            signal.signal(signal.SIGALRM, previous)
        assert generator.stopped == "interrupted"
        assert threads() == baseline
        # The scanner captures again.
        scanner_settings.setenv("KR7SIM_SCENARIO", "empty 10s; repeat")
        assert len(list(scanner.frames(count=3))) == 3
    assert threads() == baseline


def test_an_exception_in_the_with_block_closes_the_scanner():
    baseline = threads()
    with pytest.raises(ZeroDivisionError):
        with kr7.open(virtual=True) as scanner:
            frames = scanner.frames(count=None)
            next(frames)
            assert threads() > baseline
            1 / 0
    assert scanner.closed
    assert frames.stopped == "closed"
    assert threads() == baseline
    assert loaded() == []  # uninitialised and unloaded
    with pytest.raises(StopIteration):
        next(frames)
    # Nothing of it stays open.
    kr7.open(virtual=True).close()


def test_the_last_reference_closes_the_scanner():
    baseline = threads()
    scanner = kr7.open(virtual=True)
    frames = scanner.frames(count=None)
    next(frames)
    assert any(name.startswith("libnorvakkr7fg.so") for name in loaded())
    del scanner  # the generator keeps it open
    assert next(frames).number >= 2
    del frames  # the last reference: stopped, uninitialised, unloaded
    assert threads() == baseline
    assert loaded() == []
    with kr7.open(virtual=True) as again:
        assert not again.closed


def test_open_and_close_500_times_without_growth():
    def cycle(number):
        with kr7.open(virtual=True) as scanner:
            if number % 100 == 0:
                assert len(list(scanner.frames(count=2))) == 2

    cycle(0)
    gc.collect()
    before = threads(), descriptors(), mappings()
    for number in range(1, 501):
        cycle(number)
    gc.collect()
    after = threads(), descriptors(), mappings()
    assert after[0] == before[0], "threads"
    assert after[1] == before[1], "descriptors"
    assert after[2] <= before[2] + 5, "mappings"
