"""Atoms and layers pickle (results of kel.dask travel between processes):
generated atoms of every layer type, in-band and with protocol 5's
out-of-band buffers, and the atoms of a file as read."""

import os
import pickle

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import kel
from test_kel_module import atom_fields, atoms


def round_trip(value, protocol):
    buffers = []
    data = pickle.dumps(value, protocol=protocol, buffer_callback=buffers.append if protocol >= 5 else None)
    return pickle.loads(data, buffers=[b.raw() for b in buffers]), buffers


@settings(max_examples=int(os.environ.get("KEL_PY_EXAMPLES", "200")), deadline=None,
          suppress_health_check=[HealthCheck.too_slow])
@given(atom=atoms, protocol=st.sampled_from([2, pickle.DEFAULT_PROTOCOL, 5]))
def test_generated_atoms_pickle_field_by_field(atom, protocol):
    back, buffers = round_trip(atom, protocol)
    assert type(back) is kel.Atom
    assert [type(layer) for layer in back.layers] == [type(layer) for layer in atom.layers]
    assert atom_fields(back) == atom_fields(atom)
    if protocol >= 5:  # every non-empty payload went out of band, none was copied into the stream
        assert sum(b.raw().nbytes for b in buffers) >= sum(layer.payload_size for layer in atom.layers)


def test_atoms_read_from_a_file_pickle_with_their_payload(demo_dir):
    with kel.open(str(demo_dir / "capture.kel")) as rec:
        read = list(rec.atoms())
    back, _ = round_trip(read, 5)
    assert [atom_fields(a) for a in back] == [atom_fields(a) for a in read]


def test_the_modules_functions_pickle_by_name():
    for function in (kel.open, kel.create, kel.verify, kel.set_log_level):
        assert pickle.loads(pickle.dumps(function)) is function
