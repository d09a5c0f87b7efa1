#!/usr/bin/env python3
"""Blobring from Python, with nothing but ctypes.

The library is found as libblobring.so.1, or where the environment's
BLOBRING_LIBRARY says. blobs.py --help tells the rest.
"""

import argparse
import ctypes
import os
import pathlib
import sys

HASH_SIZE = 16
FETCHED, NOT_FOUND, FAILED, TOO_SMALL = range(4)


class Error(Exception):
    """What the store said."""


def load(library):
    """The library, its calls declared as blobring.h has them. A hash is a
    string of HASH_SIZE bytes, like every buffer."""
    calls = ctypes.CDLL(library)
    number, text = ctypes.c_int, ctypes.c_char_p
    transaction_id = ctypes.POINTER(ctypes.c_longlong)
    for name, *arguments in (
        ("BCOpen", text, ctypes.c_void_p),
        ("BCDispose", number),
        ("BCStartTransaction", number, transaction_id),
        ("BCEndTransaction", number, transaction_id),
        ("BCAbandonTransaction", number),
        ("BCPut", number, text, number, text),
        ("BCFetch", number, text, text, number, ctypes.POINTER(number)),
        ("BCNextHash", number, text, text),
        ("BCLastError", number, text, number),
    ):
        call = getattr(calls, name)
        call.argtypes, call.restype = arguments, number
    return calls


class Store:
    """An open store; also a context manager, which closes it."""

    def __init__(self, directory, library=os.environ.get("BLOBRING_LIBRARY", "libblobring.so.1")):
        self._calls = load(library)
        self._index = self._calls.BCOpen(os.fsencode(directory), None)
        if self._index < 0:
            raise self._error()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()

    def close(self):
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


def main():
    parser = argparse.ArgumentParser(description="Stores, fetches and lists blobs.")
    parser.add_argument("store", help="its directory")
    commands = parser.add_subparsers(dest="command", required=True)
    put = commands.add_parser("put", help="store files and print their hashes")
    put.add_argument("files", nargs="+", type=pathlib.Path)
    get = commands.add_parser("get", help="write a blob to standard output")
    get.add_argument("hash", type=bytes.fromhex)
    commands.add_parser("list", help="print every hash with its size")
    given = parser.parse_args()

    with Store(given.store) as store:
        if given.command == "put":
            hashes = store.put(file.read_bytes() for file in given.files)
            for key, name in zip(hashes, given.files):
                print(key.hex(), name)
        elif given.command == "get":
            blob = store.get(given.hash)
            if blob is None:
                raise Error("no blob " + given.hash.hex())
            sys.stdout.buffer.write(blob)
        else:
            for key in store:
                print(key.hex(), store.size(key))


if __name__ == "__main__":
    try:
        main()
    except (Error, OSError, ValueError) as error:
        sys.exit(f"blobs.py: {error}")
