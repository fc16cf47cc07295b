import errno
import io
import os
import shutil
from pathlib import Path

import pytest

import quorvel


@pytest.fixture
def path(tmp_path: Path) -> Path:
    return tmp_path / "notes.pkg"


def test_reads_back_what_it_has_committed(path: Path) -> None:
    with quorvel.Package(path, create=True) as package:
        first = package.add(b"kept between runs")
        second = package.add(b"x" * 100000)
        package.header = b"head"
    with quorvel.Package(path) as package:
        assert list(package) == [first, second]
        assert len(package) == 2
        assert package.total_size == 100017
        assert package[first] == b"kept between runs"
        assert package[second] == b"x" * 100000
        assert package.header == b"head"


def test_shows_others_only_what_it_has_committed(path: Path) -> None:
    with quorvel.Package(path, create=True) as writer, quorvel.Package(path) as reader:
        id = writer.add(b"text")
        writer.commit()
        assert id not in reader
        reader.load()
        assert id in reader
        assert reader[id] == b"text"


def test_deletes_streams(path: Path) -> None:
    with quorvel.Package(path, create=True) as package:
        id = package.add(b"text")
        with package.open(id):
            with pytest.raises(quorvel.QuorvelError) as caught:
                del package[id]
            assert caught.value.status == quorvel.Status.BUSY
            with pytest.raises(quorvel.QuorvelError):
                package.load()
        del package[id]
        assert id not in package
        for missing in (id, -1, 2**64 + id):
            with pytest.raises(KeyError):
                del package[missing]
            with pytest.raises(KeyError):
                package[missing]
            assert missing not in package


def test_replaces_header_data(path: Path) -> None:
    with quorvel.Package(path, create=True) as package:
        assert package.header == b""
        package.header = bytearray(b"head")
        assert package.header == b"head"
        package.header = b""
        assert package.header == b""
        with pytest.raises(TypeError):
            package.header = "text"  # type: ignore[assignment]


def test_has_a_limit_of_streams(path: Path) -> None:
    with quorvel.Package(path, create=True, stream_limit=1) as package:
        package.add(b"text")
        with pytest.raises(quorvel.QuorvelError) as caught:
            package.add(b"text")
        assert caught.value.status == quorvel.Status.LIMIT
        assert len(package) == 1


@pytest.mark.parametrize("size", [0, -1, quorvel.LARGEST_STREAM + 1, 2**64 + 1])
def test_refuses_sizes_out_of_range(path: Path, size: int) -> None:
    with quorvel.Package(path, create=True) as package:
        with pytest.raises(ValueError, match="a stream has 1 to 2147483647 bytes"):
            package.create_stream(size)
        assert len(package) == 0


def test_refuses_arguments_out_of_range(path: Path) -> None:
    for wrong in (-1, 2**64):
        with pytest.raises(ValueError):
            quorvel.Package(path, create=True, cache_pages=wrong)
        with pytest.raises(ValueError):
            quorvel.Package(path, create=True, stream_limit=wrong)
    with pytest.raises(TypeError):
        quorvel.Package(path, create=True).add("text")  # type: ignore[arg-type]


def test_streams_are_files_of_a_fixed_size(path: Path) -> None:
    with quorvel.Package(path, create=True) as package:
        id = package.create_stream(10)
        with package.open(id) as stream:
            assert (stream.size, stream.tell()) == (10, 0)
            assert stream.write(b"0123456789abc") == 10
            with pytest.raises(OSError) as caught:
                stream.write(b"d")
            assert caught.value.errno == errno.ENOSPC
            assert stream.write(b"") == 0
            assert stream.seek(-3, io.SEEK_END) == 7
            assert stream.read() == b"789"
            assert stream.read(1) == b""
            assert stream.seek(2) == 2
            assert stream.seek(1, io.SEEK_CUR) == 3
            assert stream.read(2) == b"34"
            assert stream.readinto(bytearray()) == 0
            for outside in (-1, 11, 2**32, 2**64):
                with pytest.raises(ValueError):
                    stream.seek(outside)
            assert stream.tell() == 5
            assert package[id] == b"0123456789"
            assert stream.tell() == 5
            assert package.open(id).tell() == 5
        assert stream.closed
        with pytest.raises(ValueError):
            stream.read(1)
        with pytest.raises(ValueError):
            stream.tell()


def test_streams_work_with_other_libraries(path: Path) -> None:
    with quorvel.Package(path, create=True) as package:
        text = b"line one\nline two\n" * 10000
        id = package.create_stream(len(text))
        with package.open(id) as stream:
            shutil.copyfileobj(io.BytesIO(text), io.BufferedRandom(stream))
        with package.open(id) as stream:
            assert io.BufferedReader(stream).readlines() == text.splitlines(keepends=True)


def test_streams_are_empty_after_their_package_was_closed(path: Path) -> None:
    package = quorvel.Package(path, create=True)
    stream = package.open(package.add(b"text"))
    package.close()
    assert stream.size == 0
    assert stream.read(1) == b""
    stream.close()


def test_does_not_open_what_is_no_package(path: Path) -> None:
    with pytest.raises(FileNotFoundError) as missing:
        quorvel.Package(path)
    assert missing.value.filename == path
    assert not path.exists()
    path.write_text("not a package")
    with pytest.raises(quorvel.QuorvelError, match="intact package") as damaged:
        quorvel.Package(path)
    assert damaged.value.status == quorvel.Status.DAMAGED
    with pytest.raises(IsADirectoryError):
        quorvel.Package(path.parent)
    with pytest.raises(FileNotFoundError):
        quorvel.Package(path.parent / "no" / "package", create=True)


def test_reports_a_commit_that_fails(path: Path) -> None:
    resource = pytest.importorskip("resource")
    package = quorvel.Package(path, create=True)
    package.add(b"text")
    package.header = os.urandom(1000000)
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (500000, limits[1]))
    try:
        with pytest.raises(OSError) as caught:
            package.commit()
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, limits)
    assert caught.value.errno == errno.EFBIG
    package.close()
    with quorvel.Package(path) as package:
        assert len(package.header) == 1000000


def test_can_be_closed_twice_but_not_used(path: Path) -> None:
    package = quorvel.Package(path, create=True)
    assert not package.closed
    package.close()
    package.close()
    assert package.closed
    with pytest.raises(ValueError, match="the package is closed"):
        package.add(b"text")
    with pytest.raises(ValueError, match="the package is closed"):
        len(package)
    with pytest.raises(ValueError, match="the package is closed"):
        package.open(0)
