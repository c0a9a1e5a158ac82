// kel.open and kel.Recording: reading containers with the runtime's reader,
// and playing them through the plugin's SourceKEL2FileReader.

#include <KEL/ContainerJson.h>
#include <KEL/ContainerSummary.h>
#include <KEL/ContainerVerifier.h>
#include <KEL/FilterFactory.h>
#include <KEL/FilterParams.h>
#include <KEL/PluginLoader.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/Source.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "PythonSupport.h"
#include "frames/FrameReader.h"
#include "utils/ParameterNames.h"

namespace kel_python {

namespace {
using namespace pybind11::literals;
namespace fs = std::filesystem;

// The reader of an open recording, shared with the iterators and playbacks
// made from it. `path` never changes; `reader` is guarded by `mutex`, and is
// empty once the recording is closed.
struct RecordingState {
    std::string path;
    std::mutex mutex;
    std::unique_ptr<KEL::ReadKEL2File> reader;
};

[[noreturn]] void RaiseClosed(const RecordingState& state) {
    throw py::value_error("the recording '" + state.path + "' is closed");
}

// Runs `use(reader)` and returns what it returns. Every access to the reader
// goes through here: without the GIL, holding the recording's mutex, after
// checking under that mutex that the recording is still open (ValueError when
// not). close() takes the same mutex, so it waits for a call in flight. The
// GIL is released before waiting for the mutex, never held while waiting:
// the thread holding the mutex may need the GIL next. `use` must not touch
// Python objects.
template <class Use>
auto WithReader(RecordingState& state, Use&& use) {
    py::gil_scoped_release released;
    PassTestGate(GatePoint::kUnlocked);
    const std::lock_guard lock(state.mutex);
    if (!state.reader) {
        RaiseClosed(state);
    }
    PassTestGate(GatePoint::kLocked);
    return use(*state.reader);
}

// Iterates the atoms of a recording: every record in file order, or one
// stream's frames in frame order. Damaged atoms are skipped (the recording's
// `damage` counts them).
class AtomIterator {
public:
    AtomIterator(std::shared_ptr<RecordingState> state, std::optional<std::uint16_t> stream)
        : state_(std::move(state)), stream_(stream) {
        WithReader(*state_, [&](KEL::ReadKEL2File& reader) {
            if (stream_) {
                frames_ = reader.GetFrameNumbers(*stream_);
            } else {
                count_ = reader.GetNumAtoms();
            }
        });
    }

    std::shared_ptr<KEL::Atom> Next() {
        for (;;) {
            const std::size_t end = stream_ ? frames_.size() : static_cast<std::size_t>(count_);
            if (next_ >= end) {
                throw py::stop_iteration();
            }
            const std::size_t i = next_++;
            auto atom = WithReader(*state_, [&](KEL::ReadKEL2File& r) {
                return stream_ ? r.GetFrameAtom(*stream_, frames_[i]) : r.GetAtomAt(i);
            });
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

// Frames of a recording with every stream restored from its own first atom
// (its own stream information, with the count of frames this iterator
// plays, camera parameters, recording information, ...), by position, from
// `start` to `stop`. Steps run under the recording's mutex, as its calls do.
class FrameIterator {
public:
    FrameIterator(std::shared_ptr<RecordingState> state, const std::vector<std::uint16_t>& streams,
                  const py::object& start, const py::object& stop, bool skipDamaged)
        : state_(std::move(state)), skipDamaged_(skipDamaged) {
        std::string error;
        WithReader(*state_, [&](KEL::ReadKEL2File&) {
            reader_ = KelFrames::FrameReader::Open({state_->path}, KelFrames::Layout::kSequence, streams, &error);
        });
        if (!reader_) {
            throw py::value_error(error);
        }
        next_ = Bound(start, 0);
        end_ = Bound(stop, reader_->NumFrames());
    }

    std::vector<std::shared_ptr<KEL::Atom>> Next() {
        for (;;) {
            std::optional<KEL::ReaderDamage> lost;
            KelFrames::FrameGap gap = KelFrames::FrameGap::kNone;
            bool done = false;
            auto atoms = WithReader(*state_, [&](KEL::ReadKEL2File&) -> std::vector<std::shared_ptr<KEL::Atom>> {
                if (next_ >= end_) {
                    done = true;
                    return {};
                }
                auto frame = reader_->Frame(next_++, &gap);
                if (gap == KelFrames::FrameGap::kDamaged) {
                    const auto damage = reader_->Damage();
                    if (!damage.empty()) {
                        lost = damage.back();
                    }
                }
                return frame;
            });
            if (done) {
                throw py::stop_iteration();
            }
            if (gap == KelFrames::FrameGap::kNone) {
                return atoms;
            }
            if (gap == KelFrames::FrameGap::kDamaged && !skipDamaged_) {
                RaiseKelError(
                    KEL::KEL_ERR_CORRUPT,
                    "frame at position " + std::to_string(next_ - 1) + " of '" + state_->path + "' is lost to damage" +
                        (lost && lost->atomKnown ? " (stream " + std::to_string(lost->streamId) + " frame " +
                                                       std::to_string(lost->frameNr) + " at offset " +
                                                       std::to_string(lost->offset) + ": " + lost->reason + ")"
                                                 : std::string()) +
                        "; frames(skip_damaged=True) leaves such frames out");
            }
        }
    }

    std::uint32_t Length() const { return end_ > next_ ? end_ - next_ : 0; }

private:
    // A position given as an int, or seconds from the first frame as a
    // float; `fallback` for None.
    std::uint32_t Bound(const py::object& value, std::uint32_t fallback) const {
        if (value.is_none()) {
            return fallback;
        }
        if (py::isinstance<py::float_>(value)) {
            const double seconds = value.cast<double>();
            return reader_->PositionAt(reader_->TimeOf(0) + static_cast<std::int64_t>(std::llround(seconds * 1e6)));
        }
        const auto position = value.cast<std::int64_t>();
        if (position < 0) {
            throw py::value_error("a frame position cannot be negative");
        }
        return static_cast<std::uint32_t>(std::min<std::int64_t>(position, reader_->NumFrames()));
    }

    std::shared_ptr<RecordingState> state_;
    std::unique_ptr<KelFrames::FrameReader> reader_;
    bool skipDamaged_ = false;
    std::uint32_t next_ = 0;
    std::uint32_t end_ = 0;
};

// Makes sure the plugin with the file source is loaded, from the runtime's
// plugin search path (KEL::PluginLoader::SearchPath).
void LoadFilePlugin() {
    if (KEL::FilterFactory::FindByName("SourceKEL2FileReader")) {
        return;
    }
    std::vector<std::string> refusals;
    KEL::PluginLoader::LoadFromSearchPath(nullptr, &refusals);
    if (KEL::FilterFactory::FindByName("SourceKEL2FileReader")) {
        return;
    }
    std::string where;
    for (const auto& dir : KEL::PluginLoader::SearchPath()) {
        where += (where.empty() ? "" : ", ") + dir;
    }
    for (const auto& refusal : refusals) {
        where += "; refused " + refusal;
    }
    RaiseKelError(KEL::KEL_ERR_NOT_FOUND,
                  "the KEL2File plugin was not found (looked in " + where + "; set KEL_PLUGIN_PATH to its directory)");
}

// Frames as the plugin's single-file source pushes them into a graph: for
// each frame number the atoms of every included stream, with the stream-level
// layers that writers keep only in a stream's first atom restored. The source
// reads the file itself, but is used as the recording's reader is (under its
// mutex, one call at a time), and not after the recording is closed.
class Playback {
public:
    Playback(std::shared_ptr<RecordingState> state, const std::vector<std::uint16_t>& streams, bool skipDamaged)
        : state_(std::move(state)), streams_(streams), skipDamaged_(skipDamaged) {
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
        if (!source_->FindParam(Kel2File::kParamKelFilePath)->SetValueFromString(state_->path, &error) ||
            !source_->FindParam(Kel2File::kParamIncludedStreams)->SetValueFromString(included, &error)) {
            throw py::value_error(error);
        }
        // Nothing else knows this object yet: no lock needed.
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
            std::optional<KEL::ReaderDamage> lost;
            auto atoms = WithReader(*state_, [&](KEL::ReadKEL2File& reader) {
                pushed = source_->pushDataToOutput(frame);
                if (pushed != KEL::KEL_OK) {
                    lost = DamageOf(reader, frame);
                }
                return source_->TakeOutputQueue();
            });
            if (pushed == KEL::KEL_OK) {
                return atoms;
            }
            if (lost) {
                damagedFrames_.push_back(frame);
                if (!skipDamaged_) {
                    const std::string where = lost->atomKnown ? "stream " + std::to_string(lost->streamId) + " frame " +
                                                                    std::to_string(lost->frameNr) + " at offset " +
                                                                    std::to_string(lost->offset) + ": "
                                                              : std::string();
                    RaiseKelError(KEL::KEL_ERR_CORRUPT, "frame " + std::to_string(frame) + " of '" + lost->path +
                                                            "' is lost to damage (" + where + lost->reason +
                                                            "); playback(skip_damaged=True) leaves such frames out");
                }
            }
        }
        throw py::stop_iteration();
    }

    // Frames left out because an atom of theirs is damaged (with
    // skip_damaged), in order.
    std::vector<std::uint32_t> DamagedFrames() {
        return WithReader(*state_, [&](KEL::ReadKEL2File&) { return damagedFrames_; });
    }

    std::uint32_t NumFrames() {
        return WithReader(*state_, [&](KEL::ReadKEL2File&) { return frames_; });
    }
    std::vector<std::uint32_t> StreamIds() {
        return WithReader(*state_, [&](KEL::ReadKEL2File&) { return source_->GetStreamIds(); });
    }

private:
    // Why the source refused `frame`, when the reason is damage: every
    // included stream lists the frame, and one of its atoms does not read.
    // (A frame that some stream lacks is not played either, by the source's
    // rule, and is no damage.)
    std::optional<KEL::ReaderDamage> DamageOf(KEL::ReadKEL2File& reader, std::uint32_t frame) const {
        std::optional<std::uint16_t> unreadable;
        for (const std::uint16_t stream : streams_) {
            const auto numbers = reader.GetFrameNumbers(stream);
            if (!std::binary_search(numbers.begin(), numbers.end(), frame)) {
                return std::nullopt;
            }
            if (!unreadable && !reader.GetFrameAtom(stream, frame)) {
                unreadable = stream;
            }
        }
        if (!unreadable) {
            // Read without verification here, yet refused by the source,
            // which verifies.
            return KEL::ReaderDamage{state_->path, 0, 0, false, 0, frame, "an atom of it fails its checks"};
        }
        for (const KEL::ReaderDamage& d : reader.GetDamage()) {
            if (d.atomKnown && d.streamId == *unreadable && d.frameNr == frame) {
                return d;
            }
        }
        return KEL::ReaderDamage{state_->path, 0, 0, true, *unreadable, frame, reader.GetLastError()};
    }

    std::shared_ptr<RecordingState> state_;
    std::vector<std::uint16_t> streams_;
    bool skipDamaged_ = false;
    std::vector<std::uint32_t> damagedFrames_;
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
        // Nothing else knows this object yet: no lock needed.
        auto reader = std::make_unique<KEL::ReadKEL2File>(path.c_str(), options);
        KEL::KelErrorCode code = KEL::KEL_OK;
        {
            py::gil_scoped_release released;
            code = reader->Initialize();
        }
        if (code != KEL::KEL_OK) {
            const std::string why = reader->GetLastError();
            RaiseKelError(code, "cannot open '" + path + "'" + (why.empty() ? "" : ": " + why));
        }
        state_->reader = std::move(reader);
    }

    // Waits for a call in flight, then drops the reader; closing twice is
    // harmless.
    void Close() {
        py::gil_scoped_release released;
        std::unique_ptr<KEL::ReadKEL2File> reader;
        {
            const std::lock_guard lock(state_->mutex);
            reader = std::move(state_->reader);
        }
    }

    bool IsClosed() {
        py::gil_scoped_release released;
        const std::lock_guard lock(state_->mutex);
        return !state_->reader;
    }

    template <class Use>
    auto With(Use&& use) {
        return WithReader(*state_, std::forward<Use>(use));
    }

    const std::string& Path() const { return state_->path; }

    std::vector<std::uint16_t> Streams() {
        return With([](KEL::ReadKEL2File& r) {
            std::vector<std::uint16_t> ids;
            ids.reserve(static_cast<std::size_t>(std::max(r.GetNumStreams(), 0)));
            for (int i = 0; i < r.GetNumStreams(); ++i) {
                ids.push_back(r.GetStreamId(i));
            }
            return ids;
        });
    }

    std::shared_ptr<KEL::Atom> AtomOf(std::uint16_t stream, std::uint32_t frame) {
        bool listed = false;
        auto atom = With([&](KEL::ReadKEL2File& r) {
            auto found = r.GetFrameAtom(stream, frame);
            if (!found) {
                const auto numbers = r.GetFrameNumbers(stream);
                listed = std::binary_search(numbers.begin(), numbers.end(), frame);
            }
            return found;
        });
        if (atom) {
            return atom;
        }
        if (!listed) {
            throw py::key_error("no frame " + std::to_string(frame) + " in stream " + std::to_string(stream));
        }
        RaiseKelError(KEL::KEL_ERR_CORRUPT, "frame " + std::to_string(frame) + " of stream " + std::to_string(stream) +
                                                " in '" + state_->path + "' is damaged");
    }

    AtomIterator Atoms(std::optional<std::uint16_t> stream) { return {state_, stream}; }

    std::unique_ptr<FrameIterator> Frames(const std::optional<std::vector<std::uint16_t>>& streams,
                                          const py::object& start, const py::object& stop, bool skipDamaged) {
        return std::make_unique<FrameIterator>(state_, streams ? *streams : std::vector<std::uint16_t>{}, start, stop,
                                               skipDamaged);
    }

    // The stream's atom shown at `time` (microseconds): the last one stamped
    // at or before it.
    std::shared_ptr<KEL::Atom> AtomAt(std::uint16_t stream, std::int64_t time) {
        std::optional<std::uint32_t> frame;
        With([&](KEL::ReadKEL2File& r) {
            const auto numbers = r.GetFrameNumbers(stream);
            const auto stamps = r.GetTimeStamps(stream);
            for (std::size_t i = 0; i < stamps.size(); ++i) {
                if (stamps[i] <= time && (!frame || stamps[i] >= stamps[*frame])) {
                    frame = static_cast<std::uint32_t>(i);
                }
            }
            if (frame) {
                frame = numbers[*frame];
            }
        });
        if (!frame) {
            throw py::key_error("stream " + std::to_string(stream) + " has no atom at or before " +
                                std::to_string(time));
        }
        return AtomOf(stream, *frame);
    }

    std::unique_ptr<Playback> PlaybackOf(const std::optional<std::vector<std::uint16_t>>& streams, bool skipDamaged) {
        // All streams are named explicitly: the source's default (an empty
        // list) works too but logs that it parsed nothing.
        std::vector<std::uint16_t> ids = streams ? *streams : Streams();
        With([](KEL::ReadKEL2File&) {});  // ValueError once closed, also with the streams given
        return std::make_unique<Playback>(state_, ids, skipDamaged);
    }

    std::uint64_t Refresh() {
        KEL::KelErrorCode code = KEL::KEL_OK;
        std::string why;
        const std::uint64_t added = With([&](KEL::ReadKEL2File& r) -> std::uint64_t {
            const std::uint64_t before = r.GetNumAtoms();
            code = r.Refresh();
            if (code != KEL::KEL_OK) {
                why = r.GetLastError();
                return 0;
            }
            return r.GetNumAtoms() - before;
        });
        if (code != KEL::KEL_OK) {
            RaiseKelError(code, why);
        }
        return added;
    }

    // One entry per atom record in file order, from the records' headers
    // and layer descriptors (ReadKEL2File::DescribeAtomAt): no blob is read.
    py::dict AtomIndex() {
        std::vector<KEL::AtomDescription> described = With([](KEL::ReadKEL2File& r) {
            std::vector<KEL::AtomDescription> all;
            all.reserve(static_cast<std::size_t>(r.GetNumAtoms()));
            for (std::uint64_t i = 0; i < r.GetNumAtoms(); ++i) {
                all.push_back(r.DescribeAtomAt(i));
            }
            return all;
        });
        const auto n = static_cast<py::ssize_t>(described.size());
        py::array_t<std::uint16_t> streams(n);
        py::array_t<std::uint32_t> frames(n);
        py::array_t<std::int64_t> stamps(n);
        py::array_t<std::uint64_t> stored(n);
        py::array_t<bool> damaged(n);
        py::list types;
        py::list reasons;
        for (py::ssize_t i = 0; i < n; ++i) {
            const KEL::AtomDescription& d = described[static_cast<std::size_t>(i)];
            streams.mutable_at(i) = d.key.streamId;
            frames.mutable_at(i) = d.key.frameNr;
            stamps.mutable_at(i) = d.key.timeStamp;
            stored.mutable_at(i) = d.storedBytes;
            damaged.mutable_at(i) = d.damaged;
            py::tuple names(d.layers.size());
            for (std::size_t l = 0; l < d.layers.size(); ++l) {
                names[l] = d.layers[l].typeName;
            }
            types.append(std::move(names));
            reasons.append(d.reason);
        }
        return py::dict("stream"_a = streams, "frame"_a = frames, "time_stamp"_a = stamps, "stored_bytes"_a = stored,
                        "layer_types"_a = types, "damaged"_a = damaged, "damage_reason"_a = reasons);
    }

    py::object Verify() {
        With([](KEL::ReadKEL2File&) {});  // ValueError once closed
        // The verifier reads the file on its own, not through the reader.
        KEL::ContainerVerification v;
        {
            py::gil_scoped_release released;
            v = KEL::VerifyContainer(state_->path);
        }
        return FromJson(KEL::ToJson(v, state_->path));
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

    py::class_<FrameIterator>(m, "FrameIterator", "Frames of complete atoms; iterate for lists of atoms.")
        .def(
            "__iter__", [](FrameIterator& it) -> FrameIterator& { return it; }, py::return_value_policy::reference)
        .def("__next__", &FrameIterator::Next)
        .def("__len__", &FrameIterator::Length);

    py::class_<Playback>(m, "Playback", "Frames as SourceKEL2FileReader pushes them; iterate for lists of atoms.")
        .def(
            "__iter__", [](Playback& p) -> Playback& { return p; }, py::return_value_policy::reference)
        .def("__next__", &Playback::Next)
        .def("__len__", &Playback::NumFrames)
        .def_property_readonly("num_frames", &Playback::NumFrames)
        .def_property_readonly("streams", &Playback::StreamIds)
        .def_property_readonly("damaged_frames", &Playback::DamagedFrames,
                               "Frames left out because an atom of theirs is damaged (skip_damaged=True).");

    py::class_<Recording>(m, "Recording", "An open container file; a context manager that closes it on exit.")
        .def_property_readonly("path", &Recording::Path)
        .def_property_readonly("streams", &Recording::Streams, "Stream ids in the order they first appear in the file.")
        .def(
            "num_frames",
            [](Recording& r, std::uint16_t s) {
                return r.With([s](KEL::ReadKEL2File& f) { return f.GetNumFrames(s); });
            },
            "stream"_a)
        .def(
            "frame_numbers",
            [](Recording& r, std::uint16_t s) {
                const auto numbers = r.With([s](KEL::ReadKEL2File& f) { return f.GetFrameNumbers(s); });
                return py::array_t<std::uint32_t>(static_cast<py::ssize_t>(numbers.size()), numbers.data());
            },
            "stream"_a, "The stream's stored frame numbers, ascending (from the index; nothing is read).")
        .def(
            "time_stamps",
            [](Recording& r, std::uint16_t s) {
                const auto stamps = r.With([s](KEL::ReadKEL2File& f) { return f.GetTimeStamps(s); });
                return py::array_t<std::int64_t>(static_cast<py::ssize_t>(stamps.size()), stamps.data());
            },
            "stream"_a, "The time stamps (microseconds) of the stream's atoms, in the order of frame_numbers().")
        .def("atom", &Recording::AtomOf, "stream"_a, "frame"_a,
             "The atom of `stream` stored under frame number `frame`. KeyError when there is none; KelError "
             "(KEL_ERR_CORRUPT) when it is damaged.")
        .def("frames", &Recording::Frames, "streams"_a = py::none(), "start"_a = py::none(), "stop"_a = py::none(),
             "skip_damaged"_a = false,
             "Frames as lists of complete atoms, one per stream, each stream restored from its own first atom (its own "
             "name, rate and frame count; unlike playback(), which gives every stream the first one's, as the "
             "plugin's source does). start and stop are frame positions (int) or seconds from the first frame "
             "(float); stop is excluded. A frame with a damaged atom raises KelError unless skip_damaged.")
        .def("atom_at", &Recording::AtomAt, "stream"_a, "time"_a,
             "The stream's atom shown at `time` (microseconds, as time stamps): the last one stamped at or before "
             "it. KeyError when there is none.")
        .def("atoms", &Recording::Atoms, "stream"_a = py::none(), py::keep_alive<0, 1>(),
             "Iterates the atoms: every record in file order, or with `stream` that stream's frames in order. "
             "Damaged atoms are skipped (and counted in `damage`).")
        .def("playback", &Recording::PlaybackOf, "included_streams"_a = py::none(), "skip_damaged"_a = false,
             "The frames exactly as the plugin's SourceKEL2FileReader pushes them into a graph: per frame a list of "
             "atoms, one per included stream, with stream-level layers restored. A frame with a damaged atom raises "
             "KelError (KEL_ERR_CORRUPT) naming file, stream, frame and offset; with skip_damaged it is left out "
             "and listed in the playback's damaged_frames.")
        .def_property_readonly(
            "damage",
            [](Recording& r) {
                return FromJson(KEL::ToJson(r.With([](KEL::ReadKEL2File& f) { return f.GetDamageReport(); })));
            })
        .def(
            "summary",
            [](Recording& r) {
                return FromJson(
                    KEL::ToJson(r.With([](KEL::ReadKEL2File& f) { return KEL::SummarizeOpenContainer(f); })));
            },
            "What the file holds, as `kel info --json` shows it: streams with their frames, time span, stored "
            "bytes, missing frames and first-atom layers; the playable frame count, damage, identity.")
        .def("atom_index", &Recording::AtomIndex,
             "Every atom record in file order, as columns: stream, frame, time_stamp and stored_bytes (arrays), "
             "layer_types (a tuple of type names per atom), damaged (bool array) and damage_reason. Read from the "
             "index and each record's header and layer descriptors, without the payloads: a payload whose "
             "checksum fails is damaged here only once a read met it (verify() checks every byte).")
        .def("verify", &Recording::Verify,
             "Checks every byte of the file (as `kel verify`) and returns the findings as a dict.")
        .def("refresh", &Recording::Refresh,
             "Lists atoms appended since opening (a recording in progress); returns "
             "how many were added.")
        .def_property_readonly(
            "num_atoms", [](Recording& r) { return r.With([](KEL::ReadKEL2File& f) { return f.GetNumAtoms(); }); })
        .def_property_readonly(
            "file_size", [](Recording& r) { return r.With([](KEL::ReadKEL2File& f) { return f.GetFileSize(); }); })
        .def_property_readonly("file_id",
                               [](Recording& r) { return r.With([](KEL::ReadKEL2File& f) { return f.GetFileId(); }); })
        .def_property_readonly(
            "created", [](Recording& r) { return r.With([](KEL::ReadKEL2File& f) { return f.GetCreationTime(); }); })
        .def_property_readonly(
            "writer_closed", [](Recording& r) { return r.With([](KEL::ReadKEL2File& f) { return f.IsClosed(); }); },
            "True when the writer closed the file (it ends with its index).")
        .def_property_readonly("closed", &Recording::IsClosed, "True once close() was called.")
        .def("close", &Recording::Close,
             "Closes the file: waits for a call that is reading it on another thread, after which every call raises "
             "ValueError. Closing again does nothing.")
        .def(
            "__enter__", [](Recording& r) -> Recording& { return r; }, py::return_value_policy::reference)
        .def("__exit__",
             [](Recording& r, const py::object&, const py::object&, const py::object&) {
                 r.Close();
                 return false;
             })
        .def("__repr__",
             [](Recording& r) { return "<kel.Recording '" + r.Path() + "'" + (r.IsClosed() ? " closed" : "") + ">"; });

    m.def(
        "summary",
        [](const std::filesystem::path& path) {
            KEL::ContainerSummary summary;
            {
                py::gil_scoped_release released;
                summary = KEL::SummarizeContainer(path.string());
            }
            return FromJson(KEL::ToJson(summary));
        },
        "path"_a,
        "Summarises a container file as `kel info --json` does. Never raises for the file: one that cannot be "
        "opened gives {'path', 'ok': False, 'error_code', 'error'}.");
    m.def(
        "verify",
        [](const std::filesystem::path& path) {
            KEL::ContainerVerification v;
            {
                py::gil_scoped_release released;
                v = KEL::VerifyContainer(path.string());
            }
            return FromJson(KEL::ToJson(v, path.string()));
        },
        "path"_a,
        "Checks every byte of a file, as `kel verify` does, and returns the findings as a dict (Recording.verify()'s); "
        "a file that cannot be opened gives the verdict \"UNREADABLE\" and open_error, not an exception.");
    m.def(
        "open",
        [](const std::filesystem::path& path, bool verify) {
            return std::make_unique<Recording>(path.string(), verify);
        },
        "path"_a, "verify"_a = true,
        "Opens a container file. Raises KelError with the reader's code (KEL_ERR_NOT_FOUND, "
        "KEL_ERR_NOT_A_CONTAINER, ...) when it cannot.");
}

}  // namespace kel_python
