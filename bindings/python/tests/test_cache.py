import gc
import os
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

import pytest

import quorvel

NOBODY = 65534


def test_finds_what_was_added(tmp_path: Path) -> None:
    with quorvel.EffectCache(tmp_path) as cache:
        cache["bloom"] = b"code"
        assert cache["bloom"] == b"code"
        cache["bloom"] = b"other code"
        assert cache["bloom"] == b"other code"
        assert "bloom" in cache
        assert "blur" not in cache
        assert cache.get("bloom") == b"other code"
        assert cache.get("blur") is None
        assert cache.get("blur", 5) == 5
        with pytest.raises(KeyError, match="blur"):
            cache["blur"]


def test_saves_when_it_is_closed(tmp_path: Path) -> None:
    with quorvel.EffectCache(str(tmp_path)) as cache:
        cache["bloom"] = b"code"
        assert (cache.effects_in_memory, cache.effects_in_file) == (1, 0)
    with quorvel.EffectCache(tmp_path) as cache:
        assert (cache.effects_in_memory, cache.effects_in_file) == (0, 1)
        assert cache["bloom"] == b"code"


def test_saves_when_it_is_forgotten(tmp_path: Path) -> None:
    cache = quorvel.EffectCache(tmp_path)
    cache["bloom"] = b"code"
    del cache
    gc.collect()
    with quorvel.EffectCache(tmp_path) as cache:
        assert cache["bloom"] == b"code"


def test_saves_when_the_program_ends(tmp_path: Path) -> None:
    program = "import quorvel, sys; c = quorvel.EffectCache(sys.argv[1]); c['bloom'] = b'code'"
    subprocess.run([sys.executable, "-c", program, str(tmp_path)], check=True,
                   cwd=Path(quorvel.__file__).parent.parent)
    with quorvel.EffectCache(tmp_path) as cache:
        assert cache["bloom"] == b"code"


def test_program_ends_while_daemon_threads_use_a_cache(tmp_path: Path) -> None:
    program = """
import quorvel, sys, threading
def work():
    while True:
        cache.get("large")
        started.release()
threading.excepthook = lambda arguments: None  # the cache is closed
started = threading.Semaphore(0)
cache = quorvel.EffectCache(sys.argv[1])
cache["large"] = bytes(quorvel.LARGEST_EFFECT)
cache.save()
for _ in range(4):
    threading.Thread(target=work, daemon=True).start()
for _ in range(20):
    started.acquire()
"""
    for _ in range(20):
        subprocess.run([sys.executable, "-c", program, str(tmp_path)], check=True,
                       cwd=Path(quorvel.__file__).parent.parent)


def test_saves_for_others_on_request(tmp_path: Path) -> None:
    with quorvel.EffectCache(tmp_path) as one, quorvel.EffectCache(tmp_path) as other:
        one["bloom"] = b"code"
        assert "bloom" not in other
        one.save()
        assert other["bloom"] == b"code"


def test_takes_names_and_code_of_any_bytes(tmp_path: Path) -> None:
    with quorvel.EffectCache(tmp_path) as cache:
        cache[b"a\0b\xff"] = b"\0\1\0"
        assert cache[b"a\0b\xff"] == b"\0\1\0"
        cache["Größe"] = bytearray(b"array")
        assert cache["Größe".encode()] == b"array"
        cache["view"] = memoryview(b"0123456789")[2:8:2]
        assert cache["view"] == b"246"


def test_takes_the_largest_name_and_effect(tmp_path: Path) -> None:
    with quorvel.EffectCache(tmp_path) as cache:
        name, code = "n" * quorvel.LARGEST_NAME, os.urandom(quorvel.LARGEST_EFFECT)
        cache[name] = code
        assert cache[name] == code


@pytest.mark.parametrize("name, code", [
    ("", b"code"), ("n" * (quorvel.LARGEST_NAME + 1), b"code"),
    ("name", b""), ("name", b"c" * (quorvel.LARGEST_EFFECT + 1))])
def test_refuses_sizes_out_of_range(tmp_path: Path, name: str, code: bytes) -> None:
    with quorvel.EffectCache(tmp_path) as cache:
        with pytest.raises(ValueError, match="has 1 to"):
            cache[name] = code
        assert cache.effects_in_memory == 0


def test_refuses_other_types(tmp_path: Path) -> None:
    with quorvel.EffectCache(tmp_path) as cache:
        with pytest.raises(TypeError):
            cache["name"] = "text"  # type: ignore[assignment]
        with pytest.raises(TypeError):
            cache["name"] = 4  # type: ignore[assignment]
        with pytest.raises(TypeError, match="a name is str or bytes, not int"):
            cache[4]  # type: ignore[index]
        with pytest.raises(TypeError):
            iter(cache)  # type: ignore[call-overload]
        with pytest.raises((AttributeError, TypeError)):
            del cache["name"]  # type: ignore[attr-defined]


def test_lists_saved_effects(tmp_path: Path) -> None:
    listing = tmp_path / "list"
    with quorvel.EffectCache(tmp_path) as cache:
        cache.add("tone map", b"12345", permanent=True)
        cache.add("blur", b"123")
        cache.save()
        cache.write_list(listing)
        assert listing.read_text() == ("Name: blur Size: 3 Permanent: 0\n"
                                       "Name: tone map Size: 5 Permanent: 1\n")
        with pytest.raises(FileNotFoundError) as caught:
            cache.write_list(tmp_path / "no" / "list")
        assert caught.value.filename == tmp_path / "no" / "list"


def test_has_a_switch(tmp_path: Path) -> None:
    with quorvel.EffectCache(tmp_path) as cache:
        assert cache.enabled
        cache.enabled = False
        assert not cache.enabled
        cache["bloom"] = b"code"
        assert cache["bloom"] == b"code"
        cache.enabled = True
        assert cache.enabled
        assert cache.directory == str(tmp_path)


def test_needs_a_directory_that_it_can_use(tmp_path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        quorvel.EffectCache(tmp_path / "missing")
    (tmp_path / "file").touch()
    with pytest.raises(NotADirectoryError):
        quorvel.EffectCache(tmp_path / "file")
    with pytest.raises(ValueError):
        quorvel.EffectCache("")
    with pytest.raises(ValueError, match="null byte"):
        quorvel.EffectCache("a\0b")
    (tmp_path / "vornFxoCache.dat").mkdir()
    with pytest.raises(quorvel.QuorvelError, match="the cache can't be used") as caught:
        quorvel.EffectCache(tmp_path)
    assert caught.value.status == quorvel.Status.UNUSABLE


def error_of_nobody(directory: str) -> str:
    """The name of the exception that a user without rights gets; empty for none."""
    receiver, sender = os.pipe()
    child = os.fork()
    if child == 0:
        os.setuid(NOBODY)
        try:
            quorvel.EffectCache(directory)
        except BaseException as error:
            os.write(sender, type(error).__name__.encode())
        os._exit(0)
    os.close(sender)
    with open(receiver, encoding="ascii") as answer:
        name = answer.read()
    os.waitpid(child, 0)
    return name


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can become another user")
def test_reports_missing_rights() -> None:
    with tempfile.TemporaryDirectory() as directory:
        assert error_of_nobody(directory) == "PermissionError"
        os.chmod(directory, 0o755)
        assert error_of_nobody(directory) == "PermissionError"
        os.chmod(directory, 0o777)
        assert error_of_nobody(directory) == "QuorvelError"  # it belongs to another user
        os.chown(directory, NOBODY, -1)
        assert error_of_nobody(directory) == ""


def test_reports_a_save_that_fails(tmp_path: Path) -> None:
    resource = pytest.importorskip("resource")
    cache = quorvel.EffectCache(tmp_path)
    cache["bloom"] = b"code"
    cache.save()
    cache["blur"] = os.urandom(1000000)
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (500000, limits[1]))
    try:
        with pytest.raises(quorvel.QuorvelError) as caught:
            cache.close()
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, limits)
    assert caught.value.status == quorvel.Status.UNUSABLE
    assert cache.closed
    cache.close()
    with quorvel.EffectCache(tmp_path) as cache:
        assert cache["bloom"] == b"code"
        assert "blur" not in cache


def test_can_be_closed_twice_but_not_used(tmp_path: Path) -> None:
    cache = quorvel.EffectCache(tmp_path)
    assert not cache.closed
    cache.close()
    assert cache.closed
    cache.close()
    with pytest.raises(ValueError, match="the cache is closed"):
        cache["bloom"] = b"code"
    with pytest.raises(ValueError, match="the cache is closed"):
        cache.get("bloom")
    with pytest.raises(ValueError, match="the cache is closed"):
        cache.save()


def test_serves_several_threads(tmp_path: Path) -> None:
    def work(number: int) -> None:
        for i in range(50):
            name = f"{number} {i}"
            cache[name] = name.encode() * 1000
            if i % 10 == 0:
                cache.save()
            if cache[name] != name.encode() * 1000:
                wrong.append(name)
        done.append(number)

    wrong: list[str] = []
    done: list[int] = []
    with quorvel.EffectCache(tmp_path) as cache:
        threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert sorted(done) == [0, 1, 2, 3]
        assert wrong == []
    with quorvel.EffectCache(tmp_path) as cache:
        assert cache.effects_in_file == 200
