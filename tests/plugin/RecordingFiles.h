#pragma once

// Container files for the reading-side tests, written the way the plugin's
// writers store streams: each stream's first atom whole, every later atom
// with its stream-level layers optimized away. The sources are checked
// against the atoms that went into the files.

#include <KEL/Atom.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Filter.h>
#include <KEL/KelErrorCode.h>
#include <KEL/Source.h>
#include <KEL/Target.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/TestSupport.h"

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
    // Text stored in the static information under "take", to tell apart the
    // files that a loosened atom's stream-level layers came from.
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
// version-1 camera parameters), which depend only on the stream, `numFrames`
// and the take.
std::shared_ptr<KEL::Atom> MakeRecordedAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t numFrames,
                                            const RecordingOptions& options = {});

// Writes a container at `path` with the streams interleaved frame by frame.
void WriteRecording(const std::string& path, const std::vector<StreamSpec>& streams,
                    const RecordingOptions& options = {});

// Flips a byte inside the first atom of `stream` (inside its static
// information) and checks that a reader still opens the file and
// counts `frames` frames for the stream but cannot read its first atom.
void CorruptFirstAtom(const std::string& path, const std::string& take, std::uint16_t stream, std::uint32_t frames);

// Writes text that is not a container at `path` and returns the code the
// host's reader gives for it (never 0).
KEL::KelErrorCode WriteNonContainer(const std::string& path);

// The code the host's reader gives when asked to open `path`.
KEL::KelErrorCode ReaderOpenCode(const std::string& path);

// Sets a parameter from text; fails the current test when refused.
void SetParam(KEL::Filter& filter, const std::string& name, const std::string& value);

// Checks that a source played `expected` (stream, frame number, time stamp
// and the content of every layer, in any order) with its stream information
// replaced by the source's `streamInfo`.
void ExpectPlayed(const KEL::Atom& played, const KEL::Atom& expected,
                  const std::shared_ptr<KEL::DataTypeStreamInfo>& streamInfo);

// Asks a source for one frame and takes what it pushed.
struct PushResult {
    std::uint32_t code = 0;
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
};
PushResult PushFrame(KEL::Source& source, std::uint32_t frameNr);

// A source made by its exported creator, held as the host's Source.
class SourceUnderTest {
public:
    using Creator = KEL::Filter* (*)();
    SourceUnderTest(Creator creator, std::string pathParam);

    // Creates the parameters, sets the path parameter to `path` and any
    // `extra` ones, and returns what onInitialize returns.
    KEL::KelErrorCode Open(const std::string& path, const std::vector<std::pair<std::string, std::string>>& extra = {});
    // Checks that nothing is open: no streams, no stream information or
    // profile, and a frame request pushes nothing.
    void ExpectClosed();

    KEL::Source* operator->() const { return source_.get(); }
    KEL::Source& operator*() const { return *source_; }

private:
    std::unique_ptr<KEL::Source> source_;
    std::string pathParam_;
};

// One way for a source's initialisation to fail. "%s" in `message` and `log`
// stands for the value given to the path parameter.
struct InitFailureCase {
    const char* name = "";
    // Writes the files into the scratch directory and returns the value for
    // the path parameter.
    std::function<std::string(const TempDir& dir)> prepare = {};
    // The code onInitialize must return (any non-zero code when empty).
    std::optional<KEL::KelErrorCode> code = {};
    std::string message = {};
    // A line that must be logged exactly once (none when empty).
    std::string log = {};
    // A file of the directory whose own reader code onInitialize must return.
    std::string readerCodeOf = {};
    std::vector<std::pair<std::string, std::string>> extraParams = {};
};

// Failed cases print as their name.
inline void PrintTo(const InitFailureCase& failure, std::ostream* os) { *os << failure.name; }

// Prepares a fresh scratch directory and source, initialises, checks the
// outcome against `failure` and that the source is left closed.
void CheckInitFailure(SourceUnderTest::Creator creator, const std::string& pathParam, const InitFailureCase& failure);

// One file of a directory: its name, streams and recording options.
struct FileSpec {
    std::string name;
    std::vector<StreamSpec> streams = {};
    RecordingOptions options = {};
};

// A `prepare` step for InitFailureCase: writes `files` into the directory,
// makes the first atom of each (file name, stream) in `unreadableFirstAtoms`
// unreadable (CorruptFirstAtom), and returns the path of file `result`, or of
// the directory when `result` is empty.
std::function<std::string(const TempDir& dir)> WriteFiles(
    std::vector<FileSpec> files, std::vector<std::pair<std::string, std::uint16_t>> unreadableFirstAtoms = {},
    std::string result = "");

// Names parameterized test cases after their `name` member.
struct CaseName {
    template <class Info>
    std::string operator()(const Info& info) const {
        return info.param.name;
    }
};

// What a source made by `creator` delivers when a real graph plays it into a
// collecting target with `param` set to `value`, and the stream information
// the source announced.
struct GraphPlayback {
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
    std::shared_ptr<KEL::DataTypeStreamInfo> streamInfo;
};
GraphPlayback PlayThroughGraph(SourceUnderTest::Creator creator, const std::string& param, const std::string& value);

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
