"""Read and write KEL containers (.kel).

kel.open(path) gives a Recording of atoms whose image, mesh and blob payloads
are read-only numpy views of the reader's memory (no copy); kel.create(path)
writes one. The submodule kel.dask (imported on its own, it needs Dask) reads
archives of recordings on a Dask cluster.
"""

from . import _kel
from ._kel import *  # noqa: F401,F403 (the module's public API)
from ._kel import _testing_hold_next_call, _testing_release, _testing_wait_held  # noqa: F401 (the tests' gate)

# The classes are the extension's; they present themselves as kel's, where
# users find them.
for _value in vars(_kel).values():
    if isinstance(_value, type) and getattr(_value, "__module__", None) == _kel.__name__:
        _value.__module__ = __name__
del _value


def _layer_from_parts(*parts):
    """Unpickles a layer (Layer.__reduce__ names this function: pickle cannot
    name one of the extension's)."""
    return _kel._layer_from_parts(*parts)
