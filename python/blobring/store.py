"""A store, open."""

from __future__ import annotations

import ctypes
import hashlib
import inspect
import mmap
import os
import sys
import threading
import traceback
import warnings
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from contextlib import contextmanager, suppress
from itertools import accumulate, islice
from types import FrameType
from typing import BinaryIO, NamedTuple

from blobring import _library, errors
from blobring._library import Buffer, calls, failure
from blobring.hash import Hash

_Path = str | bytes | os.PathLike[str] | os.PathLike[bytes]
_Progress = Callable[[int, int], object]

# put_many hands over at most this many blobs or bytes at a time.
_BATCH_COUNT = 256
_BATCH_BYTES = 4 * 1024 * 1024

_unclosed: list[int] = []  # stores that were collected while open


def _close_collected() -> None:
    _library.refuse_in_callback()
    with suppress(IndexError):
        while True:
            calls.BCDispose(_unclosed.pop())


# A function of these kinds can stop in the middle of a with block while its thread runs other code.
_SUSPENDABLE = inspect.CO_GENERATOR | inspect.CO_COROUTINE | inspect.CO_ASYNC_GENERATOR


def _stack() -> list[FrameType]:
    """Returns the frames of this thread, innermost first, beginning with the caller's caller."""
    return [frame for frame, _ in traceback.walk_stack(sys._getframe(2))]


def _owner() -> FrameType:
    """Returns a frame that is on the stack if and only if the with block being entered is running.

    That is the innermost generator or coroutine. Those that contextlib runs to enter the block do
    not count. Without any, nothing can suspend the block, and the outermost frame will do.
    """
    stack = _stack()
    for frame, caller in zip(stack, stack[1:]):
        modules = (frame.f_globals.get("__name__"), caller.f_globals.get("__name__"))
        if frame.f_code.co_flags & _SUSPENDABLE and "contextlib" not in modules:
            return frame
    return stack[-1]


class Statistics(NamedTuple):
    """A store at one moment. Sizes are bytes."""

    loaded: bool
    """False once the library has closed the store, after a repack that failed."""
    in_doubt: bool
    """A flush has failed; the store accepts no change."""
    sequence: int
    """Generation of the pack, counting repacks; -1 without a pack."""
    slot_count: int
    largest_blob: int
    blob_count: int
    live_bytes: int
    """Data of all committed blobs."""
    pack_bytes: int
    """Current pack."""
    journal_bytes: int
    """Current journal, pending changes included."""
    repacked_bytes: int
    """The pack that a repack would write."""
    pending_changes: int
    """Changes since the last commit."""
    damaged: bool
    """The load has met damage."""
    read_only: bool


class Store(Mapping[Hash, bytes]):
    """An open store: a mapping from hashes to blobs, and a context manager that closes it.

    The mapping has the committed blobs, in ascending order of their hashes. A key is a Hash or
    16 bytes; anything else raises TypeError or ValueError. Reading a blob checks it against its
    hash. Two stores are equal if they are the same object.

    A change outside a transaction commits at once, which costs a flush.

    Threads: any thread may use a store. Reads and checks run beside each other and beside a change;
    changes wait for another thread's transaction or repack, and close() for the calls in progress.
    Tasks of one event loop cannot wait for each other like that: see transaction().
    A progress callback, the methods of a file that a store reads or writes, and a signal handler
    must not use a store.
    Processes: one process at a time has a store open. In a child of fork it can be read and closed;
    every change raises RefusedError.
    """

    _index: int | None = None  # None: not open

    def __init__(
        self,
        directory: _Path,
        *,
        slots: int = 0,
        pack_directories: Sequence[_Path] = (),
        erase_damaged: bool = False,
        must_exist: bool = False,
        read_only: bool = False,
        progress: _Progress | None = None,
    ) -> None:
        """Opens the store in an existing directory, or creates its files there.

        slots: how many the store has, the same at each opening. By default one for each of the
            pack_directories; without them those of its blobring.conf, or else two.
        pack_directories: where the packs are, in the order of their slots, at each opening.
        erase_damaged: erase a store that cannot be read. This opening raises an Error, and the
            next one starts empty. By default, what cannot be read is renamed, and
            Statistics.damaged is set.
        must_exist: raise NoStoreError instead of creating a store.
        read_only: never write. Implies must_exist; every change raises ReadOnlyError.
        progress: called with the bytes done and the bytes in all, of the pack and then of the
            journal. What it raises is raised once the store has been loaded and closed again.

        Raises HeldError, after half a second, when the store is open elsewhere; ArgumentError or
        RefusedError when the options contradict the store or one of its files is missing.
        """
        self.directory = os.fsdecode(directory)
        packs = [_path(pack) for pack in pack_directories]
        if packs and slots not in (0, len(packs)):
            raise errors.ArgumentError(f"open: {slots} slots, {len(packs)} pack directories")
        if not 0 <= slots < 2**32:
            raise errors.ArgumentError(f"open: {slots} slots")
        options = _library.Options(
            size=ctypes.sizeof(_library.Options),
            slotCount=len(packs) or slots,
            packDirs=(ctypes.c_char_p * len(packs))(*packs) if packs else None,
            eraseDamaged=erase_damaged,
            mustExist=must_exist,
            readOnly=read_only,
        )
        self._changing = threading.Lock()  # held by a transaction and by a repack
        self._changer: int | None = None  # the thread that holds it
        self._owner: FrameType | None = None  # whose changes belong to the transaction
        try:
            _close_collected()
            with _library.watch(progress):
                options.progress = _library.progress_of_thread
                index = calls.BCOpen(_path(directory), options)
                if index < 0:
                    raise failure(f"open {self.directory}", -1)
                self._index = index
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        """Closes the store. Changes that are not committed are lost; closing again does nothing.

        Every later use raises ClosedError, in other threads as well; what they have begun ends
        before.
        """
        _close_collected()
        index, self._index = self._index, None
        if index is not None:
            calls.BCDispose(index)

    def __enter__(self) -> Store:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        # May run in the middle of any call, where locks must not be waited for.
        if self._index is not None:
            _unclosed.append(self._index)
            warnings.warn(f"unclosed {self!r}", ResourceWarning, source=self)

    def __repr__(self) -> str:
        return f"<blobring.Store {self.directory!r}{'' if self._index is not None else ', closed'}>"

    __eq__ = object.__eq__
    __hash__ = object.__hash__

    # ---- Reading ----

    def __getitem__(self, key: bytes) -> bytes:
        """Returns a committed blob. Raises KeyError when it is absent, DamagedError when it is not
        what its hash says.
        """
        with self._use() as index:
            data, to = _library.bytes_to_fill(self._size(index, key))
            result = calls.BCFetch(index, key, to, len(data), ctypes.c_int())
            self._require("get", index, key, result == _library.FETCHED, result)
        return data

    def get_many(self, keys: Iterable[bytes]) -> Iterator[bytes | None]:
        """Yields the blobs in the order of the keys, None for an absent one. Faster than get.

        Reads up to 256 blobs or, beyond the first, 4 MiB at a time. Raises DamagedError at a blob
        that is not what its hash says, after those before it.
        """
        rest, waiting = iter(keys), list[bytes]()
        while waiting := waiting + list(islice(rest, _BATCH_COUNT - len(waiting))):
            with self._use() as index:
                items = (_library.Item * len(waiting))()
                for item, key in zip(items, waiting):
                    item.hash[:] = self._key(key)
                calls.BCFetchMany(index, items, len(items))  # finds the sizes
                ends = accumulate(item.size for item in items)
                count = max(1, sum(end <= _BATCH_BYTES for end in ends))
                blobs = [_library.bytes_to_fill(item.size) for item in items[:count]]
                for item, (_, to) in zip(items, blobs):
                    item.buffer, item.capacity = to, item.size
                calls.BCFetchMany(index, items, count)
                failures = [
                    failure(f"get {key.hex()}", index)
                    for item, key in zip(items[:count], waiting)
                    if item.result == _library.FAILED
                ]
            for item, (blob, _) in zip(items, blobs):
                if item.result == _library.FAILED:
                    raise failures[0]
                yield blob if item.result == _library.FETCHED else None
            waiting = waiting[count:]

    def copy_to(self, key: bytes, file: BinaryIO) -> int:
        """Writes a committed blob to a binary file and returns its size. Takes 64 KiB of memory,
        however large the blob is.

        Raises KeyError when the blob is absent, before anything is written; DamagedError when it
        is not what its hash says, by when all but its last bytes may have been written; and what
        the file raises.
        """
        with self._use() as index, _library.sink(file.write) as sink:
            size = self._size(index, key)
            result = calls.BCRead(index, key, sink.callback, None)
            self._require("copy", index, key, result in (_library.FETCHED, _library.STOPPED), result)
        return size

    def read_into(self, key: bytes, buffer: bytearray | memoryview | mmap.mmap) -> int:
        """Reads a committed blob into a writable buffer and returns its size.

        Raises KeyError when the blob is absent, ArgumentError when it is larger than the buffer,
        DamagedError when it is not what its hash says; the buffer's contents are then undefined.
        """
        with memoryview(buffer).cast("B") as view, self._use() as index:
            size = self._size(index, key)
            if size > len(view):
                raise errors.ArgumentError(f"read {key.hex()}: {size} bytes into {len(view)}")
            to = (ctypes.c_char * len(view)).from_buffer(view)
            result = calls.BCFetch(index, key, ctypes.addressof(to), size, ctypes.c_int())
            del to
            self._require("read", index, key, result == _library.FETCHED, result)
        return size

    def size(self, key: bytes) -> int:
        """Returns the bytes of a committed blob, without reading it. Raises KeyError."""
        with self._use() as index:
            return self._size(index, key)

    def __contains__(self, key: object) -> bool:
        try:
            self.size(key)  # type: ignore[arg-type]  # which _size checks
        except KeyError:
            return False
        return True

    def __len__(self) -> int:
        """Walks the index: about 10 ms for 100,000 blobs."""
        statistics = self.statistics()
        if not statistics.loaded:
            raise errors.ClosedError("len: the store is not loaded")
        return statistics.blob_count

    def __iter__(self) -> Iterator[Hash]:
        """Yields the hashes in ascending order.

        They are obtained a few hundred at a time. The store may change meanwhile; the iterator may
        not notice.
        """
        after: bytes | None = None
        found = ctypes.create_string_buffer(_BATCH_COUNT * Hash.SIZE)
        while True:
            with self._use() as index:
                count = calls.BCNextHashes(index, after, found, _BATCH_COUNT)
                if count < 0:
                    raise failure("iterate", index)
            hashes = found.raw[: count * Hash.SIZE]
            for at in range(0, len(hashes), Hash.SIZE):
                yield Hash(hashes[at : at + Hash.SIZE])
            if not hashes:
                return
            after = hashes[-Hash.SIZE :]

    def statistics(self) -> Statistics:
        """Returns figures of the store. Walks the index, as len() does."""
        raw = _library.RawStatistics(size=ctypes.sizeof(_library.RawStatistics))
        with self._use() as index:
            if calls.BCGetStatistics(index, raw) != 1:
                raise failure("statistics", index)
        return Statistics(
            loaded=bool(raw.loaded),
            in_doubt=bool(raw.inDoubt),
            sequence=raw.sequence,
            slot_count=raw.slotCount,
            largest_blob=raw.largestBlob,
            blob_count=raw.blobCount,
            live_bytes=raw.liveBytes,
            pack_bytes=raw.packBytes,
            journal_bytes=raw.journalBytes,
            repacked_bytes=raw.repackedBytes,
            pending_changes=raw.pendingChanges,
            damaged=bool(raw.damaged),
            read_only=bool(raw.readOnly),
        )

    # ---- Changing ----

    @contextmanager
    def transaction(self, id: int = 0) -> Iterator[Store]:
        """Commits the changes of a with block together, or abandons them when it raises.

        id: any signed number of 64 bits. It is kept with the blobs, and a repack orders them by it.

        Once the block has ended, its changes survive a power cut; a power cut before that leaves
        all of them or none. Reads see the committed blobs alone, in the block too. When the
        commit itself fails, the changes are abandoned, and after InDoubtError they may be
        committed or not.

        The transaction has the changes that its block makes, and what the block calls. Meanwhile
        other changes in the same thread raise RefusedError, since waiting would block the thread:
        those of another task of the event loop, and those made while a generator is suspended that
        has yielded in the block. So do repack() and another transaction() in the block.
        """
        if not -(2**63) <= id < 2**63:
            raise errors.ArgumentError(f"transaction: {id} has more than 64 bits")
        number = ctypes.c_longlong(id)
        with self._turn():
            with self._use() as index:
                if calls.BCStartTransaction(index, number) != 1:
                    raise failure("transaction", index)
            self._owner = _owner()
            try:
                yield self
                with self._use() as index:
                    if calls.BCEndTransaction(index, number) != 1:
                        raise failure("commit", index)
            except BaseException:
                if self._index is not None:
                    calls.BCAbandonTransaction(self._index)
                raise

    def put(self, data: Buffer) -> Hash:
        """Stores a blob and returns its hash. One that is present is not written again, unless a
        read or a check has found it damaged.

        data: any contiguous buffer below 2 GiB. It is not copied in Python, and must not change
        during the call. After an Error, an open transaction goes on without the blob.
        """
        return self.put_many((data,))[0]

    def put_from(self, file: BinaryIO) -> Hash:
        """Stores the rest of a binary file as a blob and returns its hash. Takes a few MiB of
        memory, however large the file is.

        Reads the file twice, first for the hash, so it must be able to seek. Raises ArgumentError
        when it has other bytes the second time, and what the file raises. An open transaction
        then goes on without the blob.
        """
        start, md5 = file.tell(), hashlib.md5(usedforsecurity=False)
        while piece := file.read(_BATCH_BYTES):
            md5.update(piece)
        key, size = Hash(md5.digest()), file.tell() - start
        file.seek(start)
        with self._change(), self._use() as index, _library.source(file.read) as source:
            if calls.BCStoreFrom(index, key, size, source.callback, None) != 1:
                raise failure("put", index)
        file.seek(start + size)
        return key

    def put_many(self, blobs: Iterable[Buffer]) -> list[Hash]:
        """Stores blobs, all or none of them, and returns their hashes. Faster than put for each.

        In an open transaction, the blobs before one that fails are pending like other changes. An
        iterator is read in steps of 256 blobs or 4 MiB, so that not all must be in memory.
        """
        with self._change():
            hashes: list[Hash] = []
            batch: list[Buffer] = []
            waiting = 0
            for data in blobs:
                batch.append(data)
                waiting += memoryview(data).nbytes
                if len(batch) == _BATCH_COUNT or waiting >= _BATCH_BYTES:
                    hashes += self._put(batch)
                    batch, waiting = [], 0
            if batch:
                hashes += self._put(batch)
        return hashes

    def __delitem__(self, key: bytes) -> None:
        """Deletes a committed blob. Raises KeyError when it is absent."""
        with self._change(), self._use() as index:
            self._size(index, key)
            self._delete(index, [key])

    def discard(self, key: bytes) -> None:
        """Deletes a blob if it is present, pending changes included."""
        self.discard_many((key,))

    def discard_many(self, keys: Iterable[bytes]) -> None:
        """Deletes those blobs that are present, all or none of them. Faster than discard for each.

        In an open transaction, the deletions before one that fails are pending like other changes.
        """
        hashes = [Hash(key) for key in keys]
        with self._change(), self._use() as index:
            self._delete(index, hashes)

    # ---- Maintaining ----

    def check(self, progress: _Progress | None = None) -> None:
        """Reads every blob and checks it against its hash. Changes nothing.

        Raises DamagedError with the first faults; the logger "blobring" gets all of them. progress
        is called with the blobs done and the blobs in all. To stop, raise an exception from it, or
        press Ctrl-C.
        """
        with self._use() as index:
            with _library.watch(progress):
                result = calls.BCCheck(index)
            if result == _library.CHECK_FAULTY:
                raise errors.DamagedError(str(failure("check", index)))
            if result != _library.CHECK_SOUND:
                raise failure("check", index)

    def repack(self, progress: _Progress | None = None) -> None:
        """Copies every blob into the next slot, which frees the space of deleted ones.

        progress is as for check; a repack that it stops leaves the store as it was. After an Error
        the store is as it was, or the library has closed it; Statistics.loaded tells. It is closed
        only when the repack failed, and its files hold what they held before.
        """
        with self._turn(), self._use() as index:
            with _library.watch(progress):
                result = calls.BCRepack(index)
            if result != 1:
                raise failure("repack", index)

    # ---- One call ----

    @contextmanager
    def _use(self) -> Iterator[int]:
        """Yields the index."""
        _library.refuse_in_callback()
        index = self._index
        if index is None:
            raise errors.ClosedError("the store is closed")
        try:
            yield index
        except errors.Error as error:
            if self._index is None:
                raise errors.ClosedError("the store was closed by another thread") from error
            raise

    @contextmanager
    def _turn(self) -> Iterator[None]:
        """Waits until no other thread has a transaction or repack; refuses if this one has."""
        with self._use():
            if self._changer == threading.get_ident():
                raise errors.RefusedError(
                    "a transaction is open in this thread; it takes the changes of its block alone"
                )
        with self._changing:
            self._changer = threading.get_ident()
            try:
                yield
            finally:
                self._changer = self._owner = None

    @contextmanager
    def _change(self) -> Iterator[None]:
        """The transaction whose block is running, or else one that nothing else can join."""
        if self._changer == threading.get_ident() and self._owner in _stack():
            yield
        else:
            with self.transaction():
                self._owner = None
                yield

    def _put(self, batch: list[Buffer]) -> list[Hash]:
        with _library.blobs_at(batch) as blobs, self._use() as index:
            if calls.BCPutMany(index, blobs, len(blobs)) != len(blobs):
                raise failure("put", index)
            return [Hash(blob.hash) for blob in blobs]

    @staticmethod
    def _delete(index: int, keys: Sequence[bytes]) -> None:
        deleted = calls.BCDeleteMany(index, b"".join(keys), len(keys))
        if deleted != len(keys):
            raise failure(f"delete {keys[deleted].hex()}", index)

    @staticmethod
    def _key(key: bytes) -> Hash:
        if not isinstance(key, bytes):
            raise TypeError(f"a key is a Hash or bytes, not {type(key).__name__}")
        return Hash(key)

    def _size(self, index: int, key: bytes) -> int:
        size = ctypes.c_int()
        result = calls.BCFetch(index, self._key(key), None, 0, size)
        found = result in (_library.FETCHED, _library.TOO_SMALL)
        self._require("size of", index, key, found, result)
        return size.value

    def _require(self, operation: str, index: int, key: bytes, good: bool, result: int) -> None:
        """Raises what a result that is not good stands for. The blob may be gone since its size
        was asked for.
        """
        if result == _library.NOT_FOUND:
            absent = KeyError(Hash(key))
            if self._changer == threading.get_ident():
                absent.add_note("absent, or put in the open transaction and not committed yet")
            raise absent
        if not good:
            raise failure(f"{operation} {key.hex()}", index)


def _path(path: _Path) -> bytes:
    name = os.fsencode(path)
    if b"\0" in name:  # would end the path early
        raise ValueError("open: a path must not contain a null byte")
    return name
