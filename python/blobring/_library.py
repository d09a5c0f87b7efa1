"""The calls of blobring.h, declared for ctypes, and how they reach Python.

ctypes gives up the interpreter's lock during each call.
"""

from __future__ import annotations

import atexit
import ctypes
import logging
import mmap
import os
import signal
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import FrameType
from typing import Any

from blobring import errors

# Python 3.12 has collections.abc.Buffer for all buffers; a type checker accepts others wrapped in a
# memoryview.
Buffer = bytes | bytearray | memoryview | mmap.mmap

FETCHED, NOT_FOUND, FAILED, TOO_SMALL, STOPPED = range(5)
CHECK_FAULTY, CHECK_SOUND = range(2)
LARGEST_SIZE = 2**31 - 1
ERROR_TEXT_CAPACITY = 1024

PROGRESS = ctypes.CFUNCTYPE(
    ctypes.c_int, ctypes.c_void_p, ctypes.c_int, ctypes.c_uint64, ctypes.c_uint64
)
TRACE_SINK = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p, ctypes.c_char_p
)
PIECE = ctypes.CFUNCTYPE(
    ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int
)  # BCSink and BCSource


class Options(ctypes.Structure):
    """BCOptions."""

    _fields_ = [
        ("size", ctypes.c_uint32),
        ("slotCount", ctypes.c_uint32),
        ("packDirs", ctypes.POINTER(ctypes.c_char_p)),
        ("eraseDamaged", ctypes.c_int),
        ("progress", PROGRESS),
        ("progressContext", ctypes.c_void_p),
        ("mustExist", ctypes.c_int),
        ("readOnly", ctypes.c_int),
    ]


class Blob(ctypes.Structure):
    """BCBlob."""

    _fields_ = [
        ("data", ctypes.c_void_p),
        ("size", ctypes.c_int),
        ("hash", ctypes.c_ubyte * 16),
    ]


class Item(ctypes.Structure):
    """BCFetchItem."""

    _fields_ = [
        ("hash", ctypes.c_ubyte * 16),
        ("buffer", ctypes.c_void_p),
        ("capacity", ctypes.c_int),
        ("size", ctypes.c_int),
        ("result", ctypes.c_int),
    ]


class RawStatistics(ctypes.Structure):
    """BCStatistics."""

    _fields_ = [
        ("size", ctypes.c_uint32),
        ("loaded", ctypes.c_int32),
        ("inDoubt", ctypes.c_int32),
        ("sequence", ctypes.c_int32),
        ("slotCount", ctypes.c_uint32),
        ("largestBlob", ctypes.c_uint32),
        ("blobCount", ctypes.c_uint64),
        ("liveBytes", ctypes.c_uint64),
        ("packBytes", ctypes.c_uint64),
        ("journalBytes", ctypes.c_uint64),
        ("repackedBytes", ctypes.c_uint64),
        ("pendingChanges", ctypes.c_uint64),
        ("damaged", ctypes.c_int32),
        ("readOnly", ctypes.c_int32),
    ]


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL(os.environ.get("BLOBRING_LIBRARY", "libblobring.so.1"))
    number, pointer, text = ctypes.c_int, ctypes.c_void_p, ctypes.c_char_p
    transaction_id = ctypes.POINTER(ctypes.c_longlong)
    signatures: dict[str, tuple[type, ...]] = {
        "BCOpen": (text, ctypes.POINTER(Options)),
        "BCDispose": (number,),
        "BCStartTransaction": (number, transaction_id),
        "BCEndTransaction": (number, transaction_id),
        "BCAbandonTransaction": (number,),
        "BCPutMany": (number, ctypes.POINTER(Blob), number),
        "BCStoreFrom": (number, text, ctypes.c_uint64, PIECE, pointer),
        "BCRead": (number, text, PIECE, pointer),
        "BCDeleteMany": (number, text, number),
        "BCRepack": (number,),
        "BCFetch": (number, text, pointer, number, ctypes.POINTER(number)),
        "BCFetchMany": (number, ctypes.POINTER(Item), number),
        "BCNextHashes": (number, text, text, number),
        "BCCheck": (number,),
        "BCGetStatistics": (number, ctypes.POINTER(RawStatistics)),
        "BCLastError": (number, text, number),
        "BCLastErrorCode": (number,),
    }
    for name, arguments in signatures.items():
        call = getattr(library, name)
        call.argtypes, call.restype = arguments, number
    library.BCVersion.restype = text
    library.BlobringHostSetTraceSink.argtypes = (TRACE_SINK, pointer)
    library.BlobringHostSetTraceSink.restype = None
    return library


calls: Any = _load()
VERSION: str = calls.BCVersion().decode()


def failure(operation: str, index: int) -> errors.Error:
    """Returns the library's last failure on a store; index -1: of a BCOpen on this thread."""
    text = ctypes.create_string_buffer(ERROR_TEXT_CAPACITY)
    calls.BCLastError(index, text, len(text))
    error = errors.BY_CODE.get(calls.BCLastErrorCode(index), errors.Error)
    return error(f"{operation}: {text.value.decode(errors='replace')}")


# ---- Buffers ----


class _PyBuffer(ctypes.Structure):
    """Py_buffer of Python's buffer protocol, version 3."""

    _fields_ = [
        ("buf", ctypes.c_void_p),
        ("obj", ctypes.c_void_p),
        ("len", ctypes.c_ssize_t),
        ("itemsize", ctypes.c_ssize_t),
        ("readonly", ctypes.c_int),
        ("ndim", ctypes.c_int),
        ("format", ctypes.c_char_p),
        ("shape", ctypes.c_void_p),
        ("strides", ctypes.c_void_p),
        ("suboffsets", ctypes.c_void_p),
        ("internal", ctypes.c_void_p),
    ]


_get_buffer = ctypes.pythonapi.PyObject_GetBuffer
_get_buffer.argtypes = (ctypes.py_object, ctypes.POINTER(_PyBuffer), ctypes.c_int)
_release_buffer = ctypes.pythonapi.PyBuffer_Release
_release_buffer.argtypes = (ctypes.POINTER(_PyBuffer),)
_release_buffer.restype = None
_CONTIGUOUS_BYTES = 0  # PyBUF_SIMPLE


@contextmanager
def blobs_at(buffers: list[Buffer]) -> Iterator[Any]:
    """Yields an array of Blob that points into the buffers, which cannot be resized meanwhile.

    ctypes alone would copy a read-only buffer. Raises TypeError for an object that is no buffer,
    BufferError for one that is not contiguous, ArgumentError for one that is too large.
    """
    blobs = (Blob * len(buffers))()
    views: list[_PyBuffer] = []
    try:
        for blob, data in zip(blobs, buffers):
            view = _PyBuffer()
            _get_buffer(data, view, _CONTIGUOUS_BYTES)
            views.append(view)
            if view.len > LARGEST_SIZE:
                raise errors.ArgumentError(f"put: a blob of {view.len} bytes is too large")
            blob.data, blob.size = view.buf, view.len
        yield blobs
    finally:
        for view in views:
            _release_buffer(view)


_new_bytes = ctypes.pythonapi.PyBytes_FromStringAndSize
_new_bytes.argtypes, _new_bytes.restype = (ctypes.c_void_p, ctypes.c_ssize_t), ctypes.py_object
_bytes_at = ctypes.pythonapi.PyBytes_AsString
_bytes_at.argtypes, _bytes_at.restype = (ctypes.py_object,), ctypes.c_void_p


def bytes_to_fill(size: int) -> tuple[bytes, int]:
    """Returns an object that nothing has looked at yet, and the address at which it is filled in.

    Any other way would take the memory of a blob twice.
    """
    data: bytes = _new_bytes(None, size)
    return data, _bytes_at(data)


# ---- Callbacks ----

_thread = threading.local()


def refuse_in_callback() -> None:
    """Raises RefusedError inside a callback.

    The library refuses such a call too. By then, the thread would wait for a lock.
    """
    if getattr(_thread, "in_callback", False):
        raise errors.RefusedError("a callback, such as of progress, must not call a store")


class Callback:
    """Calls a function from the library, keeps what it raises, and raises that at the end.

    The same goes for signal handlers, such as that of Ctrl-C: Python would run them where the
    callback is entered, and nothing there can catch what they raise.
    """

    def __init__(self, kind: Any, step: Callable[..., int], failed: int) -> None:
        """step gets the arguments but for the context; failed is returned once it has raised."""
        self._step, self._failed = step, failed
        self._raised: BaseException | None = None
        self._handlers: dict[int, Any] = {}
        self.callback = kind(self._call)

    def __enter__(self) -> Callback:
        if threading.current_thread() is threading.main_thread():
            for number in signal.valid_signals():
                handler = signal.getsignal(number)
                if callable(handler):
                    self._handlers[number] = handler
                    signal.signal(number, self._handle)
        return self

    def __exit__(self, *_: object) -> None:
        for number, handler in self._handlers.items():
            signal.signal(number, handler)
        if self._raised is not None:
            raise self._raised

    def _handle(self, number: int, frame: FrameType | None) -> None:
        try:
            self._handlers[number](number, frame)
        except BaseException as raised:
            self._raised = raised

    def _call(self, _context: int | None, *arguments: int) -> int:
        result = self._failed
        try:
            _thread.in_callback = True
            if self._raised is None:
                result = self._step(*arguments)
        except BaseException as raised:
            self._raised = raised
        finally:
            _thread.in_callback = False
        return result if self._raised is None else self._failed


@contextmanager
def watch(progress: Callable[[int, int], object] | None) -> Iterator[None]:
    """Reports what this thread's calls have done to a progress function, if there is one."""

    def step(_operation: int, done: int, total: int) -> int:
        if progress is not None:
            progress(done, total)
        return 0

    with Callback(PROGRESS, step, 1) as callback:
        _thread.watch = callback
        try:
            yield
        finally:
            _thread.watch = None


# That of every store: checks may run in several threads.
def _progress(context: int | None, operation: int, done: int, total: int) -> int:
    watching: Callback | None = getattr(_thread, "watch", None)
    return 0 if watching is None else watching._call(context, operation, done, total)


progress_of_thread = PROGRESS(_progress)


def sink(write: Callable[[bytes], int | None]) -> Callback:
    """Hands pieces to the write of a binary file, which may take them bit by bit."""

    def step(data: int, size: int) -> int:
        piece = ctypes.string_at(data, size)
        while piece:
            written = write(piece)
            if written is None:
                raise BlockingIOError("the file takes nothing at the moment")
            piece = piece[written:]
        return 0

    return Callback(PIECE, step, 1)


def source(read: Callable[[int], bytes | None]) -> Callback:
    """Takes pieces from the read of a binary file."""

    def step(buffer: int, capacity: int) -> int:
        piece = read(capacity)
        if piece is None:
            raise BlockingIOError("the file has nothing at the moment")
        if len(piece) <= capacity:
            ctypes.memmove(buffer, piece, len(piece))
        return len(piece)

    return Callback(PIECE, step, -1)


# ---- Messages ----

_logger = logging.getLogger("blobring")
_logger.addHandler(logging.NullHandler())
_HOST_ERROR = 1


def _log(_context: int | None, level: int, source: bytes, text: bytes) -> None:
    _logger.log(
        logging.ERROR if level == _HOST_ERROR else logging.WARNING,
        "%s: %s",
        source.decode(errors="replace"),
        text.decode(errors="replace"),
    )


_sink = TRACE_SINK(_log)
calls.BlobringHostSetTraceSink(_sink, None)
# The library may report something after the interpreter has ended.
atexit.register(calls.BlobringHostSetTraceSink, TRACE_SINK(0), None)
