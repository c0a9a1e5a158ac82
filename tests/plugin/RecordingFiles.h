#pragma once

// Container files for the reading-side tests, written the way the plugin's
// writers store streams: each stream's first atom whole, every later atom
// with its stream-level layers optimized away.

#include <KEL/Atom.h>
#include <KEL/Filter.h>
#include <KEL/Source.h>
#include <KEL/Target.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kel_test {

// One stream of a recording. Frames are numbered 0 to frames-1 except those
// listed in `missingFrames`, which are not written.
struct StreamSpec {
    StreamSpec(std::uint16_t streamId, std::uint32_t numFrames, std::vector<std::uint32_t> missing = {})
        : stream(streamId), frames(numFrames), missingFrames(std::move(missing)) {}

    std::uint16_t stream;
    std::uint32_t frames;
    std::vector<std::uint32_t> missingFrames;
};

struct RecordingOptions {
    // Later atoms lose their stream-level layers, as the writers store them.
    bool optimizeLaterAtoms = true;
    // Text stored in the first atoms' static information under "take", to
    // tell files apart after loosening.
    std::string take = "take";
    // Added to every atom's time stamp, to tell files apart.
    std::int64_t timeStampOffset = 0;
    // Leaves the stream information out of every atom.
    bool withoutStreamInfo = false;
    // Leaves the mesh out of every atom (a different profile).
    bool withoutMesh = false;
};

// The atom a live source would deliver for `frame` of `stream`: a frame's
// texture and mesh plus the stream-level layers (stream information,
// recording and static information, binary attachment, cylinder crop and
// version-1 camera parameters).
std::shared_ptr<KEL::Atom> MakeRecordedAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t numFrames,
                                            const RecordingOptions& options = {});

// Writes a container at `path` with the streams interleaved frame by frame.
void WriteRecording(const std::string& path, const std::vector<StreamSpec>& streams,
                    const RecordingOptions& options = {});

// Flips a byte inside the first occurrence of `marker` in the file; throws
// when the marker is absent.
void CorruptAtMarker(const std::string& path, const std::string& marker);

// Sets a parameter from text; fails the current test when refused.
void SetParam(KEL::Filter& filter, const std::string& name, const std::string& value);

// The value of the "take" entry of an atom's static information ("" when it
// has none).
std::string TakeOf(const KEL::Atom& atom);

// The layer kinds of an atom, sorted.
std::vector<std::string> SortedLayerKinds(const KEL::Atom& atom);

// Asks a source for one frame and takes what it pushed.
struct PushResult {
    std::uint32_t code = 0;
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
};
PushResult PushFrame(KEL::Source& source, std::uint32_t frameNr);

// A target that keeps every atom it receives, for driving sources through a
// real graph.
class CollectingTarget : public KEL::Target {
public:
    CollectingTarget() : KEL::Target(true) {}

    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return {"CollectingTarget", KEL::FILTER_CATEGORY_TARGET};
    }
    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> atom) override {
        atoms.push_back(std::move(atom));
        return 0;
    }

    std::vector<std::shared_ptr<KEL::Atom>> atoms;
};

}  // namespace kel_test
