"""Shared helpers of the kr7 module's tests: the virtual scanner's settings
and the process's threads and descriptors.

CTest runs these with PYTHONPATH naming the module's build folder and
KR7_TOOL naming the kr7 tool. The virtual scanner reads its KR7SIM_*
variables each time its libraries are loaded, so every kr7.open below
plays the scenario the test set."""

import os

import pytest

import kr7  # noqa: F401  (the module under test; an ImportError names the build)

# A finger placed, held and lifted, again and again; one repetition spans
# about 85 of the plug-in's frames (as measured; results come that far apart).
PLACEMENTS = "empty 0.3s; place; hold 1s; lift 0.5s; repeat"
PLACEMENT_FRAMES = 85


@pytest.fixture(autouse=True)
def scanner_settings(monkeypatch):
    """No KR7SIM_* setting of the caller leaks in; the placements by default."""
    for name in list(os.environ):
        if name.startswith("KR7SIM_") or name in ("KR7_SIM_DIR", "KR7_LOG_LEVEL", "KR7_LOG_FILE"):
            monkeypatch.delenv(name)
    monkeypatch.setenv("KR7SIM_SCENARIO", PLACEMENTS)
    return monkeypatch


def threads():
    return len(os.listdir("/proc/self/task"))


def descriptors():
    return len(os.listdir("/proc/self/fd"))


def mappings():
    with open("/proc/self/maps") as maps:
        return sum(1 for _ in maps)


def loaded():
    """The plug-in's and the virtual scanner's files mapped in the process."""
    with open("/proc/self/maps") as maps:
        return sorted({line.split()[-1].rsplit("/", 1)[-1] for line in maps
                       if "norvak" in line or "QV2ScanAPI" in line})


def kr7_tool():
    tool = os.environ.get("KR7_TOOL")
    if not tool:
        pytest.skip("KR7_TOOL does not name the kr7 tool")
    return tool
