// kel.create: writing containers with the runtime's serializer.

#include <KEL/Atom.h>
#include <KEL/SerializeToKel.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "PythonSupport.h"

namespace kel_python {

namespace {
using namespace pybind11::literals;

class Writer {
public:
    Writer(const std::string& path, bool overwrite, bool xml, const KEL::SerializerOptions& options)
        : serializer_(std::make_unique<KEL::SerializeToKel>((path + (xml ? "+xml" : "")).c_str(), overwrite,
                                                            KEL::CURRENT_VERSION, false, options)) {
        // Nothing else knows this object yet: no lock needed.
        if (const KEL::KelErrorCode code = serializer_->GetOpenResult(); code != KEL::KEL_OK) {
            const std::string why = serializer_->GetLastError();
            serializer_.reset();
            RaiseKelError(code, "cannot create '" + path + "': " + why);
        }
    }

    // Runs `use(serializer)` and returns what it returns. Every access to the
    // serializer goes through here: without the GIL, holding the writer's
    // mutex, after checking under that mutex that the writer is still open
    // (ValueError when not). close() takes the same mutex, so it waits for a
    // write in flight. The GIL is released before waiting for the mutex,
    // never held while waiting. `use` must not touch Python objects.
    template <class Use>
    auto With(Use&& use) {
        py::gil_scoped_release released;
        PassTestGate(GatePoint::kUnlocked);
        const std::lock_guard lock(mutex_);
        if (!serializer_) {
            throw py::value_error("the writer is closed");
        }
        PassTestGate(GatePoint::kLocked);
        return use(*serializer_);
    }

    void Write(const std::shared_ptr<KEL::Atom>& atom) {
        if (!atom) {
            throw py::type_error("write() takes a kel.Atom");
        }
        // What is written is taken now, while the GIL keeps other threads
        // from changing the atom: its keys, its layer list and each layer's
        // fields are copied; payload buffers are immutable and shared.
        const std::shared_ptr<KEL::Atom> snapshot = KEL::Atom::Copy(atom, -1, true);
        std::string why;
        const KEL::KelErrorCode code = With([&](KEL::SerializeToKel& s) {
            const KEL::KelErrorCode result = s.SerializeAtom(snapshot);
            if (result != KEL::KEL_OK) {
                why = s.GetLastError();
            }
            return result;
        });
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, why);
        }
        WarnOfOrder(*snapshot);
    }

    // Waits for a write in flight, then writes the index and closes; closing
    // again does nothing.
    void Close() {
        KEL::KelErrorCode code = KEL::KEL_OK;
        std::string why;
        {
            py::gil_scoped_release released;
            std::unique_ptr<KEL::SerializeToKel> serializer;
            {
                const std::lock_guard lock(mutex_);
                if (!serializer_) {
                    return;
                }
                PassTestGate(GatePoint::kLocked);
                code = serializer_->Close();
                if (code != KEL::KEL_OK) {
                    why = serializer_->GetLastError();
                }
                serializer = std::move(serializer_);
            }
        }
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, why);
        }
    }

    bool IsClosed() {
        py::gil_scoped_release released;
        const std::lock_guard lock(mutex_);
        return !serializer_;
    }

private:
    // A stream that holds a frame number twice (readers return the first
    // written) or whose time stamps go backwards is most likely a mistake of
    // the caller's: say so (warnings.warn), once it is written. Called with
    // the GIL held, so the bookkeeping needs no lock of its own.
    void WarnOfOrder(const KEL::Atom& atom) {
        const std::uint16_t stream = atom.GetStreamId();
        const std::uint64_t key = (static_cast<std::uint64_t>(stream) << 32) | atom.GetFrameNr();
        if (!frames_.insert(key).second) {
            Warn("stream " + std::to_string(stream) + " already holds frame " + std::to_string(atom.GetFrameNr()) +
                 "; readers return the first one written");
        }
        const auto [last, first] = lastTimeStamps_.try_emplace(stream, atom.GetTimeStamp());
        if (!first && atom.GetTimeStamp() < last->second) {
            Warn("the time stamps of stream " + std::to_string(stream) + " go backwards (" +
                 std::to_string(atom.GetTimeStamp()) + " after " + std::to_string(last->second) + ")");
        }
        last->second = atom.GetTimeStamp();
    }

    // A UserWarning; raised instead when the warnings filter says "error".
    static void Warn(const std::string& text) {
        if (PyErr_WarnEx(PyExc_UserWarning, text.c_str(), 1) < 0) {
            throw py::error_already_set();
        }
    }

    std::mutex mutex_;
    std::unique_ptr<KEL::SerializeToKel> serializer_;
    std::unordered_set<std::uint64_t> frames_;
    std::unordered_map<std::uint16_t, std::int64_t> lastTimeStamps_;
};
}  // namespace

void BindWriter(py::module_& m) {
    py::class_<Writer>(m, "Writer",
                       "Writes atoms into a new container; a context manager that closes the file (index, sync, "
                       "companion) on exit.")
        .def("write", &Writer::Write, "atom"_a,
             "Stores the atom as it is when the call is made (later changes, also from other threads during the "
             "call, are not written). Once it returns the atom is in the file; raises KelError (disk full, ...) "
             "otherwise.")
        .def("close", &Writer::Close,
             "Waits for a write in flight on another thread, then writes the index, syncs and closes; raises "
             "KelError when that fails. Every call after it raises ValueError; closing again does nothing.")
        .def_property_readonly("closed", &Writer::IsClosed)
        .def_property_readonly(
            "path", [](Writer& w) { return w.With([](KEL::SerializeToKel& s) { return s.GetFilePath().str(); }); })
        .def_property_readonly(
            "atoms_written",
            [](Writer& w) { return w.With([](KEL::SerializeToKel& s) { return s.GetNumAtomsWritten(); }); })
        .def_property_readonly(
            "bytes_written",
            [](Writer& w) { return w.With([](KEL::SerializeToKel& s) { return s.GetBytesWritten(); }); })
        .def(
            "__enter__", [](Writer& w) -> Writer& { return w; }, py::return_value_policy::reference)
        .def("__exit__", [](Writer& w, const py::object&, const py::object&, const py::object&) {
            w.Close();
            return false;
        });

    m.def(
        "create",
        [](const std::filesystem::path& path, bool overwrite, bool xml, const std::optional<std::string>& compress) {
            KEL::SerializerOptions options;
            if (compress) {
                KEL::CompressionSetting setting;
                std::string error;
                if (!KEL::ParseCompression(*compress, setting, error)) {
                    throw py::value_error(error);
                }
                options.compression = setting;
            }
            return std::make_unique<Writer>(path.string(), overwrite, xml, options);
        },
        "path"_a, "overwrite"_a = true, "xml"_a = false, "compress"_a = py::none(),
        "Creates a container at `path` (with `xml`, also its XML companion at close). With `overwrite` false an "
        "existing file is an error (KelError KEL_ERR_ALREADY_EXISTS). `compress`: \"zstd\", \"zstd:LEVEL\" or "
        "\"none\" (ValueError otherwise); None follows the process's setting (KEL_COMPRESSION, else none). "
        "Compressed files read back transparently.");
}

}  // namespace kel_python
