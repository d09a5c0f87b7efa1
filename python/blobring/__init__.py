"""Blobring, a content-addressed store of blobs on a local file system.

    with blobring.Store("/data/store") as store:
        key = store.put(b"hello")      # from here on it survives a power cut
        print(key, store[key])

The package calls libblobring.so.1 through ctypes. The environment variable
BLOBRING_LIBRARY names another file, such as that of a build tree; it is read
when the package is imported.

What the library reports goes to the logger "blobring", as errors and warnings.
"""

from blobring._library import VERSION as __version__
from blobring.errors import (
    ArgumentError,
    ClosedError,
    DamagedError,
    Error,
    FullError,
    HeldError,
    InDoubtError,
    NoStoreError,
    NotFoundError,
    OutOfMemoryError,
    ReadOnlyError,
    RefusedError,
    SystemCallError,
)
from blobring.hash import Hash
from blobring.store import Statistics, Store

__all__ = [
    "ArgumentError",
    "ClosedError",
    "DamagedError",
    "Error",
    "FullError",
    "Hash",
    "HeldError",
    "InDoubtError",
    "NoStoreError",
    "NotFoundError",
    "OutOfMemoryError",
    "ReadOnlyError",
    "RefusedError",
    "Statistics",
    "Store",
    "SystemCallError",
    "__version__",
]
