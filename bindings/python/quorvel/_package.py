"""Packages and their streams."""

from __future__ import annotations

import ctypes
import errno
import io
import os
import threading
import weakref
from types import TracebackType
from typing import TYPE_CHECKING, Any, Iterator

from ._library import (Bytes, QuorvelError, Status, StrPath, check, close_handle, encode_path,
                       library, owners, to_bytes)

if TYPE_CHECKING:
    from _typeshed import ReadableBuffer, WriteableBuffer

#: The largest stream, in bytes.
LARGEST_STREAM = 2147483647

_LARGEST_NUMBER = 2**64 - 1


def _check_id(id: int) -> int:
    """An id that fits into the C library's type; ctypes would cut off the rest."""
    if not 0 <= id <= _LARGEST_NUMBER:
        raise KeyError(id)
    return id


class Package:
    """One file that holds many byte streams, each with an integer id, and a block of header data.

    Changes reach the file with commit and close. One process at a time may use a package: it has no
    read-only mode and no lock.

        with quorvel.Package("notes.pkg", create=True) as package:
            id = package.add(b"kept between runs")
    """

    def __init__(self, path: StrPath, *, create: bool = False, cache_pages: int = 64,
                 stream_limit: int = 0xFFFFFF) -> None:
        """Opens the package in a file, or with create starts a new, empty one there.

        It keeps up to cache_pages pages of 8192 bytes in memory, and has at most stream_limit
        streams. Raises OSError if the file can't be opened, read or created, and QuorvelError
        with Status.DAMAGED if it does not hold an intact package.
        """
        if not (0 <= cache_pages <= _LARGEST_NUMBER and 0 <= stream_limit <= _LARGEST_NUMBER):
            raise ValueError("cache_pages and stream_limit are numbers of 64 bits")
        make = library.package_create if create else library.package_open
        handle = ctypes.c_void_p()
        check(make(encode_path(path), cache_pages, stream_limit, ctypes.byref(handle)), path)
        self._path = os.fspath(path)
        self._lock = threading.RLock()
        self._close = weakref.finalize(self, close_handle, self._lock, library.package_close,
                                       handle)
        self._package = handle
        owners.add(self)

    def _disown(self) -> None:
        self._close.detach()
        self._lock = threading.RLock()  # another thread of the parent may have held the old one

    def __enter__(self) -> Package:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Commits pending changes and closes the file. Streams that are still open become empty.

        Does nothing if the package is closed. Raises OSError or QuorvelError if the commit fails;
        the package is closed all the same.
        """
        with self._lock:
            if self._close.alive:
                try:
                    self.commit()
                finally:
                    self._close()

    @property
    def closed(self) -> bool:
        """True after close. Other operations of a closed package raise ValueError."""
        return not self._close.alive

    def _open_package(self) -> ctypes.c_void_p:
        if self.closed:
            raise ValueError("the package is closed")
        return self._package

    def commit(self) -> None:
        """Makes streams that were created or deleted, and header data, the state of the file.

        Bytes written into a stream that existed before may reach the file only with close.
        """
        with self._lock:
            check(library.package_commit(self._open_package()), self._path)

    def load(self) -> None:
        """Reads the state from the file again.

        Raises OSError if it can't be read, and QuorvelError: BUSY while a stream is open, DAMAGED
        if the file does not hold an intact package.
        """
        with self._lock:
            check(library.package_load(self._open_package()), self._path)

    @property
    def header(self) -> bytes:
        """The header data, empty at first. Setting it replaces it."""
        with self._lock:
            package = self._open_package()
            buffer = ctypes.create_string_buffer(library.package_header_size(package))
            size = ctypes.c_size_t()
            check(library.package_read_header(package, buffer, len(buffer), ctypes.byref(size)))
            return buffer.raw

    @header.setter
    def header(self, data: Bytes) -> None:
        header = to_bytes(data)
        with self._lock:
            check(library.package_write_header(self._open_package(), header, len(header)))

    @property
    def total_size(self) -> int:
        """The sum of the sizes of all streams, in bytes."""
        with self._lock:
            return int(library.package_total_size(self._open_package()))

    def __len__(self) -> int:
        """The number of streams."""
        with self._lock:
            return int(library.package_stream_count(self._open_package()))

    def __iter__(self) -> Iterator[int]:
        """The ids of the streams, in ascending order."""
        with self._lock:
            package = self._open_package()
            return iter([library.package_stream_id(package, index) for index in range(len(self))])

    def __contains__(self, id: int) -> bool:
        try:
            self.open(id).close()
        except KeyError:
            return False
        except QuorvelError:
            pass  # it can't be opened, for example because it has no bytes
        return True

    def create_stream(self, size: int) -> int:
        """Creates a stream of a fixed size, whose bytes are unspecified at first; returns its id.

        Raises ValueError if the size is not 1 to LARGEST_STREAM, QuorvelError with Status.LIMIT if
        the package has as many streams as its limit allows, and MemoryError if its file can't hold
        that many more pages, also when memory runs out.
        """
        if not 1 <= size <= LARGEST_STREAM:
            raise ValueError(f"a stream has 1 to {LARGEST_STREAM} bytes")
        id = ctypes.c_uint64()
        with self._lock:
            check(library.package_create_stream(self._open_package(), size, ctypes.byref(id)),
                  self._path)
        return id.value

    def open(self, id: int) -> Stream:
        """Opens a stream. Raises KeyError if there is none, QuorvelError if it can't be read.

        While a stream is open, opening it again gives another object at the same position.
        """
        return Stream(self, id)

    def add(self, data: Bytes) -> int:
        """Creates a stream with these bytes and returns its id. Raises as create_stream does."""
        content = to_bytes(data)
        with self._lock:
            id = self.create_stream(len(content))
            try:
                with self.open(id) as stream:
                    _require_all(stream.write(content), len(content))
            except BaseException:
                del self[id]
                raise
        return id

    def __getitem__(self, id: int) -> bytes:
        """The bytes of a stream."""
        with self._lock, self.open(id) as stream:
            position = stream.tell()
            stream.seek(0)
            content = bytearray(stream.size)
            _require_all(stream.readinto(content), len(content))
            stream.seek(position)
            return bytes(content)

    def __delitem__(self, id: int) -> None:
        """Deletes a stream. Raises KeyError if there is none, QuorvelError: BUSY if it is open."""
        with self._lock:
            status = library.package_delete_stream(self._open_package(), _check_id(id))
            if status == Status.NOT_FOUND:
                raise KeyError(id)
            check(status, self._path)


def _require_all(moved: int, size: int) -> None:
    if moved != size:
        raise QuorvelError(Status.BUSY, "open streams use all pages of the page cache")


class Stream(io.RawIOBase):
    """The bytes of a stream, as a file of a fixed size. Get one from Package.open."""

    def __init__(self, package: Package, id: int) -> None:
        self._stream: ctypes.c_void_p | None = None
        self._package = package
        handle = ctypes.c_void_p()
        with package._lock:
            status = library.stream_open(package._open_package(), _check_id(id),
                                         ctypes.byref(handle))
            if status == Status.NOT_FOUND:
                raise KeyError(id)
            check(status, package._path)
        self._stream = handle
        owners.add(self)

    def _disown(self) -> None:
        self._stream = None
        super().close()

    def close(self) -> None:
        """Closes the stream. Its package may be closed already."""
        with self._package._lock:
            stream, self._stream = self._stream, None
            if stream is not None:
                library.stream_close(stream)
        super().close()

    def _open_stream(self) -> ctypes.c_void_p:
        if self._stream is None:
            raise ValueError("the stream is closed")
        return self._stream

    def readable(self) -> bool:
        return True

    def writable(self) -> bool:
        return True

    def seekable(self) -> bool:
        return True

    @property
    def size(self) -> int:
        """The stream's size in bytes; 0 after its package was closed."""
        with self._package._lock:
            return int(library.stream_size(self._open_stream()))

    def tell(self) -> int:
        with self._package._lock:
            return int(library.stream_position(self._open_stream()))

    def seek(self, offset: int, whence: int = os.SEEK_SET) -> int:
        """Moves to a position. Raises ValueError if it is outside the stream."""
        if abs(offset) > LARGEST_STREAM:
            raise ValueError("the position is outside the stream")
        with self._package._lock:
            check(library.stream_seek(self._open_stream(), offset, whence))
            return self.tell()

    def readinto(self, buffer: WriteableBuffer) -> int:
        view = memoryview(buffer)
        if view.nbytes == 0:
            return 0
        view = view.cast("B")
        target: Any = (ctypes.c_char * len(view)).from_buffer(view)
        moved = ctypes.c_size_t()
        with self._package._lock:
            check(library.stream_read(self._open_stream(), target, len(view), ctypes.byref(moved)),
                  self._package._path)
        return moved.value

    def write(self, data: ReadableBuffer) -> int:
        """Writes up to the end of the stream and returns the number of bytes written.

        Raises OSError (ENOSPC) at the end.
        """
        content = memoryview(data).tobytes()
        moved = ctypes.c_size_t()
        with self._package._lock:
            check(library.stream_write(self._open_stream(), content, len(content),
                                       ctypes.byref(moved)), self._package._path)
            if content and moved.value == 0:
                raise OSError(errno.ENOSPC, "the stream is full", self._package._path)
        return moved.value
