"""Failures: the plug-in's errors as kr7.Error with number, text and
operation; an unplugged scanner; files that cannot be loaded."""

import os

import pytest

import kr7
from conftest import threads

DISCONNECTED = "The scanner is disconnected."


def test_unplugged_scanner_raises_error_31_and_captures_after_the_replug(scanner_settings):
    scanner_settings.setenv(
        "KR7SIM_SCENARIO",
        "empty 0.3s; place; hold 0.5s; unplug 1s; empty 0.3s; place; hold 1s; lift 0.5s; "
        "empty 0.3s; place; hold 1s; lift 0.5s; empty 0.3s; place; hold 1s; lift 0.5s",
    )
    baseline = threads()
    with kr7.open(virtual=True) as scanner:
        capture = scanner.capture(count=5, timeout=60)
        taken = []
        with pytest.raises(kr7.Error) as failure:
            for result in capture:
                taken.append(result)
        error = failure.value
        assert error.number == 31
        assert error.text == DISCONNECTED
        assert error.operation == "capture"
        assert error.result == 0x10000000 | 31
        assert DISCONNECTED in str(error)
        # The finger placed before the unplug is kept.
        assert len(taken) == 1 and taken[0].area > 0.3
        assert capture.stopped == "error"
        assert threads() == baseline
        with pytest.raises(StopIteration):
            next(capture)

        # Plugged in again: a capture started while the scanner is still
        # away fails to open it; one after the replug works.
        for attempt in range(100):
            try:
                results = list(scanner.capture(count=1, timeout=30))
                break
            except kr7.Error as e:
                assert e.number in (31, None), e
        else:
            pytest.fail("no capture worked after the replug")
        assert len(results) == 1 and results[0].area > 0.3
    assert threads() == baseline


def test_a_plugin_error_gives_number_text_and_operation():
    with pytest.raises(kr7.Error) as failure:
        kr7.open(virtual=True, device=5)
    error = failure.value
    assert isinstance(error, RuntimeError)
    assert error.number == 27 and error.result == 0x1000001B
    assert error.operation == "SetActiveDevice"
    assert error.text.startswith("The device index")
    assert str(error).startswith("SetActiveDevice failed: error 27 (0x1000001b): The device")
    # The failed open left nothing open behind.
    with kr7.open(virtual=True) as scanner:
        assert scanner.info.device == 0


def test_a_missing_plugin_raises_load_error_naming_the_file(tmp_path):
    missing = tmp_path / "nowhere" / "libx.so.1"
    with pytest.raises(kr7.LoadError) as failure:
        kr7.open(plugin=missing)
    error = failure.value
    assert error.file == str(missing)
    assert "No such file" in error.reason
    assert error.kind == "plugin"
    assert str(missing) in str(error)
    with pytest.raises(kr7.LoadError):
        kr7.devices(plugin=str(missing))


def test_a_missing_virtual_scanner_library_is_named(tmp_path, scanner_settings):
    scanner_settings.setenv("KR7_SIM_DIR", str(tmp_path))
    with pytest.raises(kr7.LoadError) as failure:
        kr7.open(virtual=True)
    error = failure.value
    assert error.kind == "virtual scanner"
    assert error.file.startswith(str(tmp_path) + os.sep)
    assert os.path.basename(error.file) in ("libnorvaklf.so", "libnorvakcalibratesdk.so", "libQV2ScanAPI.so")
    assert error.file in str(error)


def test_a_file_that_is_no_plugin_is_refused():
    with kr7.open(virtual=True) as scanner:
        folder = os.path.dirname(scanner.plugin)
    stand_in = os.path.join(os.path.dirname(folder), "sim", "lib", "libnorvaklf.so")
    if not os.path.exists(stand_in):
        pytest.skip("no stand-in at " + stand_in)
    with pytest.raises(kr7.LoadError) as failure:
        kr7.open(plugin=stand_in)
    assert failure.value.kind == "not a plugin" and failure.value.file == stand_in


def test_a_closed_scanner_and_a_second_open_are_refused():
    scanner = kr7.open(virtual=True)
    with pytest.raises(RuntimeError, match="open already"):
        kr7.open(virtual=True)
    # The open scanner answers for kr7.devices().
    assert [d.serial for d in kr7.devices(virtual=True)] == ["KR734652"]
    assert scanner.snap().shape == (472, 314)
    scanner.close()
    scanner.close()
    assert scanner.closed
    with pytest.raises(RuntimeError, match="closed"):
        scanner.snap()
    with pytest.raises(RuntimeError, match="closed"):
        scanner.capture()
