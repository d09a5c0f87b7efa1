#!/usr/bin/env python3
"""Blobring from Python, with nothing but ctypes.

    blobs.py STORE put FILE...   stores files and prints their hashes
    blobs.py STORE get HASH      writes a blob to standard output
    blobs.py STORE list          prints every hash with its size

STORE is a directory. The library is found as libblobring.so.1, or where the
environment's BLOBRING_LIBRARY says.
"""

import ctypes
import os
import sys

HASH_SIZE = 16
FETCHED, NOT_FOUND, FAILED, TOO_SMALL = range(4)


class Error(Exception):
    """What the store said."""


class Store:
    """An open store; also a context manager, which closes it."""

    def __init__(self, directory, library=os.environ.get("BLOBRING_LIBRARY", "libblobring.so.1")):
        self._calls = ctypes.CDLL(library)
        self._index = self._calls.BCOpen(os.fsencode(directory), None)
        if self._index < 0:
            raise self._error()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self._calls.BCDispose(self._index)

    def put(self, blobs):
        """Stores some bytes objects in one transaction, all or none; returns their hashes."""
        number = ctypes.byref(ctypes.c_longlong(1))
        self._require(self._calls.BCStartTransaction(self._index, number) == 1)
        try:
            hashes = [self._put(blob) for blob in blobs]
            self._require(self._calls.BCEndTransaction(self._index, number) == 1)
        except BaseException:
            self._calls.BCAbandonTransaction(self._index)
            raise
        return hashes

    def get(self, key):
        """The blob of a hash, None when there is none."""
        size = self.size(key)
        if size is None:
            return None
        data = ctypes.create_string_buffer(max(size, 1))
        self._require(self._fetch(key, data, size)[0] == FETCHED)
        return data.raw[:size]

    def size(self, key):
        """Bytes of a blob, None when there is none."""
        result, size = self._fetch(key, None, 0)
        if result == NOT_FOUND:
            return None
        self._require(result in (FETCHED, TOO_SMALL))
        return size

    def __iter__(self):
        """The hashes in ascending order."""
        after, key = None, ctypes.create_string_buffer(HASH_SIZE)
        while True:
            found = self._calls.BCNextHash(self._index, after, key)
            self._require(found >= 0)
            if not found:
                return
            after = key.raw
            yield after

    def _put(self, blob):
        key = ctypes.create_string_buffer(HASH_SIZE)
        self._require(self._calls.BCPut(self._index, bytes(blob), len(blob), key) == 1)
        return key.raw

    def _fetch(self, key, data, capacity):
        if len(key) != HASH_SIZE:
            raise ValueError("a hash has 16 bytes")
        size = ctypes.c_int()
        return self._calls.BCFetch(self._index, key, data, capacity, ctypes.byref(size)), size.value

    def _error(self):
        text = ctypes.create_string_buffer(1024)
        self._calls.BCLastError(self._index, text, len(text))
        return Error(text.value.decode(errors="replace"))

    def _require(self, good):
        if not good:
            raise self._error()


def main(directory, command, *arguments):
    with Store(directory) as store:
        if command == "put":
            blobs = []
            for name in arguments:
                with open(name, "rb") as file:
                    blobs.append(file.read())
            for key, name in zip(store.put(blobs), arguments):
                print(key.hex(), name)
        elif command == "get":
            blob = store.get(bytes.fromhex(arguments[0]))
            if blob is None:
                raise Error("no blob " + arguments[0])
            sys.stdout.buffer.write(blob)
        elif command == "list":
            for key in store:
                print(key.hex(), store.size(key))
        else:
            raise Error("no command " + command)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except (Error, OSError, ValueError) as error:
        sys.exit(f"blobs.py: {error}")
