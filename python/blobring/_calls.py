"""The calls of blobring.h, as ctypes declares them."""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, c_char_p, c_int, c_int32, c_longlong, c_uint, c_uint32, c_uint64, c_void_p

HASH_SIZE = 16
FETCHED, NOT_FOUND, FAILED, TOO_SMALL = range(4)
CHECK_FAILED, CHECK_STOPPED, CHECK_FAULTY, CHECK_SOUND = range(-2, 2)
DAMAGE_ERASE, DAMAGE_KEEP = range(2)

PROGRESS = ctypes.CFUNCTYPE(c_int, c_void_p, c_int, c_uint64, c_uint64)


class Options(ctypes.Structure):
    """BCOptions."""

    _fields_ = (
        ("size", c_uint32),
        ("slotCount", c_uint32),
        ("packDirs", POINTER(c_char_p)),
        ("eraseDamaged", c_int),
        ("progress", PROGRESS),
        ("progressContext", c_void_p),
        ("mustExist", c_int),
        ("readOnly", c_int),
    )


class Statistics(ctypes.Structure):
    """BCStatistics."""

    _fields_ = (
        ("size", c_uint32),
        ("loaded", c_int32),
        ("inDoubt", c_int32),
        ("sequence", c_int32),
        ("slotCount", c_uint32),
        ("largestBlob", c_uint32),
        ("blobCount", c_uint64),
        ("liveBytes", c_uint64),
        ("packBytes", c_uint64),
        ("journalBytes", c_uint64),
        ("repackedBytes", c_uint64),
        ("pendingChanges", c_uint64),
        ("damaged", c_int32),
        ("readOnly", c_int32),
    )


class Blob(ctypes.Structure):
    """BCBlob."""

    _fields_ = (("data", c_void_p), ("size", c_int), ("hash", ctypes.c_ubyte * HASH_SIZE))


library = ctypes.CDLL(os.environ.get("BLOBRING_LIBRARY", "libblobring.so.1"))

for _name, *_arguments in (
    ("BCOpen", c_char_p, POINTER(Options)),
    ("BCDispose", c_int),
    ("BCSetProgress", c_int, PROGRESS, c_void_p),
    ("BCStartTransaction", c_int, POINTER(c_longlong)),
    ("BCEndTransaction", c_int, POINTER(c_longlong)),
    ("BCAbandonTransaction", c_int),
    ("BCPut", c_int, c_void_p, c_int, c_void_p),
    ("BCPutMany", c_int, POINTER(Blob), c_int),
    ("BCDelete", c_int, c_char_p),
    ("BCFetch", c_int, c_char_p, c_void_p, c_int, POINTER(c_int)),
    ("BCNextHash", c_int, c_char_p, c_void_p),
    ("BCCheck", c_int),
    ("BCRepack", c_int),
    ("BCGetStatistics", c_int, POINTER(Statistics)),
    ("BCLastError", c_int, c_char_p, c_int),
    ("BCLastErrorCode", c_int),
    ("BCMD5ChkSumInt", c_void_p, c_uint, c_void_p),
):
    _call = getattr(library, _name)
    _call.argtypes, _call.restype = _arguments, c_int
library.BCVersion.restype = c_char_p
