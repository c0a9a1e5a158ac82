#pragma once

// Pieces shared by the bindings of the `kel` Python module: numpy views of
// the runtime's reference-counted buffers, purposes as text, and the
// KelError exception.

#include <KEL/KelErrorCode.h>
#include <KelCommon/Guid.h>
#include <KelCommon/SharedBuffer.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kel_python {

namespace py = pybind11;

// A read-only numpy array over the bytes of `buffer`, without copying them.
// The array keeps the buffer's owner (the reader's memory block, or the
// memory a layer was built from) alive for as long as it or any view of it
// exists. `shape` must describe exactly buffer.size() bytes of `dtype`.
py::array ViewOf(const KelCommon::SharedBuffer& buffer, const py::dtype& dtype, std::vector<py::ssize_t> shape);

// The bytes of a numpy array (converted to C order and to `T` if needed),
// copied into a new buffer.
template <class T>
KelCommon::SharedBuffer BufferFrom(const py::array_t<T, py::array::c_style | py::array::forcecast>& array) {
    return KelCommon::SharedBuffer::Copy(array.data(), static_cast<std::size_t>(array.nbytes()));
}

// The runtime's JSON form of a fact about a file (a summary, a damage
// report, a verification) as Python objects: objects become dicts whose
// camelCase keys are written in snake_case ("truncatedTailBytes" becomes
// "truncated_tail_bytes"), arrays lists, numbers int or float.
py::object FromJson(const nlohmann::ordered_json& value);

// "PRIMARY_COLOR" for a registered purpose, else the GUID's text.
std::string PurposeText(const KelCommon::Guid& purpose);
// A registered alias or a GUID text; None is `fallback` (the purpose such a
// layer usually has). Raises ValueError for anything else, for an empty
// text, and for None without a fallback (the null GUID).
KelCommon::Guid PurposeFrom(const py::object& purpose, const KelCommon::Guid& fallback);

// A gate for the module's own tests, to put a reader or writer call in flight
// at a known point and keep it there while the test calls close() or changes
// the atom being written from another thread. Every reader and writer call
// passes it twice, without the GIL: once before it waits for the object's
// mutex (`kUnlocked`) and once holding that mutex, the object found open
// (`kLocked`); Writer.close() passes `kLocked` too. Unarmed, passing costs one atomic load. Python reaches it
// through kel._testing_hold_next_call(point), kel._testing_wait_held(timeout)
// and kel._testing_release(); nothing else arms it.
enum class GatePoint { kUnlocked, kLocked };
void PassTestGate(GatePoint point);
void BindTestGate(py::module_& m);

// Raises kel.KelError(message) with `code` and `name` ("not found")
// attributes.
[[noreturn]] void RaiseKelError(KEL::KelErrorCode code, const std::string& message);
// Creates kel.KelError in module `m`.
void DefineKelError(py::module_& m);

void BindLayers(py::module_& m);
void BindAtom(py::module_& m);
void BindRecording(py::module_& m);
void BindWriter(py::module_& m);

}  // namespace kel_python
