"""Quorvel: compiled shader effects that every process of a user finds again, and packages.

    with quorvel.EffectCache("/home/me/.cache/effects") as cache:
        cache["bloom"] = code

Both classes may be used from any thread: calls on one object wait for each other.
A forked process finds the objects of its parent closed, and must not open the directory of such a
cache. A program that uses multiprocessing opens its caches afterwards, or starts with "spawn".
"""

from ._cache import LARGEST_EFFECT, LARGEST_NAME, EffectCache
from ._library import QuorvelError, Status, version
from ._package import LARGEST_STREAM, Package, Stream

__all__ = ["LARGEST_EFFECT", "LARGEST_NAME", "LARGEST_STREAM", "EffectCache", "Package",
           "QuorvelError", "Status", "Stream", "version"]
