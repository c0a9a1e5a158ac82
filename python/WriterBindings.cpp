// kel.create: writing containers with the runtime's serializer.

#include <KEL/SerializeToKel.h>

#include <memory>
#include <mutex>

#include "PythonSupport.h"

namespace kel_python {

namespace {
using namespace pybind11::literals;

class Writer {
public:
    Writer(const std::string& path, bool overwrite, bool xml)
        : serializer_(std::make_unique<KEL::SerializeToKel>((path + (xml ? "+xml" : "")).c_str(), overwrite,
                                                            KEL::CURRENT_VERSION, false)) {
        if (const KEL::KelErrorCode code = serializer_->GetOpenResult(); code != KEL::KEL_OK) {
            const std::string why = serializer_->GetLastError();
            serializer_.reset();
            RaiseKelError(code, "cannot create '" + path + "': " + why);
        }
    }

    void Write(const std::shared_ptr<KEL::Atom>& atom) {
        if (!atom) {
            throw py::type_error("write() takes a kel.Atom");
        }
        KEL::KelErrorCode code = KEL::KEL_OK;
        {
            py::gil_scoped_release released;
            std::lock_guard lock(mutex_);
            code = Serializer().SerializeAtom(atom);
        }
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, serializer_->GetLastError());
        }
    }

    void Close() {
        if (!serializer_) {
            return;
        }
        KEL::KelErrorCode code = KEL::KEL_OK;
        {
            py::gil_scoped_release released;
            std::lock_guard lock(mutex_);
            code = serializer_->Close();
        }
        const std::string why = serializer_->GetLastError();
        serializer_.reset();
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, why);
        }
    }

    std::uint64_t AtomsWritten() { return Serializer().GetNumAtomsWritten(); }
    std::uint64_t BytesWritten() { return Serializer().GetBytesWritten(); }
    bool IsClosed() const { return !serializer_; }
    std::string Path() { return Serializer().GetFilePath().str(); }

private:
    KEL::SerializeToKel& Serializer() {
        if (!serializer_) {
            throw py::value_error("the writer is closed");
        }
        return *serializer_;
    }

    std::unique_ptr<KEL::SerializeToKel> serializer_;
    std::mutex mutex_;
};
}  // namespace

void BindWriter(py::module_& m) {
    py::class_<Writer>(m, "Writer",
                       "Writes atoms into a new container; a context manager that closes the file (index, sync, "
                       "companion) on exit.")
        .def("write", &Writer::Write, "atom"_a,
             "Stores the atom. Once it returns the atom is in the file; raises KelError (disk full, ...) otherwise.")
        .def("close", &Writer::Close, "Writes the index, syncs and closes; raises KelError when that fails.")
        .def_property_readonly("closed", &Writer::IsClosed)
        .def_property_readonly("path", &Writer::Path)
        .def_property_readonly("atoms_written", &Writer::AtomsWritten)
        .def_property_readonly("bytes_written", &Writer::BytesWritten)
        .def(
            "__enter__", [](Writer& w) -> Writer& { return w; }, py::return_value_policy::reference)
        .def("__exit__", [](Writer& w, const py::object&, const py::object&, const py::object&) {
            w.Close();
            return false;
        });

    m.def(
        "create",
        [](const std::string& path, bool overwrite, bool xml) {
            return std::make_unique<Writer>(path, overwrite, xml);
        },
        "path"_a, "overwrite"_a = true, "xml"_a = false,
        "Creates a container at `path` (with `xml`, also its XML companion at close). With `overwrite` false an "
        "existing file is an error (KelError KEL_ERR_ALREADY_EXISTS).");
}

}  // namespace kel_python
