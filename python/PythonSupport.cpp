#include "PythonSupport.h"

#include <KEL/KELPurposeGuids.h>

namespace kel_python {

namespace {
// Owned by the module for the life of the process.
PyObject* gKelError = nullptr;
}  // namespace

py::array ViewOf(const KelCommon::SharedBuffer& buffer, const py::dtype& dtype, std::vector<py::ssize_t> shape) {
    auto* keep = new KelCommon::SharedBuffer(buffer);
    const py::capsule owner(keep, [](void* p) { delete static_cast<KelCommon::SharedBuffer*>(p); });
    // numpy allocates its own memory when given no pointer; an empty buffer
    // has none, and needs none.
    static const std::uint8_t kNothing = 0;
    const void* data = keep->data() != nullptr ? keep->data() : &kNothing;
    py::array array(dtype, std::move(shape), {}, data, owner);
    array.attr("setflags")(py::arg("write") = false);
    return array;
}

std::string PurposeText(const KelCommon::Guid& purpose) {
    if (const auto alias = KEL::KELPurposeGuids::GetAlias(purpose)) {
        return alias->str();
    }
    return purpose.ToString().str();
}

KelCommon::Guid PurposeFrom(const py::object& purpose) {
    if (purpose.is_none()) {
        return {};
    }
    const std::string text = py::str(purpose);
    if (text.empty()) {
        return {};
    }
    if (const auto guid = KEL::KELPurposeGuids::ResolveAlias(KelCommon::String(text))) {
        return *guid;
    }
    try {
        return KelCommon::Guid::FromHexString(text);
    } catch (const std::exception&) {
        throw py::value_error("'" + text + "' is neither a registered purpose alias nor a GUID");
    }
}

void RaiseKelError(KEL::KelErrorCode code, const std::string& message) {
    py::object error = py::reinterpret_borrow<py::object>(gKelError)(message);
    error.attr("code") = code;
    error.attr("name") = KEL::KelErrorCodeName(code);
    PyErr_SetObject(gKelError, error.ptr());
    throw py::error_already_set();
}

void DefineKelError(py::module_& m) {
    gKelError = PyErr_NewExceptionWithDoc(
        "kel.KelError",
        "An error of the KEL runtime: `code` is the host's error code (compare with kel.KEL_ERR_NOT_FOUND and the "
        "like), `name` its short name (\"not found\"), and the message says what failed.",
        PyExc_RuntimeError, nullptr);
    m.add_object("KelError", py::handle(gKelError));
}

}  // namespace kel_python
