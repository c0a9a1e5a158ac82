#pragma once

// Helpers for driving the plugin's target filters in tests: an in-memory
// source, atom sets with stream-level layers, parameter access, and reading a
// written file back complete.

#include <KEL/Atom.h>
#include <KEL/Filter.h>
#include <KEL/FilterParams.h>
#include <KEL/Graph.h>
#include <KEL/Source.h>
#include <KEL/Target.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kel_test {

using AtomPtr = std::shared_ptr<KEL::Atom>;
// frames[i] holds frame i: one atom per stream, in stream order.
using Frames = std::vector<std::vector<AtomPtr>>;

// A source that plays frames held in memory. It pushes copies, so the held
// atoms keep their frame numbers whatever the targets do.
class MemorySource : public KEL::Source {
public:
    MemorySource(std::vector<std::uint16_t> streams, Frames frames);

    KelCommon::Guid TypeGuid() const override;
    KEL::FilterClassInfo GetFilterClassInfo() const override;
    std::shared_ptr<KEL::Profile> GetOutputProfile() override;
    std::uint32_t GetOutputNumStreams() override;
    std::vector<std::uint32_t> GetStreamIds() override;
    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override;
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

private:
    std::vector<std::uint16_t> streams_;
    Frames frames_;
};

// `count` frames of `streams`. Every atom is complete: its own texture and
// mesh plus the stream's stream-level layers (stream information, recording
// and static information, binary, crop), shared by all atoms of the stream.
// Streams at even positions have a per-frame camera (version 2), those at odd
// positions a fixed one (version 1). Incoming frame numbers are firstFrameNr,
// firstFrameNr + step, ...
Frames MakeCompleteFrames(const std::vector<std::uint16_t>& streams, std::uint32_t count,
                          std::uint32_t firstFrameNr = 0, std::uint32_t step = 1, std::uint32_t width = 16,
                          std::uint32_t height = 8);

// Parameter access by name; fails the test when absent or of another class.
template <class T>
std::shared_ptr<T> Param(const KEL::Filter& filter, const std::string& name) {
    auto param = std::dynamic_pointer_cast<T>(filter.FindParam(name));
    if (!param) {
        throw std::logic_error("filter has no parameter '" + name + "' of the expected type");
    }
    return param;
}
void SetParam(KEL::Filter& filter, const std::string& name, const std::string& text);

// One writer strategy and its two target classes, "TargetKEL2File<name>"
// writing on the graph thread and "TargetKEL2File<name>Async" on a thread of
// its own.
struct TargetStrategy {
    const char* name;
    KEL::FilterCreator sync;
    KEL::FilterCreator async;
    bool snapshot;
    bool perStream;
};
// The four strategies: Writer, SnapshotWriter, PerStreamWriter,
// PerStreamSnapshotWriter.
const std::vector<TargetStrategy>& TargetStrategies();
inline void PrintTo(const TargetStrategy& s, std::ostream* os) { *os << s.name; }
std::string StrategyName(const ::testing::TestParamInfo<TargetStrategy>& info);

// Makes targets of strategy `s` record from the first frame: "Enable
// Recording" on, or snapshots of `snapshotFrames` frames taken before frame 0
// (the returned options press the button).
KEL::RunOptions Arm(const TargetStrategy& s, const std::vector<KEL::Filter*>& targets, std::uint32_t snapshotFrames);
// The files strategy `s` writes for the path `base`.kel and input `streams`.
std::vector<std::string> OutputFiles(const TargetStrategy& s, const std::string& base,
                                     const std::vector<std::uint16_t>& streams);

// Every stream of a container file, atoms ordered by stored frame number, as
// stored (`loosen` false) or completed from the stream's first atom.
std::map<std::uint16_t, std::vector<AtomPtr>> ReadStreams(const std::string& path, bool loosen);

// Same stream id and time stamp, and the same multiset of layers (content
// equality, order ignored). `why` names the first difference.
bool SameContent(const KEL::Atom& a, const KEL::Atom& b, std::string* why = nullptr);

// Checks that `path` holds `frames` (every stream, renumbered from 0).
void ExpectFileHoldsFrames(const std::string& path, const Frames& frames);

// One source playing `frames` into any number of targets through a real graph.
class GraphRun {
public:
    GraphRun(std::vector<std::uint16_t> streams, Frames frames);
    // Creates a target with its exported creator and connects it.
    KEL::Filter* AddTarget(KEL::FilterCreator creator, const std::string& name);
    // Initialises the graph (first call only) and runs it.
    KEL::RunResult Run(const KEL::RunOptions& options = {});
    KEL::Graph& Graph() { return graph_; }

private:
    KEL::Graph graph_;
    KEL::Filter* source_ = nullptr;
    bool initialized_ = false;
};

// Calls a target's hooks directly on the calling thread, as the graph does,
// with the filter states the graph would set. The target's input streams
// are `streams`; it is not part of any graph.
class DirectDriver {
public:
    DirectDriver(KEL::Target& target, std::vector<std::uint16_t> streams);
    // onInitializeParams already ran (constructor); this initialises.
    void Initialize();
    void Play();
    // onProcessFrame for a copy of each atom (the first failing code is
    // returned), then onPostUpdate.
    KEL::KelErrorCode Deliver(const std::vector<AtomPtr>& frame);
    KEL::KelErrorCode Process(const AtomPtr& atom);
    void PostUpdate();
    void Stop();

private:
    MemorySource source_;
    KEL::Target& target_;
};

}  // namespace kel_test
