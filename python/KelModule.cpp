// The `kel` Python module: containers as numpy arrays, over the runtime's own
// reader and serializer.

#include <KEL/KELLogger.h>
#include <KEL/KelErrorCode.h>

#include <cstdlib>
#include <string>

#include "PythonSupport.h"

namespace {

// Failures reach Python as exceptions; the runtime's log lines on stderr
// would only repeat them. Quiet unless KEL_LOG_LEVEL asks otherwise.
void QuietLogUnlessAsked() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read once while the module loads
    const char* env = std::getenv("KEL_LOG_LEVEL");
    if (env == nullptr || *env == '\0') {
        if (auto logger = KEL::GetKELLoggerInstance().lock()) {
            logger->SetStderrLevel(KelCommon::LOG_OFF);
        }
    }
}

}  // namespace

// The extension is the private part of the `kel` package (python/kel), whose
// __init__ re-exports it.
PYBIND11_MODULE(_kel, m) {
    m.doc() =
        "Read and write KEL containers (.kel). kel.open(path) gives a Recording of atoms whose image, mesh and blob "
        "payloads are read-only numpy views of the reader's memory (no copy); kel.create(path) writes one.";
    QuietLogUnlessAsked();
    // Arrays are numpy's: load it with the module rather than at the first
    // array a user asks for, and say what to do when it is missing.
    try {
        pybind11::module_::import("numpy");
    } catch (pybind11::error_already_set& e) {
        throw pybind11::import_error(
            "the kel module needs numpy, which this Python cannot import (" + std::string(pybind11::str(e.value())) +
            "). Install Debian's package: apt-get install python3-numpy. The module is built for Debian's Python " +
            KEL_PYTHON_VERSION + " (" + KEL_PYTHON_EXECUTABLE + ") and uses its numpy.");
    }
    kel_python::DefineKelError(m);
    m.def(
        "set_log_level",
        [](int level) {
            if (auto logger = KEL::GetKELLoggerInstance().lock()) {
                logger->SetStderrLevel(level);
            }
        },
        pybind11::arg("level"),
        "Writes the runtime's log lines at or below `level` to stderr (0 none, 2 failures, 3 warnings, 6 detail).");
    for (const auto& [name, code] : {std::pair{"KEL_ERR_NOT_FOUND", KEL::KEL_ERR_NOT_FOUND},
                                     {"KEL_ERR_ACCESS_DENIED", KEL::KEL_ERR_ACCESS_DENIED},
                                     {"KEL_ERR_IO", KEL::KEL_ERR_IO},
                                     {"KEL_ERR_INVALID", KEL::KEL_ERR_INVALID},
                                     {"KEL_ERR_NOT_A_CONTAINER", KEL::KEL_ERR_NOT_A_CONTAINER},
                                     {"KEL_ERR_UNSUPPORTED_VERSION", KEL::KEL_ERR_UNSUPPORTED_VERSION},
                                     {"KEL_ERR_CORRUPT", KEL::KEL_ERR_CORRUPT},
                                     {"KEL_ERR_DISK_FULL", KEL::KEL_ERR_DISK_FULL},
                                     {"KEL_ERR_FILE_TOO_LARGE", KEL::KEL_ERR_FILE_TOO_LARGE},
                                     {"KEL_ERR_NOT_OPEN", KEL::KEL_ERR_NOT_OPEN},
                                     {"KEL_ERR_ALREADY_EXISTS", KEL::KEL_ERR_ALREADY_EXISTS},
                                     {"KEL_ERR_PLUGIN", KEL::KEL_ERR_PLUGIN}}) {
        m.attr(name) = static_cast<KEL::KelErrorCode>(code);
    }
    kel_python::BindLayers(m);
    kel_python::BindAtom(m);
    kel_python::BindRecording(m);
    kel_python::BindWriter(m);
    kel_python::BindTestGate(m);
}
