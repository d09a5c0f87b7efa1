"""The key of a blob."""

from __future__ import annotations

import hashlib

from blobring._library import Buffer


class Hash(bytes):
    """The 16 bytes of a blob's MD5 digest (RFC 1321).

    It is a bytes object in every respect but two: str() gives 32 lower-case
    hexadecimal digits, and its length is always 16. So it equals, sorts and
    hashes like its bytes, in the order in which a store enumerates.
    """

    __slots__ = ()

    SIZE = 16

    def __new__(cls, digest: Buffer) -> Hash:
        """Takes 16 bytes. Raises ValueError for another length, TypeError for what has no bytes.

        Hash.fromhex(text) takes hexadecimal digits instead.
        """
        hash_ = super().__new__(cls, memoryview(digest))
        if len(hash_) != cls.SIZE:
            raise ValueError(f"a hash has {cls.SIZE} bytes, not {len(hash_)}")
        return hash_

    @classmethod
    def of(cls, data: Buffer) -> Hash:
        """Returns the hash of a blob with these contents."""
        return cls(hashlib.md5(data, usedforsecurity=False).digest())

    def __str__(self) -> str:
        return self.hex()

    def __repr__(self) -> str:
        return f"Hash.fromhex('{self.hex()}')"
