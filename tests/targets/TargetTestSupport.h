#pragma once

// Helpers for driving the plugin's target filters in tests: atom sets with
// stream-level layers, parameter access, a real graph or direct calls to
// drive a target, and reading a written file back complete.

#include <KEL/Atom.h>
#include <KEL/Filter.h>
#include <KEL/FilterParams.h>
#include <KEL/Graph.h>
#include <KEL/Source.h>
#include <KEL/Target.h>

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kel_test {

using AtomPtr = std::shared_ptr<KEL::Atom>;
// frames[i] holds frame i: one atom per stream, in stream order.
using Frames = std::vector<std::vector<AtomPtr>>;

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
inline void Press(const KEL::Filter& filter, const std::string& name) {
    Param<KEL::FilterParamCallback>(filter, name)->Press();
}

// Every stream of a container file, atoms ordered by stored frame number, as
// stored (`loosen` false) or completed from the stream's first atom and
// without thumbnails.
std::map<std::uint16_t, std::vector<AtomPtr>> ReadStreams(const std::string& path, bool loosen);
// The number of thumbnail layers of an atom.
std::size_t CountThumbnails(const KEL::Atom& atom);

// Same stream id and time stamp, and the same multiset of layers (content
// equality, order ignored: restoring a stored atom appends the stream-level
// layers). `why` names the first difference.
bool SameContent(const KEL::Atom& a, const KEL::Atom& b, std::string* why);

// Checks that `path` holds `frames` (every stream, renumbered from 0).
void ExpectFileHoldsFrames(const std::string& path, const Frames& frames);

// What the source tells the graph of its streams: their ids (and number),
// only their number, or nothing.
enum class StreamListing { kIds, kCountOnly, kNothing };

// One source playing `frames` (copies of them) into any number of targets
// through a real graph.
class GraphRun {
public:
    GraphRun(std::vector<std::uint16_t> streams, Frames frames, StreamListing listing = StreamListing::kIds);
    // Creates a target with its exported creator and connects it.
    KEL::Filter* AddTarget(KEL::FilterCreator creator, const std::string& name);
    // Initialises the graph and runs it once.
    KEL::RunResult Run(const KEL::RunOptions& options = {});
    KEL::Graph& Graph() { return graph_; }

private:
    KEL::Graph graph_;
    KEL::Filter* source_ = nullptr;
};

// Calls a target's hooks directly on the calling thread, as the graph does,
// with the filter states the graph would set. The target's input streams
// are `streams`; it is not part of any graph.
class DirectDriver {
public:
    // Runs onInitializeParams.
    DirectDriver(KEL::Target& target, std::vector<std::uint16_t> streams);
    void Initialize();
    void Play();
    // onProcessFrame for a copy of each atom (the first failing code is
    // returned), then onPostUpdate.
    KEL::KelErrorCode Deliver(const std::vector<AtomPtr>& frame);
    KEL::KelErrorCode Process(const AtomPtr& atom) { return target_.onProcessFrame(KEL::Atom::Copy(atom, -1, true)); }
    void PostUpdate();
    void Stop();

private:
    std::unique_ptr<KEL::Source> source_;
    KEL::Target& target_;
};

}  // namespace kel_test
