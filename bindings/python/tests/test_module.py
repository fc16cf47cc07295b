"""The module itself: how it finds the library, its wheel, the program in its document."""

import os
import pickle
import re
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest

import quorvel
from quorvel import _library

SOURCES = Path(__file__).parents[1]
LIBRARY = os.environ.get("QUORVEL_LIBRARY", "")


def run(*arguments: str, directory: Path = SOURCES, **environment: str) -> str:
    """What a Python program prints; its standard error if it fails."""
    done = subprocess.run([sys.executable, "-B", *arguments], cwd=directory, capture_output=True,
                          env={**os.environ, **environment}, encoding="utf-8")
    return done.stderr if done.returncode else done.stdout.strip()


def test_has_the_version_of_the_library() -> None:
    version = re.search(r'^version = "(.*)"$', (SOURCES / "pyproject.toml").read_text(), re.M)
    assert version
    assert quorvel.version() == version.group(1)


def test_numbers_statuses_as_the_header_does() -> None:
    header = (SOURCES.parents[1] / "capi" / "quorvel.h").read_text()
    numbers = dict(re.findall(r"QUORVEL_(?:ERROR_)?([A-Z_]+) = (\d+)", header.split("}")[0]))
    assert {name: int(number) for name, number in numbers.items()} == {
        status.name: status.value for status in quorvel.Status}


def test_says_what_to_do_without_a_library(tmp_path: Path) -> None:
    output = run("-c", "import quorvel", QUORVEL_LIBRARY=str(tmp_path / "missing.so"))
    assert "ImportError: Quorvel's C library can't be loaded" in output
    assert "set QUORVEL_LIBRARY to the path of libquorvel-c.so.1" in output


def test_finds_the_library_beside_itself_or_where_the_system_looks(tmp_path: Path) -> None:
    if not LIBRARY:
        pytest.skip("the library's path is unknown")
    program = "import quorvel; print(quorvel.version())"
    folder = Path(LIBRARY).resolve().parent
    assert run("-c", program, QUORVEL_LIBRARY="", LD_LIBRARY_PATH=str(folder)) == quorvel.version()
    module = tmp_path / "quorvel"
    module.mkdir()
    for source in (SOURCES / "quorvel").glob("*.py"):
        (module / source.name).write_bytes(source.read_bytes())
    (module / "libquorvel-c.so.1").symlink_to(LIBRARY)
    assert run("-c", program, directory=tmp_path, QUORVEL_LIBRARY="") == quorvel.version()


def test_runs_from_its_wheel(tmp_path: Path) -> None:
    for needed in ("setuptools", "wheel"):
        pytest.importorskip(needed)
    build = ("import setuptools.build_meta as meta, shutil, sys, os; shutil.copytree("
             f"{str(SOURCES)!r}, 'source'); os.chdir('source'); print(meta.build_wheel('..'))")
    name = run("-c", build, directory=tmp_path).splitlines()[-1]
    assert name == f"quorvel-{quorvel.version()}-py3-none-any.whl"
    with zipfile.ZipFile(tmp_path / name) as wheel:
        assert {file for file in wheel.namelist() if file.startswith("quorvel/")} == {
            f"quorvel/{file}" for file in ("__init__.py", "_cache.py", "_library.py",
                                           "_package.py", "py.typed")}
        licence = (SOURCES.parents[1] / "LICENCE.txt").read_bytes()
        assert wheel.read(f"quorvel-{quorvel.version()}.dist-info/LICENCE.txt") == licence
    program = "import quorvel; print(quorvel.__file__, quorvel.version())"
    output = run("-c", program, directory=tmp_path, PYTHONPATH=name)
    assert output == f"{tmp_path / name / 'quorvel/__init__.py'} {quorvel.version()}"


def test_errors_keep_their_status_when_they_are_pickled() -> None:
    error = pickle.loads(pickle.dumps(quorvel.QuorvelError(quorvel.Status.BUSY, "a stream is open")))
    assert error.status == quorvel.Status.BUSY
    assert str(error) == "a stream is open"


def test_raises_errors_of_a_newer_library() -> None:
    with pytest.raises(quorvel.QuorvelError) as caught:
        _library.check(13)
    assert caught.value.status == 13
    assert not isinstance(caught.value.status, quorvel.Status)


def test_raises_memory_error_when_memory_runs_out() -> None:
    with pytest.raises(MemoryError):
        _library.check(quorvel.Status.OUT_OF_MEMORY)


@pytest.mark.skipif(not hasattr(os, "fork"), reason="the system has no fork")
def test_forked_process_does_not_have_what_its_parent_has_open(tmp_path: Path) -> None:
    program = """
import os, quorvel, signal, sys, threading
cache = quorvel.EffectCache(sys.argv[1])
cache["bloom"] = b"code"
package = quorvel.Package(sys.argv[1] + "/package", create=True)
stream = package.open(package.add(b"text"))
locked, done = threading.Event(), threading.Event()
def hold():
    with cache._lock, package._lock:
        locked.set()
        done.wait()
thread = threading.Thread(target=hold)
thread.start()
locked.wait()
child = os.fork()
if child == 0:
    signal.alarm(60)
    assert cache.closed and package.closed and stream.closed
    for use in (cache.save, lambda: "bloom" in cache, package.commit, lambda: stream.read(1)):
        try:
            use()
        except ValueError:
            continue
        os._exit(1)
    for inherited in (cache, package, stream):
        inherited.close()
    sys.exit()  # as a program that does not know that it was forked
done.set()
thread.join()
assert os.waitpid(child, 0)[1] == 0
with quorvel.EffectCache(sys.argv[1]) as other, quorvel.Package(package._path) as reader:
    assert (other.effects_in_file, len(reader)) == (0, 0)  # the child has neither saved nor committed
assert stream.read() == b"text"
stream.close()
package.close()
cache.close()
with quorvel.EffectCache(sys.argv[1]) as other, quorvel.Package(package._path) as reader:
    print(other.effects_in_file, len(reader))
"""
    assert run("-c", program, str(tmp_path)) == "1 1"


def test_program_in_the_document_compiles_once(tmp_path: Path) -> None:
    document = (SOURCES.parents[1] / "docs" / "python.md").read_text()
    program = re.search(r"```python\n(# effects\.py.*?)```", document, re.S)
    assert program

    path = tmp_path / "effects.py"
    path.write_text(program.group(1))
    assert run(str(path), str(tmp_path), PYTHONPATH=str(SOURCES)) == "compiled"
    assert run(str(path), str(tmp_path), PYTHONPATH=str(SOURCES)) == "found 4 bytes"
