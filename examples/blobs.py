#!/usr/bin/env python3
"""Stores, fetches and lists blobs with the package blobring. blobs.py --help tells the rest."""

import argparse
import mmap
import os
import pathlib
import sys
from collections.abc import Iterator

import blobring


def contents(files: list[pathlib.Path]) -> Iterator[bytes | mmap.mmap]:
    """Maps one file after another, so that its data need not be read into memory."""
    for file in files:
        with file.open("rb") as stream:
            size = os.fstat(stream.fileno()).st_size
            yield mmap.mmap(stream.fileno(), 0, access=mmap.ACCESS_READ) if size else b""


def main() -> None:
    parser = argparse.ArgumentParser(description="Stores, fetches and lists blobs.")
    parser.add_argument("store", help="its directory")
    commands = parser.add_subparsers(dest="command", required=True)
    put = commands.add_parser("put", help="store files, all or none, and print their hashes")
    put.add_argument("files", nargs="+", type=pathlib.Path)
    get = commands.add_parser("get", help="write a blob to standard output")
    get.add_argument("hash", type=blobring.Hash.fromhex)
    commands.add_parser("list", help="print every hash with its size")
    given = parser.parse_args()

    with blobring.Store(given.store) as store:
        if given.command == "put":
            for key, name in zip(store.put_many(contents(given.files)), given.files):
                print(key, name)
        elif given.command == "get":
            sys.stdout.buffer.write(store[given.hash])
        else:
            for key in store:
                print(key, store.size(key))


if __name__ == "__main__":
    try:
        main()
    except KeyError as absent:
        sys.exit(f"blobs.py: no blob {absent.args[0]}")
    except (blobring.Error, OSError) as error:
        sys.exit(f"blobs.py: {error}")
