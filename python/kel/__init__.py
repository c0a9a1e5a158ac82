"""Read and write KEL containers (.kel).

kel.open(path) gives a Recording of atoms whose image, mesh and blob payloads
are read-only numpy views of the reader's memory (no copy); kel.create(path)
writes one. The submodule kel.dask (imported on its own, it needs Dask) reads
archives of recordings on a Dask cluster.
"""

import functools as _functools

from . import _kel
from ._kel import *  # noqa: F401,F403 (the module's public API)
from ._kel import _testing_hold_next_call, _testing_release, _testing_wait_held  # noqa: F401 (the tests' gate)


def _as_kel_function(function):
    """`function` of the extension as a function of this package: the same
    call, but one that pickle can name (kel.open travels to a Dask worker;
    the extension's own functions cannot be pickled)."""
    @_functools.wraps(function)
    def call(*args, **kwargs):
        return function(*args, **kwargs)
    call.__module__, call.__qualname__ = __name__, function.__name__
    return call


# The classes are the extension's; they present themselves as kel's, where
# users find them.
for _name, _value in vars(_kel).items():
    if isinstance(_value, type) and getattr(_value, "__module__", None) == _kel.__name__:
        _value.__module__ = __name__
    elif type(_value).__name__ == "builtin_function_or_method" and not _name.startswith("_"):
        globals()[_name] = _as_kel_function(_value)
del _name, _value


def _layer_from_parts(*parts):
    """Unpickles a layer (Layer.__reduce__ names this function: pickle cannot
    name one of the extension's)."""
    return _kel._layer_from_parts(*parts)
