// kel.open and kel.Recording: reading containers with the runtime's reader,
// and playing them through the plugin's SourceKEL2FileReader.

#include <KEL/ContainerVerifier.h>
#include <KEL/FilterFactory.h>
#include <KEL/FilterParams.h>
#include <KEL/PluginLoader.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/Source.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "PythonSupport.h"

namespace kel_python {

namespace {
using namespace pybind11::literals;
namespace fs = std::filesystem;

// The reader of an open recording, shared with the iterators made from it.
// Reads run without the GIL, one at a time (the reader is single-threaded).
struct RecordingState {
    std::string path;
    std::unique_ptr<KEL::ReadKEL2File> reader;
    std::mutex mutex;

    KEL::ReadKEL2File& Reader() {
        if (!reader) {
            throw py::value_error("the recording '" + path + "' is closed");
        }
        return *reader;
    }
};

// An atom fetched without the GIL; empty when absent or damaged.
template <class Fetcher>
std::shared_ptr<KEL::Atom> Fetch(RecordingState& state, Fetcher&& fetch) {
    KEL::ReadKEL2File& reader = state.Reader();
    py::gil_scoped_release released;
    std::lock_guard lock(state.mutex);
    return fetch(reader);
}

py::dict DamageDict(const KEL::ContainerDamageReport& d) {
    py::dict damage;
    damage["index_used"] = d.indexUsed;
    damage["recovered"] = d.recovered;
    damage["checkpoint_used"] = d.checkpointUsed;
    damage["header_damaged"] = d.headerDamaged;
    damage["skipped_bytes"] = d.skippedBytes;
    damage["skipped_records"] = d.skippedRecords;
    damage["foreign_records"] = d.foreignRecords;
    damage["valid_records"] = d.validRecords;
    damage["truncated_tail_bytes"] = d.truncatedTailBytes;
    return damage;
}

py::dict VerificationDict(const KEL::ContainerVerification& v) {
    py::dict result;
    result["intact"] = v.IsIntact();
    result["open_result"] = v.openResult;
    result["open_error"] = v.openError;
    result["header_damaged"] = v.headerDamaged;
    result["index_present"] = v.indexPresent;
    result["index_valid"] = v.indexValid;
    result["atom_records"] = v.atomRecords;
    result["damaged_records"] = v.damagedRecords;
    result["damaged_bytes"] = v.damagedBytes;
    result["foreign_records"] = v.foreignRecords;
    result["truncated_tail_bytes"] = v.truncatedTailBytes;
    result["recoverable_atoms"] = v.recoverableAtoms;
    py::list problems;
    for (const auto& p : v.problems) {
        problems.append(py::dict("offset"_a = p.offset, "length"_a = p.length, "what"_a = p.what));
    }
    result["problems"] = problems;
    return result;
}

// Iterates the atoms of a recording: every record in file order, or one
// stream's frames in frame order. Damaged atoms are skipped (the recording's
// `damage` counts them).
class AtomIterator {
public:
    AtomIterator(std::shared_ptr<RecordingState> state, std::optional<std::uint16_t> stream)
        : state_(std::move(state)), stream_(stream) {
        KEL::ReadKEL2File& reader = state_->Reader();
        if (stream_) {
            frames_ = reader.GetFrameNumbers(*stream_);
        } else {
            count_ = reader.GetNumAtoms();
        }
    }

    std::shared_ptr<KEL::Atom> Next() {
        for (;;) {
            const std::size_t end = stream_ ? frames_.size() : static_cast<std::size_t>(count_);
            if (next_ >= end) {
                throw py::stop_iteration();
            }
            const std::size_t i = next_++;
            auto atom = stream_
                            ? Fetch(*state_, [&](KEL::ReadKEL2File& r) { return r.GetFrameAtom(*stream_, frames_[i]); })
                            : Fetch(*state_, [&](KEL::ReadKEL2File& r) { return r.GetAtomAt(i); });
            if (atom) {
                return atom;
            }
        }
    }

private:
    std::shared_ptr<RecordingState> state_;
    std::optional<std::uint16_t> stream_;
    std::vector<std::uint32_t> frames_;
    std::uint64_t count_ = 0;
    std::size_t next_ = 0;
};

// Makes sure the plugin with the file source is loaded: from KEL_PLUGIN_PATH,
// the build tree this module was built in, or the installed plugin directory.
void LoadFilePlugin() {
    if (KEL::FilterFactory::FindByName("SourceKEL2FileReader")) {
        return;
    }
    std::vector<std::string> tried;
    for (const std::string& dir :
         {KEL::PluginLoader::DefaultPluginDirectory(), std::string(KEL_PYTHON_BUILD_PLUGIN_DIR)}) {
        const fs::path library = fs::path(dir) / "libKEL2File_kpl.so";
        std::error_code ec;
        if (!fs::exists(library, ec)) {
            tried.push_back(library.string());
            continue;
        }
        KEL::LoadedPlugin loaded;
        std::string error;
        if (const KEL::KelErrorCode code = KEL::PluginLoader::LoadPlugin(library.string(), &loaded, &error);
            code != KEL::KEL_OK) {
            RaiseKelError(code, error);
        }
        return;
    }
    std::string where;
    for (const auto& t : tried) {
        where += (where.empty() ? "" : ", ") + t;
    }
    RaiseKelError(KEL::KEL_ERR_NOT_FOUND,
                  "the KEL2File plugin was not found (looked for " + where + "; set KEL_PLUGIN_PATH to its directory)");
}

// Frames as the plugin's single-file source pushes them into a graph: for
// each frame number the atoms of every included stream, with the stream-level
// layers that writers keep only in a stream's first atom restored.
class Playback {
public:
    Playback(const std::string& path, const std::vector<std::uint16_t>& streams) {
        LoadFilePlugin();
        filter_ = KEL::FilterFactory::CreateFilter(std::string("SourceKEL2FileReader"));
        source_ = dynamic_cast<KEL::Source*>(filter_.get());
        if (source_ == nullptr) {
            RaiseKelError(KEL::KEL_ERR_NOT_FOUND, "the filter class SourceKEL2FileReader is not a source");
        }
        source_->onInitializeParams(nullptr);
        std::string included;
        for (const std::uint16_t id : streams) {
            included += (included.empty() ? "" : ",") + std::to_string(id);
        }
        std::string error;
        if (!source_->FindParam("KEL File Path")->SetValueFromString(path, &error) ||
            !source_->FindParam("Included streams")->SetValueFromString(included, &error)) {
            throw py::value_error(error);
        }
        KEL::KelErrorCode code = KEL::KEL_OK;
        {
            py::gil_scoped_release released;
            code = source_->onInitialize(nullptr);
        }
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, source_->GetLastErrorMessage());
        }
        initialized_ = true;
        if (const auto info = source_->GetStreamInfo()) {
            frames_ = info->GetNumFrames();
        }
    }
    ~Playback() {
        if (initialized_) {
            source_->onDeInitialize();
        }
    }
    Playback(const Playback&) = delete;
    Playback& operator=(const Playback&) = delete;

    std::vector<std::shared_ptr<KEL::Atom>> Next() {
        while (next_ < frames_) {
            const std::uint32_t frame = next_++;
            KEL::KelErrorCode pushed = KEL::KEL_OK;
            std::vector<std::shared_ptr<KEL::Atom>> atoms;
            {
                py::gil_scoped_release released;
                pushed = source_->pushDataToOutput(frame);
                atoms = source_->TakeOutputQueue();
            }
            if (pushed == KEL::KEL_OK) {
                return atoms;
            }
        }
        throw py::stop_iteration();
    }

    std::uint32_t NumFrames() const { return frames_; }
    std::vector<std::uint32_t> StreamIds() const {
        std::vector<std::uint32_t> ids = source_->GetStreamIds();
        return ids;
    }

private:
    std::unique_ptr<KEL::Filter> filter_;
    KEL::Source* source_ = nullptr;
    bool initialized_ = false;
    std::uint32_t frames_ = 0;
    std::uint32_t next_ = 0;
};

class Recording {
public:
    Recording(const std::string& path, bool verify) : state_(std::make_shared<RecordingState>()) {
        state_->path = path;
        KEL::ReaderOptions options;
        options.verifyChecksums = verify;
        state_->reader = std::make_unique<KEL::ReadKEL2File>(path.c_str(), options);
        KEL::KelErrorCode code = KEL::KEL_OK;
        {
            py::gil_scoped_release released;
            code = state_->reader->Initialize();
        }
        if (code != KEL::KEL_OK) {
            const std::string why = state_->reader->GetLastError();
            state_->reader.reset();
            RaiseKelError(code, "cannot open '" + path + "'" + (why.empty() ? "" : ": " + why));
        }
    }

    void Close() {
        std::lock_guard lock(state_->mutex);
        state_->reader.reset();
    }
    bool IsClosedByUs() const { return !state_->reader; }
    KEL::ReadKEL2File& Reader() { return state_->Reader(); }
    const std::string& Path() const { return state_->path; }

    std::vector<std::uint16_t> Streams() {
        KEL::ReadKEL2File& r = Reader();
        std::vector<std::uint16_t> ids;
        ids.reserve(static_cast<std::size_t>(std::max(r.GetNumStreams(), 0)));
        for (int i = 0; i < r.GetNumStreams(); ++i) {
            ids.push_back(r.GetStreamId(i));
        }
        return ids;
    }

    std::shared_ptr<KEL::Atom> AtomOf(std::uint16_t stream, std::uint32_t frame) {
        auto atom = Fetch(*state_, [&](KEL::ReadKEL2File& r) { return r.GetFrameAtom(stream, frame); });
        if (atom) {
            return atom;
        }
        const auto numbers = Reader().GetFrameNumbers(stream);
        if (!std::binary_search(numbers.begin(), numbers.end(), frame)) {
            throw py::key_error("no frame " + std::to_string(frame) + " in stream " + std::to_string(stream));
        }
        RaiseKelError(KEL::KEL_ERR_CORRUPT, "frame " + std::to_string(frame) + " of stream " + std::to_string(stream) +
                                                " in '" + state_->path + "' is damaged");
    }

    AtomIterator Atoms(std::optional<std::uint16_t> stream) { return {state_, stream}; }

    std::uint64_t Refresh() {
        KEL::ReadKEL2File& r = Reader();
        const std::uint64_t before = r.GetNumAtoms();
        KEL::KelErrorCode code = KEL::KEL_OK;
        {
            py::gil_scoped_release released;
            std::lock_guard lock(state_->mutex);
            code = r.Refresh();
        }
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, r.GetLastError());
        }
        return r.GetNumAtoms() - before;
    }

private:
    std::shared_ptr<RecordingState> state_;
};

}  // namespace

void BindRecording(py::module_& m) {
    py::class_<AtomIterator>(m, "AtomIterator")
        .def(
            "__iter__", [](AtomIterator& it) -> AtomIterator& { return it; }, py::return_value_policy::reference)
        .def("__next__", &AtomIterator::Next);

    py::class_<Playback>(m, "Playback", "Frames as SourceKEL2FileReader pushes them; iterate for lists of atoms.")
        .def(
            "__iter__", [](Playback& p) -> Playback& { return p; }, py::return_value_policy::reference)
        .def("__next__", &Playback::Next)
        .def("__len__", &Playback::NumFrames)
        .def_property_readonly("num_frames", &Playback::NumFrames)
        .def_property_readonly("streams", &Playback::StreamIds);

    py::class_<Recording>(m, "Recording", "An open container file; a context manager that closes it on exit.")
        .def_property_readonly("path", &Recording::Path)
        .def_property_readonly("streams", &Recording::Streams, "Stream ids in the order they first appear in the file.")
        .def(
            "num_frames", [](Recording& r, std::uint16_t s) { return r.Reader().GetNumFrames(s); }, "stream"_a)
        .def(
            "frame_numbers",
            [](Recording& r, std::uint16_t s) {
                const auto numbers = r.Reader().GetFrameNumbers(s);
                return py::array_t<std::uint32_t>(static_cast<py::ssize_t>(numbers.size()), numbers.data());
            },
            "stream"_a, "The stream's stored frame numbers, ascending (from the index; nothing is read).")
        .def(
            "time_stamps",
            [](Recording& r, std::uint16_t s) {
                const auto stamps = r.Reader().GetTimeStamps(s);
                return py::array_t<std::int64_t>(static_cast<py::ssize_t>(stamps.size()), stamps.data());
            },
            "stream"_a, "The time stamps (microseconds) of the stream's atoms, in the order of frame_numbers().")
        .def("atom", &Recording::AtomOf, "stream"_a, "frame"_a,
             "The atom of `stream` stored under frame number `frame`. KeyError when there is none; KelError "
             "(KEL_ERR_CORRUPT) when it is damaged.")
        .def("atoms", &Recording::Atoms, "stream"_a = py::none(), py::keep_alive<0, 1>(),
             "Iterates the atoms: every record in file order, or with `stream` that stream's frames in order. "
             "Damaged atoms are skipped (and counted in `damage`).")
        .def(
            "playback",
            [](Recording& r, std::optional<std::vector<std::uint16_t>> streams) {
                // All streams are named explicitly: the source's default (an
                // empty list) works too but logs that it parsed nothing.
                return std::make_unique<Playback>(r.Path(), streams ? *streams : r.Streams());
            },
            "included_streams"_a = py::none(),
            "The frames exactly as the plugin's SourceKEL2FileReader pushes them into a graph: per frame a list of "
            "atoms, one per included stream, with stream-level layers restored.")
        .def_property_readonly("damage", [](Recording& r) { return DamageDict(r.Reader().GetDamageReport()); })
        .def(
            "verify",
            [](Recording& r) {
                KEL::ContainerVerification v;
                const std::string& path = r.Path();
                {
                    py::gil_scoped_release released;
                    v = KEL::VerifyContainer(path);
                }
                return VerificationDict(v);
            },
            "Checks every byte of the file (as `kel verify`) and returns the findings as a dict.")
        .def("refresh", &Recording::Refresh,
             "Lists atoms appended since opening (a recording in progress); returns "
             "how many were added.")
        .def_property_readonly("num_atoms", [](Recording& r) { return r.Reader().GetNumAtoms(); })
        .def_property_readonly("file_size", [](Recording& r) { return r.Reader().GetFileSize(); })
        .def_property_readonly("file_id", [](Recording& r) { return r.Reader().GetFileId(); })
        .def_property_readonly("created", [](Recording& r) { return r.Reader().GetCreationTime(); })
        .def_property_readonly(
            "writer_closed", [](Recording& r) { return r.Reader().IsClosed(); },
            "True when the writer closed the file (it ends with its index).")
        .def_property_readonly("closed", &Recording::IsClosedByUs, "True once close() was called.")
        .def("close", &Recording::Close)
        .def(
            "__enter__", [](Recording& r) -> Recording& { return r; }, py::return_value_policy::reference)
        .def("__exit__",
             [](Recording& r, const py::object&, const py::object&, const py::object&) {
                 r.Close();
                 return false;
             })
        .def("__repr__", [](Recording& r) {
            return "<kel.Recording '" + r.Path() + "'" + (r.IsClosedByUs() ? " closed" : "") + ">";
        });

    m.def(
        "open", [](const std::string& path, bool verify) { return std::make_unique<Recording>(path, verify); },
        "path"_a, "verify"_a = true,
        "Opens a container file. Raises KelError with the reader's code (KEL_ERR_NOT_FOUND, "
        "KEL_ERR_NOT_A_CONTAINER, ...) when it cannot.");
}

}  // namespace kel_python
