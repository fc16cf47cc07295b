"""The C library: where it is, its functions, and its errors as exceptions."""

from __future__ import annotations

import ctypes
import enum
import errno
import os
import pathlib
import threading
import weakref
from ctypes import POINTER, c_char_p, c_int, c_int64, c_size_t, c_uint32, c_uint64, c_void_p
from typing import Any, Callable, Dict, Tuple, Union

StrPath = Union[str, "os.PathLike[str]"]
Bytes = Union[bytes, bytearray, memoryview]


class Status(enum.IntEnum):
    """What a function of the C library returned."""

    OK = 0
    ARGUMENT = 1
    OUT_OF_MEMORY = 2
    NOT_FOUND = 3
    BUFFER_TOO_SMALL = 4
    STOPPED = 5
    UNUSABLE = 6
    IO = 7
    DAMAGED = 8
    LIMIT = 9
    BUSY = 10
    SYSTEM = 11
    INTERNAL = 12


class QuorvelError(Exception):
    """An error for which Python has no exception; its status tells which.

    UNUSABLE: the cache can't use its file; DAMAGED: the file does not hold an intact package;
    LIMIT: the package has as many streams as its limit allows; BUSY: a stream is open. The status
    of an error that only a newer library knows is a plain number.
    """

    def __init__(self, status: int, message: str) -> None:
        super().__init__(status, message)
        self.status = status

    def __str__(self) -> str:
        return str(self.args[1])


_SIZES = POINTER(c_size_t)
_HANDLES = POINTER(c_void_p)

# Each function's result, then its parameters.
_FUNCTIONS: Dict[str, Tuple[Any, ...]] = {
    "last_error": (c_char_p,),
    "last_system_error": (c_uint32,),
    "version": (c_char_p,),
    "cache_open": (c_int, c_char_p, _HANDLES),
    "cache_close": (None, c_void_p),
    "cache_add": (c_int, c_void_p, c_char_p, c_size_t, c_char_p, c_size_t, c_int),
    "cache_find": (c_int, c_void_p, c_char_p, c_size_t, c_void_p, c_size_t, _SIZES),
    "cache_save": (c_int, c_void_p),
    "cache_list": (c_int, c_void_p, c_char_p),
    "cache_is_enabled": (c_int, c_void_p),
    "cache_set_enabled": (None, c_void_p, c_int),
    "cache_effects_in_file": (c_uint64, c_void_p),
    "cache_effects_in_memory": (c_uint64, c_void_p),
    "package_create": (c_int, c_char_p, c_uint64, c_uint64, _HANDLES),
    "package_open": (c_int, c_char_p, c_uint64, c_uint64, _HANDLES),
    "package_close": (None, c_void_p),
    "package_commit": (c_int, c_void_p),
    "package_load": (c_int, c_void_p),
    "package_header_size": (c_uint64, c_void_p),
    "package_read_header": (c_int, c_void_p, c_void_p, c_size_t, _SIZES),
    "package_write_header": (c_int, c_void_p, c_char_p, c_size_t),
    "package_stream_count": (c_uint64, c_void_p),
    "package_total_size": (c_uint64, c_void_p),
    "package_stream_id": (c_uint64, c_void_p, c_uint64),
    "package_create_stream": (c_int, c_void_p, c_uint64, POINTER(c_uint64)),
    "package_delete_stream": (c_int, c_void_p, c_uint64),
    "stream_open": (c_int, c_void_p, c_uint64, _HANDLES),
    "stream_close": (None, c_void_p),
    "stream_size": (c_uint64, c_void_p),
    "stream_position": (c_uint64, c_void_p),
    "stream_seek": (c_int, c_void_p, c_int64, c_int),
    "stream_read": (c_int, c_void_p, c_void_p, c_size_t, _SIZES),
    "stream_write": (c_int, c_void_p, c_char_p, c_size_t, _SIZES),
}


class _Functions:
    """The functions of the C library, without the prefix of their names."""

    def __init__(self, library: ctypes.CDLL) -> None:
        for name, (result, *parameters) in _FUNCTIONS.items():
            function = getattr(library, f"quorvel_{name}")
            function.restype = result
            function.argtypes = parameters
            setattr(self, name, function)

    def __getattr__(self, name: str) -> Any:
        raise AttributeError(name)


def _load() -> _Functions:
    name = "quorvel_c.dll" if os.name == "nt" else "libquorvel-c.so.1"
    beside = pathlib.Path(__file__).with_name(name)
    path = os.environ.get("QUORVEL_LIBRARY") or (str(beside) if beside.exists() else name)
    try:
        return _Functions(ctypes.CDLL(path))
    except (AttributeError, OSError) as error:
        raise ImportError(f"Quorvel's C library can't be loaded: {error}. Install it, or set "
                          f"QUORVEL_LIBRARY to the path of {name}.") from error


library = _load()


def close_handle(lock: threading.RLock, close: Callable[[c_void_p], None],
                 handle: c_void_p) -> None:
    """Closes a handle when no thread uses it: daemon threads run on while the program ends."""
    with lock:
        close(handle)


def version() -> str:
    """The version of the C library, for example "1.0.0"."""
    return str(library.version().decode())


def check(status: int, path: StrPath | None = None) -> None:
    """Raises the exception of a status that is not OK and has no other meaning to the caller."""
    if status == Status.OK:
        return
    message = library.last_error().decode()
    if status == Status.ARGUMENT:
        raise ValueError(message)
    if status == Status.OUT_OF_MEMORY:
        raise MemoryError(message)
    code = library.last_system_error()
    if status == Status.SYSTEM and os.name == "nt":
        raise OSError(0, message, path, code)
    if status in (Status.IO, Status.SYSTEM):
        raise OSError(code or errno.EIO, os.strerror(code) if code else message, path)
    known = status in Status.__members__.values()
    raise QuorvelError(Status(status) if known else status, message)


def encode_path(path: StrPath) -> bytes:
    """A path as the C library takes it."""
    text = os.fspath(path)
    encoded = text.encode("mbcs", "strict") if os.name == "nt" else os.fsencode(text)
    if b"\0" in encoded:
        raise ValueError("embedded null byte")
    return encoded


def to_bytes(data: Bytes) -> bytes:
    """A copy of the bytes of any object that has some; text and numbers are refused."""
    return data if isinstance(data, bytes) else memoryview(data).tobytes()


#: The objects with a handle that this process has opened. Each has a method _disown.
owners: weakref.WeakSet[Any] = weakref.WeakSet()


def _disown_all() -> None:
    """Makes a forked process forget the handles of its parent, which it must not even close."""
    for owner in list(owners):
        owner._disown()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_disown_all)
