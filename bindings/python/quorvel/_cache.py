"""The effect cache."""

from __future__ import annotations

import ctypes
import errno
import os
import threading
import weakref
from types import TracebackType
from typing import TypeVar, Union, overload

from ._library import (Bytes, Status, StrPath, check, close_handle, encode_path, library,
                       owners, to_bytes)

#: The largest name and the largest effect, in bytes. The smallest of both is 1 byte.
LARGEST_NAME = 65536
LARGEST_EFFECT = 1048576

Name = Union[str, bytes]
Default = TypeVar("Default")


def _encode_name(name: Name) -> bytes:
    if isinstance(name, str):
        return name.encode()
    if isinstance(name, bytes):
        return name
    raise TypeError(f"a name is str or bytes, not {type(name).__name__}")


def _require_usable(directory: StrPath) -> None:
    """Raises OSError if a directory is one that no cache can use."""
    with os.scandir(directory):
        pass
    file = os.path.join(os.fspath(directory), "vornFxoCache.dat")
    for path, mode in ((os.fspath(directory), os.W_OK | os.X_OK), (file, os.R_OK | os.W_OK)):
        if os.path.exists(path) and not os.access(path, mode):
            raise PermissionError(errno.EACCES, os.strerror(errno.EACCES), path)


class EffectCache:
    """Compiled shader effects: bytes found by name, in a file that all processes of a user share.

    Names are bytes, or text that is encoded as UTF-8. The cache queues new effects, and saves them
    when they reach 2 MiB and when it is closed. It may evict effects, but not permanent ones. An
    effect can't be removed, and the cache can't be iterated: write_list lists the saved effects.
    """

    def __init__(self, directory: StrPath) -> None:
        """Opens the cache of a directory, which must exist.

        Raises FileNotFoundError, NotADirectoryError or PermissionError if the directory can't be
        used, OSError if the system refuses an object that processes share, and QuorvelError with
        Status.UNUSABLE for any other reason, such as a directory of another user.
        """
        handle = ctypes.c_void_p()
        status = library.cache_open(encode_path(directory), ctypes.byref(handle))
        if status == Status.UNUSABLE:
            _require_usable(directory)
        check(status, directory)
        self._directory = os.fspath(directory)
        self._lock = threading.RLock()
        self._close = weakref.finalize(self, close_handle, self._lock, library.cache_close,
                                       handle)
        self._cache = handle
        self._buffer = ctypes.create_string_buffer(LARGEST_EFFECT)
        owners.add(self)

    def _disown(self) -> None:
        self._close.detach()
        self._lock = threading.RLock()  # another thread of the parent may have held the old one

    def __enter__(self) -> EffectCache:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Saves the queued effects and closes the cache. Does nothing if it is closed.

        Raises QuorvelError if the save fails; the cache is closed all the same.
        """
        with self._lock:
            if self._close.alive:
                status = library.cache_save(self._cache)
                self._close()
                check(status)

    @property
    def closed(self) -> bool:
        """True after close. Other operations of a closed cache raise ValueError."""
        return not self._close.alive

    @property
    def directory(self) -> str:
        """The directory, as it was passed in."""
        return self._directory

    def _open_cache(self) -> ctypes.c_void_p:
        if self.closed:
            raise ValueError("the cache is closed")
        return self._cache

    def add(self, name: Name, code: Bytes, *, permanent: bool = False) -> None:
        """Queues an effect, and replaces the effect of that name. Permanent ones are never evicted.

        Raises ValueError if the name has no bytes or more than LARGEST_NAME, or the code no bytes
        or more than LARGEST_EFFECT, and QuorvelError if the cache can't be used any more.
        """
        encoded, effect = _encode_name(name), to_bytes(code)
        with self._lock:
            check(library.cache_add(self._open_cache(), encoded, len(encoded), effect, len(effect),
                                    permanent))

    def __setitem__(self, name: Name, code: Bytes) -> None:
        self.add(name, code)

    def _find(self, name: Name, capacity: int) -> bytes | None:
        """The first `capacity` bytes of an effect that is no longer; None if there is no effect."""
        encoded = _encode_name(name)
        size = ctypes.c_size_t()
        with self._lock:
            status = library.cache_find(self._open_cache(), encoded, len(encoded), self._buffer,
                                        capacity, ctypes.byref(size))
            if status == Status.NOT_FOUND:
                return None
            if status == Status.BUFFER_TOO_SMALL:
                return b""
            check(status)
            return ctypes.string_at(self._buffer, size.value)

    @overload
    def get(self, name: Name) -> bytes | None: ...

    @overload
    def get(self, name: Name, default: Default) -> bytes | Default: ...

    def get(self, name: Name, default: Default | None = None) -> bytes | Default | None:
        """The bytes of an effect, or the default. Finding an effect delays its eviction."""
        effect = self._find(name, LARGEST_EFFECT)
        return default if effect is None else effect

    def __getitem__(self, name: Name) -> bytes:
        effect = self._find(name, LARGEST_EFFECT)
        if effect is None:
            raise KeyError(name)
        return effect

    def __contains__(self, name: Name) -> bool:
        return self._find(name, 0) is not None

    # Without this, "for" would try the names 0, 1, 2...
    __iter__ = None

    def save(self) -> None:
        """Saves the queued effects now.

        Raises QuorvelError if that fails. The queued effects are then lost, and the cache can't be
        used any more; the file keeps what was saved before.
        """
        with self._lock:
            check(library.cache_save(self._open_cache()))

    def write_list(self, path: StrPath) -> None:
        """Writes one line for each saved effect to a text file.

        Raises OSError if the file can't be opened for writing, and QuorvelError if the cache can't
        be used any more. A list that is cut off because the volume is full is not reported.
        """
        with self._lock:
            check(library.cache_list(self._open_cache(), encode_path(path)), path)

    @property
    def enabled(self) -> bool:
        """A switch for the host, on at first, that has no effect on the other operations.

        It is always off if the cache can't be used any more.
        """
        with self._lock:
            return bool(library.cache_is_enabled(self._open_cache()))

    @enabled.setter
    def enabled(self, enabled: bool) -> None:
        with self._lock:
            library.cache_set_enabled(self._open_cache(), enabled)

    @property
    def effects_in_file(self) -> int:
        """The number of saved effects, when this cache last read or wrote the file."""
        with self._lock:
            return int(library.cache_effects_in_file(self._open_cache()))

    @property
    def effects_in_memory(self) -> int:
        """The number of queued effects."""
        with self._lock:
            return int(library.cache_effects_in_memory(self._open_cache()))
