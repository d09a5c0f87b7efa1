"""A content-addressed store of blobs on a local file system.

A blob is any bytes-like object. Its key is a Hash, the MD5 digest of its
contents.

    with blobring.Store("store") as store:
        key = store.put(b"hello")      # from here on it survives a power cut
        assert store[key] == b"hello"
        with store.transaction():      # all of it, or none
            store.put(b"one")
            store.put(b"two")

Whatever goes wrong raises an Error or one of its subclasses. A store is used
by one thread at a time: calls of others wait. One process at a time has a
store open. In a child of fork, changes to a store of the parent's are refused.
"""

from __future__ import annotations

import contextlib
import ctypes
import enum
import os
import threading
from collections.abc import Callable, Iterable, Iterator, Mapping
from types import TracebackType
from typing import NamedTuple, Union

from blobring import _calls

__all__ = [
    "ArgumentError", "Buffer", "Checked", "ClosedError", "DamagedError", "Error", "FullError", "Hash", "HeldError",
    "InDoubtError", "IOFailure", "NoMemoryError", "NoStoreError", "Operation", "Progress", "ReadOnlyError",
    "RefusedError", "Statistics", "Store", "version",
]

Buffer = Union[bytes, bytearray, memoryview]
_c = _calls.library
_MOST = 2**31 - 1  # what an int of the calls holds


class Error(Exception):
    """What the store said. `code` is one of BLOBRING_ERROR_ in blobring.h."""

    code = 0


class HeldError(Error):
    """Another process, or another Store, has the store open."""


class FullError(Error):
    """The disk, a quota, or a file at its limit is full. What was committed is safe."""


class DamagedError(Error):
    """Bytes on disk are not what a store wrote."""


class InDoubtError(Error):
    """A flush has failed: whether the commit took place shows when the store is opened again."""


class ClosedError(Error):
    """The store is closed or not loaded."""


class NoStoreError(Error):
    """There is no store."""


class ArgumentError(Error, ValueError):
    """An argument that makes no sense, or contradicts the store's layout."""


class IOFailure(Error, OSError):
    """The system refused a call."""


class NoMemoryError(Error, MemoryError):
    """There is no memory."""


class ReadOnlyError(Error):
    """A change to a store that was opened read-only."""


class RefusedError(Error):
    """Not possible now; the text says why."""


_ERRORS: tuple[type[Error], ...] = (
    Error, HeldError, FullError, DamagedError, InDoubtError, ClosedError, NoStoreError, ArgumentError, IOFailure,
    NoMemoryError, ReadOnlyError, RefusedError,
)


def _failure(index: int) -> Error:
    code = _c.BCLastErrorCode(index)
    text = ctypes.create_string_buffer(1024)
    _c.BCLastError(index, text, len(text))
    error = _ERRORS[code if code < len(_ERRORS) else 0](text.value.decode(errors="replace"))
    error.code = code
    return error


class Hash(bytes):
    """The 16 bytes of an MD5 digest. Ordered and hashable as bytes are; str() has 32 hexadecimal digits."""

    def __new__(cls, value: Buffer | str) -> Hash:
        """Takes 16 bytes, or their 32 hexadecimal digits. Raises ValueError for anything else."""
        raw = bytes.fromhex(value) if isinstance(value, str) else bytes(value)
        if len(raw) != _calls.HASH_SIZE:
            raise ValueError(f"a hash has 16 bytes, not {len(raw)}")
        return super().__new__(cls, raw)

    @classmethod
    def of(cls, data: Buffer) -> Hash:
        """The hash of a blob."""
        with _bytes_of(data) as (address, size):
            digest = ctypes.create_string_buffer(_calls.HASH_SIZE)
            if _c.BCMD5ChkSumInt(address, size, digest) != 1:
                raise _failure(-1)
            return cls(digest.raw)

    def __str__(self) -> str:
        return self.hex()

    def __repr__(self) -> str:
        return f"Hash('{self.hex()}')"


@contextlib.contextmanager
def _bytes_of(data: Buffer) -> Iterator[tuple[int | None, int]]:
    """Address and size of the data; nothing is copied unless it is writable memory that ctypes cannot borrow."""
    with memoryview(data) as view:
        if not view.contiguous:
            raise ValueError("a blob must be contiguous in memory")
        if view.nbytes > _MOST:
            raise ArgumentError(f"a blob of {view.nbytes} bytes is too large")
        if view.nbytes == 0:
            yield None, 0
        elif view.readonly:
            holder = ctypes.c_char_p(view.obj if isinstance(view.obj, bytes) and len(view.obj) == view.nbytes
                                     else view.tobytes())
            yield ctypes.cast(holder, ctypes.c_void_p).value, view.nbytes
        else:
            yield ctypes.addressof(ctypes.c_char.from_buffer(view)), view.nbytes


class Operation(enum.IntEnum):
    """What a progress callback is told of. A load counts bytes, the others blobs."""

    LOADING = 1
    CHECKING = 2
    REPACKING = 3


Progress = Callable[[Operation, int, int], Union[bool, None]]
"""progress(operation, done, total). Returning False stops a check or repack, as does an exception, which is raised
again from there. A load goes on to its end."""


class Checked(enum.Enum):
    """Result of a check."""

    SOUND = "sound"
    FAULTY = "faulty"
    STOPPED = "stopped"


class Statistics(NamedTuple):
    """A store at one moment; sizes are bytes."""

    sequence: int  # generation of the pack, counting repacks
    slots: int
    blobs: int
    live_bytes: int  # data of all blobs
    pack_bytes: int
    journal_bytes: int  # pending changes included
    repacked_bytes: int  # the pack that a repack would write
    pending_changes: int
    largest_blob: int
    damaged: bool  # the load has met damage
    read_only: bool
    in_doubt: bool  # no change is accepted, see InDoubtError


class _Watch:
    """A progress callback for C, which no exception may leave."""

    def __init__(self, progress: Progress | None) -> None:
        self._progress = progress
        self._thrown: BaseException | None = None
        self.stopped = False
        self.call = _calls.PROGRESS(self._run) if progress else _calls.PROGRESS()

    def _run(self, _context: object, operation: int, done: int, total: int) -> int:
        if self._thrown is None and self._progress is not None:
            try:
                self.stopped = self._progress(Operation(operation), done, total) is False
            except BaseException as error:
                self._thrown = error
                self.stopped = True
        return int(self.stopped)

    def raise_again(self) -> None:
        if self._thrown is not None:
            raise self._thrown


class Store(Mapping[Hash, bytes]):
    """An open store: a mapping from hashes to blobs, and a context manager that closes it.

    Keys may be given as Hash, as 16 bytes, or as 32 hexadecimal digits. Iteration goes over the committed hashes in
    ascending order; the store may change meanwhile.
    """

    def __init__(self, directory: str | os.PathLike[str], *, slots: int = 0,
                 pack_directories: Iterable[str | os.PathLike[str]] = (), read_only: bool = False,
                 must_exist: bool = False, erase_damaged: bool = False, progress: Progress | None = None) -> None:
        """Opens the store in an existing directory, or makes its files there.

        slots: 0 for those that the store has; a new one has two, or one for each pack directory.
        read_only: never writes; implies must_exist. erase_damaged: a store that cannot be read is emptied.
        """
        self._lock = threading.RLock()
        self._index = -1
        self._open_transaction = False
        packs = [os.fsencode(pack) for pack in pack_directories]
        if packs and slots not in (0, len(packs)):
            raise ArgumentError(f"{len(packs)} pack directories for {slots} slots")
        watch = _Watch(progress)
        options = _calls.Options(
            ctypes.sizeof(_calls.Options), len(packs) or slots, (ctypes.c_char_p * len(packs))(*packs) if packs else None,
            erase_damaged, watch.call, None, must_exist, read_only)
        index = _c.BCOpen(os.fsencode(directory), ctypes.byref(options))
        if index < 0:
            watch.raise_again()
            raise _failure(-1)
        if progress:
            _c.BCSetProgress(index, _calls.PROGRESS(), None)
        self._index = index
        try:
            watch.raise_again()
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        """Closes the store and abandons what is pending. Later calls raise ClosedError; closing again is allowed."""
        with self._lock:
            index, self._index = self._index, -1
            self._open_transaction = False
            if index >= 0:
                _c.BCDispose(index)

    def __enter__(self) -> Store:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_lock"):
            self.close()

    # Reading.

    def __getitem__(self, key: Hash | Buffer | str) -> bytes:
        """The blob, compared with its hash. Raises KeyError when there is none, DamagedError when it is not whole."""
        key = Hash(key)
        with self._entered() as index:
            size = self._size(index, key)
            if size is None:
                raise KeyError(key)
            data = ctypes.create_string_buffer(max(size, 1))
            if _c.BCFetch(index, key, data, size, ctypes.byref(ctypes.c_int())) != _calls.FETCHED:
                raise _failure(index)
            return data.raw[:size]

    def size(self, key: Hash | Buffer | str) -> int | None:
        """Bytes of a committed blob; None when there is none. Reads no file."""
        with self._entered() as index:
            return self._size(index, Hash(key))

    def __contains__(self, key: object) -> bool:
        return isinstance(key, (str, bytes, bytearray, memoryview)) and self.size(key) is not None

    def __iter__(self) -> Iterator[Hash]:
        after: bytes | None = None
        found = ctypes.create_string_buffer(_calls.HASH_SIZE)
        while True:
            with self._entered() as index:
                result = _c.BCNextHash(index, after, found)
                if result < 0:
                    raise _failure(index)
            if result == 0:
                return
            after = found.raw
            yield Hash(after)

    def __len__(self) -> int:
        return self.statistics().blobs

    def __bool__(self) -> bool:
        return True

    __eq__ = object.__eq__
    __hash__ = object.__hash__

    def statistics(self) -> Statistics:
        raw = _calls.Statistics(ctypes.sizeof(_calls.Statistics))
        with self._entered() as index:
            if _c.BCGetStatistics(index, ctypes.byref(raw)) != 1:
                raise _failure(index)
        return Statistics(raw.sequence, raw.slotCount, raw.blobCount, raw.liveBytes, raw.packBytes, raw.journalBytes,
                          raw.repackedBytes, raw.pendingChanges, raw.largestBlob, bool(raw.damaged),
                          bool(raw.readOnly), bool(raw.inDoubt))

    # Changing.

    @contextlib.contextmanager
    def transaction(self, transaction_id: int = 0) -> Iterator[Store]:
        """Commits the changes of its block together, or none of them if an exception leaves it.

        One at a time. Once the block has ended they survive a power cut. The id, 64 bits and signed, is kept with the
        blobs; a repack orders them by it. If the commit fails, it raises and the changes are abandoned.
        """
        number = ctypes.byref(ctypes.c_longlong(transaction_id))
        with self._entered() as index:
            if self._open_transaction:
                raise RefusedError("a transaction is open already")
            if _c.BCStartTransaction(index, number) != 1:
                raise _failure(index)
            self._open_transaction = True
            try:
                yield self
                with self._entered() as still:
                    if _c.BCEndTransaction(still, number) != 1:
                        raise _failure(still)
            except BaseException:
                if self._index == index:
                    _c.BCAbandonTransaction(index)
                raise
            finally:
                self._open_transaction = False

    def put(self, data: Buffer) -> Hash:
        """Stores a blob and returns its hash; at once, or with the transaction that is open."""
        with self._changing() as index, _bytes_of(data) as (address, size):
            digest = ctypes.create_string_buffer(_calls.HASH_SIZE)
            if _c.BCPut(index, address, size, digest) != 1:
                raise _failure(index)
        return Hash(digest.raw)

    def put_many(self, blobs: Iterable[Buffer]) -> list[Hash]:
        """Stores blobs together and returns their hashes: many are digested at a time. All are in memory at once."""
        with self._changing() as index, contextlib.ExitStack() as held:
            places = [held.enter_context(_bytes_of(blob)) for blob in blobs]
            raw = (_calls.Blob * len(places))(*(_calls.Blob(*place) for place in places))
            if _c.BCPutMany(index, raw, len(places)) != len(places):
                raise _failure(index)
            return [Hash(bytes(blob.hash)) for blob in raw]

    def delete(self, key: Hash | Buffer | str) -> bool:
        """Deletes a blob, as put() stores one. Returns whether it was there."""
        key = Hash(key)
        with self._changing() as index:
            present = self._size(index, key) is not None
            if _c.BCDelete(index, key) != 1:
                raise _failure(index)
        return present

    def __delitem__(self, key: Hash | Buffer | str) -> None:
        if not self.delete(key):
            raise KeyError(Hash(key))

    def repack(self, progress: Progress | None = None) -> bool:
        """Copies all blobs into the next slot, which frees the space of deleted ones.

        Returns False when progress stopped it; the store is then as it was.
        """
        with self._watched(progress) as (index, watch):
            if _c.BCRepack(index) == 1:
                return True
            if not watch.stopped:
                raise _failure(index)
        return False

    def check(self, progress: Progress | None = None) -> Checked:
        """Reads every blob and compares it with its hash. Faults go to the library's trace."""
        with self._watched(progress) as (index, _):
            result = _c.BCCheck(index)
            if result == _calls.CHECK_FAILED:
                raise _failure(index)
        if result == _calls.CHECK_STOPPED:
            return Checked.STOPPED
        return Checked.SOUND if result == _calls.CHECK_SOUND else Checked.FAULTY

    # Inside.

    @contextlib.contextmanager
    def _entered(self) -> Iterator[int]:
        with self._lock:
            if self._index < 0:
                raise ClosedError("the store is closed")
            yield self._index

    @contextlib.contextmanager
    def _changing(self) -> Iterator[int]:
        """A transaction of its own unless one is open."""
        with self._entered() as index:
            if self._open_transaction:
                yield index
                return
            with self.transaction():
                yield index

    @contextlib.contextmanager
    def _watched(self, progress: Progress | None) -> Iterator[tuple[int, _Watch]]:
        watch = _Watch(progress)
        with self._entered() as index:
            if progress:
                _c.BCSetProgress(index, watch.call, None)
            try:
                yield index, watch
            finally:
                if progress and self._index == index:
                    _c.BCSetProgress(index, _calls.PROGRESS(), None)
        watch.raise_again()

    @staticmethod
    def _size(index: int, key: Hash) -> int | None:
        size = ctypes.c_int()
        result = _c.BCFetch(index, key, None, 0, ctypes.byref(size))
        if result == _calls.NOT_FOUND:
            return None
        if result not in (_calls.FETCHED, _calls.TOO_SMALL):
            raise _failure(index)
        return size.value


def version() -> str:
    """The library's version, such as "1.0.0"."""
    text: bytes = _c.BCVersion()
    return text.decode()
