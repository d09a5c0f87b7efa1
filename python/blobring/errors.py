"""What a store raises: one class for each BLOBRING_ERROR_ code of the library.

Access to the mapping raises KeyError for a blob that is absent. A damaged,
unreadable or closed store never looks like an absent blob.
"""

from errno import ENOENT


class Error(Exception):
    """Any failure of the library. Its text names the operation, then the cause."""

    code = 0
    """The library's code, BLOBRING_ERROR_... in blobring.h."""


class HeldError(Error):
    """Another process, or another Store of this one, has the store open."""

    code = 1


class FullError(Error):
    """The disk, a quota, or a file at its limit of 2 GiB is full."""

    code = 2


class DamagedError(Error):
    """Bytes on disk are not what a store wrote."""

    code = 3


class InDoubtError(Error):
    """A flush has failed, so a commit may or may not have reached the disk.

    The store accepts no change until it is opened again.
    """

    code = 4


class ClosedError(Error):
    """The store is closed."""

    code = 5


class NoStoreError(Error, FileNotFoundError):
    """There is no store in the directory."""

    code = 6
    errno = ENOENT


class ArgumentError(Error, ValueError):
    """An argument is invalid, or contradicts the store's files."""

    code = 7


class SystemCallError(Error, OSError):
    """The operating system refused a call."""

    code = 8


class OutOfMemoryError(Error, MemoryError):
    """The library has no memory."""

    code = 9


class ReadOnlyError(Error):
    """A change to a store that was opened with read_only."""

    code = 10


class RefusedError(Error):
    """Not possible now. The text says why."""

    code = 11


class NotFoundError(SystemCallError, FileNotFoundError):
    """There is no such file or directory."""

    code = 12
    errno = ENOENT


BY_CODE = {error.code: error for error in (*Error.__subclasses__(), NotFoundError)}
