"""The KR7 fingerprint scanner from Python, images as NumPy arrays."""

import os
from types import TracebackType
from typing import Any, Generic, Iterator, Literal, TypeVar, overload

import numpy
import numpy.typing

__version__: str

PPI: int
"""The scanner's resolution in pixels per inch (500)."""

class Image(numpy.ndarray[Any, numpy.dtype[numpy.uint8]]):
    """A grey image of the scanner: 2-D uint8, shape (height, width), rows top-down.

    Its memory is its own (one copy out of the plug-in's bitmap), writable.
    `ppi` is its resolution: 500 (the class attribute) unless the instance
    sets another, which views and slices keep and kr7.save writes.
    Computed arrays are plain numpy.ndarray objects.
    """

    ppi: int

class Error(RuntimeError):
    """A call of the plug-in failed, or a capture ended with its error."""

    operation: str
    """The plug-in's operation ("GetImage", ...), or "capture"."""
    number: int | None
    """The error number without FGERR_FLAG (31: disconnected); None when unknown."""
    text: str
    """The plug-in's error text."""
    result: int | None
    """What the call returned, FGERR_FLAG included."""
    def __init__(
        self,
        operation: str,
        number: int | None,
        text: str,
        result: int | None = ...,
        message: str | None = ...,
    ) -> None: ...

class LoadError(RuntimeError):
    """A file could not be loaded: the plug-in or a virtual scanner's library."""

    file: str
    reason: str
    """The dynamic loader's reason."""
    kind: Literal["plugin", "not a plugin", "virtual scanner"]
    def __init__(
        self, file: str, reason: str, kind: str = ..., message: str | None = ...
    ) -> None: ...

class CaptureWarning(UserWarning):
    """The plug-in's warning during a capture; the capture goes on."""

class Info:
    """What the plug-in and the scanner say of themselves."""

    @property
    def version(self) -> str: ...
    @property
    def product(self) -> str: ...
    @property
    def serial(self) -> str: ...
    @property
    def hardware(self) -> str: ...
    @property
    def firmware(self) -> str: ...
    @property
    def calibration(self) -> str: ...
    @property
    def plugin(self) -> str: ...
    @property
    def device(self) -> int: ...

class Device:
    """A connected scanner, as kr7.devices() lists it."""

    @property
    def index(self) -> int: ...
    @property
    def serial(self) -> str: ...
    @property
    def active(self) -> bool: ...

class Frame:
    """A live frame of Scanner.frames()."""

    @property
    def image(self) -> Image: ...
    @property
    def number(self) -> int:
        """The plug-in's number of the frame in its capture, from 1 (gaps: dropped)."""

class Result:
    """A finger result of Scanner.capture(): one per placement."""

    @property
    def image(self) -> Image: ...
    @property
    def number(self) -> int:
        """The result's number in its capture, from 1."""
    @property
    def area(self) -> float:
        """Share of the platen the finger covers, 0..1 (as kr7 capture prints it)."""
    @property
    def contrast(self) -> float:
        """Ridge contrast, 0..1 (as kr7 capture prints it)."""
    @property
    def frame(self) -> int:
        """The plug-in's frames before this result."""

_T = TypeVar("_T", Frame, Result)

class Capture(Generic[_T]):
    """A capture as a generator: lazy, stopped when exhausted, closed or interrupted."""

    def __iter__(self) -> Iterator[_T]: ...
    def __next__(self) -> _T: ...
    def close(self) -> None: ...
    def __enter__(self) -> "Capture[_T]": ...
    def __exit__(
        self,
        kind: type[BaseException] | None,
        value: BaseException | None,
        traceback: TracebackType | None,
    ) -> None: ...
    @property
    def frames(self) -> int:
        """Live frames the plug-in delivered so far."""
    @property
    def dropped(self) -> int:
        """Live frames let go before the reader took them."""
    @property
    def handed(self) -> int:
        """Frames or results handed to the reader so far."""
    @property
    def started(self) -> bool: ...
    @property
    def stopped(
        self,
    ) -> Literal["count", "timeout", "closed", "interrupted", "error", "ended"] | None: ...

class Scanner:
    """An open scanner; kr7.open() gives one."""

    @property
    def info(self) -> Info: ...
    def snap(self) -> Image: ...
    def capture(
        self,
        mode: Literal["plain", "fastplain", "rolled"] = "plain",
        count: int | None = 3,
        timeout: float | None = 30.0,
    ) -> Capture[Result]: ...
    def frames(
        self, count: int | None = 25, timeout: float | None = 30.0, keep: int = 4
    ) -> Capture[Frame]: ...
    def led(self, colour: Literal["red", "green"], on: bool) -> None: ...
    def contamination(self) -> float: ...
    def property(self, id: int, value: int | None = None) -> int: ...
    def close(self) -> None: ...
    @property
    def closed(self) -> bool: ...
    @property
    def plugin(self) -> str: ...
    @property
    def virtual(self) -> bool: ...
    def __enter__(self) -> "Scanner": ...
    def __exit__(
        self,
        kind: type[BaseException] | None,
        value: BaseException | None,
        traceback: TracebackType | None,
    ) -> None: ...

def open(
    *,
    virtual: bool = False,
    plugin: str | os.PathLike[str] | None = None,
    device: int | None = None,
) -> Scanner: ...
def devices(
    *, virtual: bool = False, plugin: str | os.PathLike[str] | None = None
) -> list[Device]: ...
def save(path: str | os.PathLike[str], image: numpy.typing.NDArray[numpy.uint8]) -> None: ...
def load(path: str | os.PathLike[str]) -> Image: ...
