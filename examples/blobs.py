#!/usr/bin/env python3
"""Stores, fetches and lists blobs; blobs.py --help tells the rest."""

import argparse
import pathlib
import sys

import blobring


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("store", help="its directory")
    commands = parser.add_subparsers(dest="command", required=True)
    put = commands.add_parser("put", help="store files, all or none, and print their hashes")
    put.add_argument("files", nargs="+", type=pathlib.Path)
    get = commands.add_parser("get", help="write a blob to standard output")
    get.add_argument("hash", type=blobring.Hash)
    commands.add_parser("list", help="print every hash with its size")
    given = parser.parse_args()

    with blobring.Store(given.store) as store:
        if given.command == "put":
            with store.transaction():
                hashes = [store.put(file.read_bytes()) for file in given.files]
            for key, name in zip(hashes, given.files):
                print(key, name)
        elif given.command == "get":
            sys.stdout.buffer.write(store[given.hash])
        else:
            for key in store:
                print(key, store.size(key))


if __name__ == "__main__":
    try:
        main()
    except KeyError as missing:
        sys.exit(f"blobs.py: no blob {missing.args[0]}")
    except (blobring.Error, OSError) as error:
        sys.exit(f"blobs.py: {error}")
