// The three source filters, checked on container files written the way the
// plugin's writers store streams: each stream's first atom whole, every later
// atom with its stream-level layers optimized away. What a source plays is
// compared with the atoms that went into the files.

#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Graph.h>
#include <KEL/KelErrorCode.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <KEL/Target.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <tuple>

#include "optimization/DataOptimizer.h"
#include "sources/SourceKEL2FileReader.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "support/TestSupport.h"
#include "targets/TargetTestSupport.h"
#include "utils/ParameterNames.h"

namespace {

using kel_test::TempDir;
using Ids = std::vector<std::uint32_t>;
// Streams of a recording in file order: id and number of frames.
using Streams = std::vector<std::pair<std::uint16_t, std::uint32_t>>;

struct RecordingOptions {
    // Stored in the static information, to tell apart the files that a
    // loosened atom's stream-level layers came from.
    std::string take = "take";
    // Added to every time stamp, to tell files apart.
    std::int64_t timeStampOffset = 0;
    // Leaves the stream information out of every atom.
    bool withoutStreamInfo = false;
    // Leaves the mesh out of every atom (a different profile).
    bool withoutMesh = false;
};

// The atom a live source would deliver for `frame` of `stream`: a texture and
// a mesh of the frame's own plus the stream-level layers, which depend only on
// the stream, `numFrames` and the take. The static information carries a
// marker of the stream, for MakeFirstAtomUnreadable.
std::shared_ptr<KEL::Atom> MakeRecordedAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t numFrames,
                                            const RecordingOptions& options = {}) {
    auto atom = kel_test::MakeFirstAtom(stream, numFrames, 8, 4, frame);
    atom->SetTimeStamp(atom->GetTimeStamp() + options.timeStampOffset);
    atom->RemoveDataLayers(KEL::DataTypeStaticInfo::TheTypeGuid());
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{
                           {"take", options.take}, {"marker", "MARK" + std::to_string(stream) + "."}}),
                       true);
    if (options.withoutStreamInfo) {
        atom->RemoveDataLayers(KEL::DataTypeStreamInfo::TheTypeGuid());
    }
    if (options.withoutMesh) {
        atom->RemoveDataLayers(KEL::DataTypeMesh::TheTypeGuid());
    }
    return atom;
}

// Writes a container at `path` with the streams interleaved frame by frame.
void WriteRecording(const std::string& path, const Streams& streams, const RecordingOptions& options = {}) {
    KEL::SerializeToKel serializer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    ASSERT_EQ(serializer.GetOpenResult(), 0U) << path;
    const std::uint32_t maxFrames =
        streams.empty() ? 0 : std::ranges::max_element(streams, {}, &Streams::value_type::second)->second;
    for (std::uint32_t frame = 0; frame < maxFrames; ++frame) {
        for (const auto& [stream, frames] : streams) {
            if (frame >= frames) {
                continue;
            }
            auto atom = MakeRecordedAtom(stream, frame, frames, options);
            if (frame != 0) {
                Kel2File::DataOptimizer::OptimizeAtomData(atom);
            }
            ASSERT_EQ(serializer.SerializeAtom(atom), 0U) << path;
        }
    }
    ASSERT_EQ(serializer.Close(), 0U) << path;
}

// Flips a byte of the marker in the first atom of `stream`: the file still
// opens, but that atom no longer reads.
void MakeFirstAtomUnreadable(const std::string& path, std::uint16_t stream) {
    const std::string marker = "MARK" + std::to_string(stream) + ".";
    const auto bytes = kel_test::ReadFileBytes(path);
    const auto at = std::search(bytes.begin(), bytes.end(), marker.begin(), marker.end());
    ASSERT_NE(at, bytes.end()) << marker;
    kel_test::FlipByte(path, static_cast<std::uint64_t>(at - bytes.begin()), 0x20);
    KEL::ReadKEL2File probe(path.c_str());
    ASSERT_EQ(probe.Initialize(), 0U) << path;
    ASSERT_EQ(probe.GetFirstFrameAtom(stream), nullptr) << path;
}

using kel_test::SetParam;

struct SourceKind {
    std::string name;
    KEL::FilterCreator creator;
    std::string pathParam;
};
const SourceKind kFileSource{"file", &SourceKEL2FileReaderFilterCreator, Kel2File::kParamKelFilePath};
const SourceKind kSequential{"sequential", &SourceKEL2MultiFileAppendFilterCreator, Kel2File::kParamKelFilesDir};
const SourceKind kMerged{"merged", &SourceKEL2MultiFileReaderFilterCreator, Kel2File::kParamKelFilesDir};

std::unique_ptr<KEL::Source> Make(const SourceKind& kind) {
    return std::unique_ptr<KEL::Source>(static_cast<KEL::Source*>(kind.creator()));
}

// Creates the parameters, sets the path (and the file source's included
// streams when given) and returns what onInitialize returns.
KEL::KelErrorCode Open(KEL::Source& source, const SourceKind& kind, const std::string& path,
                       const char* included = nullptr) {
    EXPECT_EQ(source.onInitializeParams(nullptr), 0U);
    SetParam(source, kind.pathParam, path);
    if (included != nullptr) {
        SetParam(source, Kel2File::kParamIncludedStreams, included);
    }
    return source.onInitialize(nullptr);
}

// Nothing is open: no streams, no stream information or profile, and a
// frame request pushes nothing.
void ExpectClosed(KEL::Source& source) {
    EXPECT_EQ(source.GetOutputNumStreams(), 0U);
    EXPECT_TRUE(source.GetStreamIds().empty());
    EXPECT_EQ(source.GetStreamInfo(), nullptr);
    EXPECT_EQ(source.GetOutputProfile(), nullptr);
    EXPECT_EQ(source.pushDataToOutput(0), 1U);
    EXPECT_TRUE(source.TakeOutputQueue().empty());
}

// A source played `expected` (stream, frame number, time stamp and the
// content of every layer, in any order) with its stream information replaced
// by the source's `streamInfo`.
void ExpectPlayed(const KEL::Atom& played, const std::shared_ptr<KEL::Atom>& expected,
                  const std::shared_ptr<KEL::DataTypeStreamInfo>& streamInfo) {
    auto announced = KEL::Atom::Copy(expected, -1, false);
    announced->RemoveDataLayers(KEL::DataTypeStreamInfo::TheTypeGuid());
    announced->AddDataLayer(streamInfo, true);
    std::string why;
    EXPECT_EQ(played.GetFrameNr(), expected->GetFrameNr());
    EXPECT_TRUE(kel_test::SameContent(played, *announced, &why))
        << "stream " << expected->GetStreamId() << " frame " << expected->GetFrameNr() << ": " << why;
}

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

// What a source delivers when a real graph plays it from `path` into a
// collecting target, and the stream information it announced.
struct GraphPlayback {
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
    std::shared_ptr<KEL::DataTypeStreamInfo> streamInfo;
};
GraphPlayback PlayThroughGraph(const SourceKind& kind, const std::string& path) {
    KEL::Graph graph;
    auto* source = graph.AddFilter(std::unique_ptr<KEL::Filter>(kind.creator()), "source");
    auto* target = static_cast<CollectingTarget*>(graph.AddFilter(std::make_unique<CollectingTarget>(), "collect"));
    if (source != nullptr) {
        SetParam(*source, kind.pathParam, path);
    }
    std::string error;
    if (graph.Connect(source, target, &error) != 0U || graph.Initialize(&error) != 0U) {
        ADD_FAILURE() << "the graph did not start: " << error;
        return {};
    }
    const auto result = graph.Run();
    EXPECT_TRUE(result.Ok()) << result.message;
    return {target->atoms, static_cast<KEL::Source*>(source)->GetStreamInfo()};
}

struct RecordingFile {
    std::string name;
    Streams streams = {};
    RecordingOptions options = {};
};

// One way for initialisation to fail, for each of `sources`: the containers
// written into a scratch directory, after which the source must report
// `message` and log `log` once ("%s" stands for the path it was given) and be
// left closed. Less often needed: the first atoms made unreadable, a file of
// plain text written too (the source must then return the reader's code for
// it, else `code`), the path given (the directory, or for the file source
// a.kel, when empty) and the file source's included streams.
struct Failure {
    std::vector<const SourceKind*> sources;
    std::vector<RecordingFile> files = {};
    std::string message = "";
    std::string log = "";
    std::vector<std::pair<std::string, std::uint16_t>> unreadable = {};
    std::string textFile = "";
    std::string path = "";
    const char* included = nullptr;
    KEL::KelErrorCode code = KEL::KEL_ERR_INVALID;
};

// The usual row: a failure that the files alone cause.
Failure Refused(std::vector<const SourceKind*> sources, std::vector<RecordingFile> files, std::string message,
                std::string log = "", std::vector<std::pair<std::string, std::uint16_t>> unreadable = {}) {
    return {std::move(sources), std::move(files), std::move(message), std::move(log), std::move(unreadable)};
}

TEST(Sources, EachInitialisationFailureIsReportedAndLeavesTheSourceClosed) {
    const std::vector<const SourceKind*> file = {&kFileSource};
    const std::vector<const SourceKind*> directories = {&kSequential, &kMerged};
    const std::vector<const SourceKind*> sequential = {&kSequential};
    const std::vector<const SourceKind*> merged = {&kMerged};
    const std::string noneIncluded = "There are no included file streams";
    const std::string processFailed = "Failed to process kel files in the '%s' directory";
    const std::string collectFailed = "Failed to collect kel files from '%s' directory";
    const std::string profilesDiffer = "All streams in all files must have the same profile";
    const std::string noStreamInfo = "The atom lacks stream info data layer";
    const std::string noLoosener = "' stream, can not setup optimized data loosener";
    const std::string dirMissing = "Directory '%s' does not exist";
    const std::vector<Failure> failures = {
        {.sources = file, .message = "Failed to open file '%s'", .path = "missing.kel", .code = KEL::KEL_ERR_NOT_FOUND},
        {.sources = file, .message = "Failed to open file '%s'", .textFile = "a.kel"},
        Refused(file, {{"a.kel", {}}}, noneIncluded),
        {.sources = file, .files = {{"a.kel", {{1, 3}}}}, .message = noneIncluded, .included = "7"},
        Refused(file, {{"a.kel", {{1, 3}}, {.withoutStreamInfo = true}}},
                "Failed to extract stream info for the '%s' file", noStreamInfo),
        // The output is described by the file's first stream, included or not.
        {.sources = file,
         .files = {{"a.kel", {{1, 3}, {2, 3}}}},
         .message = "There is no 'first' atom in the '%s' file",
         .unreadable = {{"a.kel", 1}},
         .included = "2"},
        Refused(file, {{"a.kel", {{1, 3}, {2, 3}}}}, "Failed to setup data looseners",
                "There is no 'first' atom in the '2" + noLoosener, {{"a.kel", 2}}),

        // Both directory sources, before they look into what the files hold.
        {.sources = directories, .message = dirMissing, .path = "absent", .code = KEL::KEL_ERR_NOT_FOUND},
        // Containers that are not named *.kel are not candidates.
        Refused(directories, {{"a.KEL", {{1, 2}}}, {"notes.txt", {{1, 2}}}}, collectFailed,
                "Directory '%s' does not contain a sequence of files"),
        {.sources = directories, .files = {{"a.kel", {{1, 2}}}}, .message = collectFailed, .textFile = "b.kel"},

        Refused(sequential, {{"a.kel", {{1, 2}, {2, 2}}}, {"b.kel", {{1, 2}, {3, 2}}}}, processFailed,
                "All files in the directory must hold the same collection of streams"),
        Refused(sequential, {{"a.kel", {{1, 2}}}, {"b.kel", {{1, 2}}, {.withoutMesh = true}}}, processFailed,
                "All files in the directory must have the same profile"),
        Refused(sequential, {{"a.kel", {}}, {"b.kel", {{1, 2}}}}, "Failed to extract stream IDs from the first file"),
        Refused(sequential, {{"a.kel", {{3, 2}}, {.withoutStreamInfo = true}}},
                "Failed to extract stream info from the file holding '3' stream", noStreamInfo),
        Refused(sequential, {{"a.kel", {{4, 2}}}, {"b.kel", {{4, 2}}}},
                "Failed to determine profile from the first file",
                "There is no 'first' atom in the '4' stream of a file", {{"a.kel", 4}}),
        Refused(sequential, {{"a.kel", {{1, 2}, {2, 2}, {3, 2}}}}, "Failed to setup data looseners",
                "There is no 'first' atom in the '3" + noLoosener, {{"a.kel", 3}}),
        // The stream information comes from the smallest stream.
        Refused(sequential, {{"a.kel", {{2, 2}, {1, 2}}}},
                "Failed to extract stream info from the file holding '1' stream", noStreamInfo, {{"a.kel", 1}}),

        Refused(merged, {{"a.kel", {{1, 3}, {2, 3}}}, {"b.kel", {{2, 3}}}}, processFailed,
                "Multiple files of the directory hold the same stream"),
        Refused(merged, {{"a.kel", {}}, {"b.kel", {}}}, processFailed,
                "There are no streams held by any of the files of the directory"),
        Refused(merged, {{"a.kel", {{1, 3}}}, {"b.kel", {{2, 3}}, {.withoutMesh = true}}}, profilesDiffer,
                "Profile of stream '2' differs from the profile of the filter"),
        Refused(merged, {{"a.kel", {{3, 2}}, {.withoutStreamInfo = true}}, {"b.kel", {{5, 2}}}},
                "Failed to extract stream info from the file holding '3' stream", noStreamInfo),
        Refused(merged, {{"a.kel", {{3, 2}}}, {"b.kel", {{5, 2}}}},
                "There is no 'first' atom in the file holding '3' stream", "", {{"a.kel", 3}}),
        Refused(merged, {{"a.kel", {{3, 2}}}, {"b.kel", {{5, 2}}}}, profilesDiffer,
                "There is no 'first' atom in the file holding '5' stream", {{"b.kel", 5}}),
    };
    for (const auto& failure : failures) {
        for (const SourceKind* kind : failure.sources) {
            TempDir dir;
            for (const auto& [name, streams, options] : failure.files) {
                WriteRecording(dir.File(name), streams, options);
            }
            for (const auto& [name, stream] : failure.unreadable) {
                MakeFirstAtomUnreadable(dir.File(name), stream);
            }
            if (!failure.textFile.empty()) {
                std::ofstream(dir.File(failure.textFile)) << "plain text, not a container";
            }
            const KEL::KelErrorCode code = failure.textFile.empty()
                                               ? failure.code
                                               : KEL::ReadKEL2File(dir.File(failure.textFile).c_str()).Initialize();
            const std::string path = !failure.path.empty()  ? dir.File(failure.path)
                                     : kind == &kFileSource ? dir.File("a.kel")
                                                            : dir.Path().string();
            const auto substitute = [&path](std::string text) {
                const auto at = text.find("%s");
                return at == std::string::npos ? text : text.replace(at, 2, path);
            };
            SCOPED_TRACE(kind->name + " source: " + substitute(failure.message));
            const auto source = Make(*kind);
            KelCommon::ScopedLogCapture capture;

            EXPECT_EQ(Open(*source, *kind, path, failure.included), code);

            EXPECT_EQ(source->GetLastErrorMessage(), substitute(failure.message));
            if (!failure.log.empty()) {
                EXPECT_EQ(capture.Count(substitute(failure.log)), 1U);
            }
            ExpectClosed(*source);
        }
    }
}

// Each source opens one recording after another, with and without
// onDeInitialize between, and then announces and plays the last one alone
// (the first is the longer, so that nothing of it may linger).
// Its profile is a new copy on every request. A frame is pushed whole or not
// at all: beyond the shortest stream nothing goes out, though the file's
// first stream has the frame.
TEST(Sources, ReinitialiseFromNothingAndPushOnlyWholeFrames) {
    for (const SourceKind* kind : {&kFileSource, &kSequential, &kMerged}) {
        SCOPED_TRACE(kind->name);
        TempDir first;
        TempDir second;
        WriteRecording(first.File("a.kel"), {{1, 3}, {2, 3}});
        WriteRecording(second.File("a.kel"), {{7, 3}, {8, 2}});
        const auto at = [&](const TempDir& dir) {
            return kind == &kFileSource ? dir.File("a.kel") : dir.Path().string();
        };
        const auto source = Make(*kind);
        ASSERT_EQ(Open(*source, *kind, at(first)), 0U) << source->GetLastErrorMessage();

        ASSERT_EQ(Open(*source, *kind, at(second)), 0U) << source->GetLastErrorMessage();

        EXPECT_EQ(source->GetStreamIds(), (Ids{7, 8}));
        EXPECT_EQ(source->GetStreamInfo()->GetNumFrames(), 2U);
        const auto profile = source->GetOutputProfile();
        const auto aggregated = source->GetAggregatedOutputProfile();
        ASSERT_TRUE(profile != nullptr && aggregated != nullptr);
        EXPECT_NE(profile, aggregated);
        EXPECT_TRUE(profile->Describes(aggregated) && aggregated->Describes(profile));
        EXPECT_EQ(profile->Size(), MakeRecordedAtom(7, 0, 3)->GetNumDataLayers());
        EXPECT_EQ(source->pushDataToOutput(1), 0U);
        EXPECT_EQ(source->TakeOutputQueue().size(), 2U);
        KelCommon::ScopedLogCapture capture;
        EXPECT_EQ(source->pushDataToOutput(2), 1U);
        EXPECT_TRUE(source->TakeOutputQueue().empty());
        // The sequential source has no frame 2 to look up.
        const std::size_t logged = kind == &kSequential ? 0 : 1;
        EXPECT_EQ(capture.Records().size(), logged);
        EXPECT_EQ(capture.Count("Stream '8' lacks an atom with frame number '2'"), logged);

        EXPECT_EQ(source->onDeInitialize(), 0U);
        ExpectClosed(*source);
        ASSERT_EQ(Open(*source, *kind, at(first)), 0U) << source->GetLastErrorMessage();
        EXPECT_EQ(source->GetStreamIds(), (Ids{1, 2}));
    }
}

// How "Included streams" selects among streams 0 to 3 of a file (in file
// order), and the pieces it logs as skipped, each once. A text without any
// valid id includes every stream and says so. One source opens the file
// again for each text.
TEST(FileSource, IncludedStreamsSelectInFileOrderAndSkippedPiecesAreLogged) {
    // Text, streams included, pieces skipped.
    const std::tuple<const char*, Ids, std::vector<std::string>> cases[] = {
        {"3, 1", {1, 3}, {}},
        {"x,2", {2}, {"x"}},
        {"1,,2", {1, 2}, {""}},                   // an empty piece between commas
        {"99999999999,0", {0}, {"99999999999"}},  // outside the range of int
        {"x", {0, 1, 2, 3}, {"x"}},
        {"", {0, 1, 2, 3}, {""}},  // an empty text is one empty piece
    };
    TempDir dir;
    WriteRecording(dir.File("a.kel"), {{0, 3}, {1, 3}, {2, 3}, {3, 3}});
    const auto source = Make(kFileSource);
    for (const auto& [text, included, skipped] : cases) {
        SCOPED_TRACE(text);
        KelCommon::ScopedLogCapture capture;

        EXPECT_EQ(Open(*source, kFileSource, dir.File("a.kel"), text), 0U) << source->GetLastErrorMessage();

        EXPECT_EQ(source->GetStreamIds(), included);
        EXPECT_EQ(capture.CountContaining("Failed to parse"), skipped.size());
        for (const auto& piece : skipped) {
            EXPECT_EQ(capture.Count("Failed to parse 'included stream Id' from string '" + piece + "', skipping"), 1U);
        }
        EXPECT_EQ(capture.Count("All file streams will be included"), included.size() == 4 ? 1U : 0U);
    }
}

// Generated directories: streams of different lengths spread over several
// files, sometimes beside a file without streams. The file source plays each
// file's streams in file order, the merged source the whole directory's in
// ascending order; both as many frames as the shortest stream holds, each atom
// restored from its own file, with the stream information of the first
// stream played.
TEST(FileAndMergedSources, PlayEveryStreamUpToTheShortest) {
    for (std::uint32_t seed = 0; seed < 6; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        TempDir dir;
        std::vector<std::uint16_t> ids = {1, 2, 5, 9, 12};
        std::shuffle(ids.begin(), ids.end(), random);
        ids.resize(1 + random() % ids.size());
        std::vector<Streams> files(1 + random() % std::min<std::size_t>(3, ids.size()));
        std::map<std::uint16_t, std::string> takeOf;
        for (std::size_t i = 0; i < ids.size(); ++i) {
            files[i % files.size()].emplace_back(ids[i], 1 + random() % 5);
            takeOf[ids[i]] = "file" + std::to_string(i % files.size());
        }
        for (std::size_t f = 0; f < files.size(); ++f) {
            const std::string take = "file" + std::to_string(f);
            WriteRecording(dir.File(take + ".kel"), files[f], {.take = take});
        }
        if (random() % 2 == 0) {
            WriteRecording(dir.File("empty.kel"), {});
        }
        const auto check = [&](const SourceKind& kind, const std::string& path, const Streams& order) {
            const auto played = PlayThroughGraph(kind, path);
            const std::uint32_t shortest = std::ranges::min_element(order, {}, &Streams::value_type::second)->second;
            ASSERT_NE(played.streamInfo, nullptr);
            EXPECT_EQ(played.streamInfo->GetNumFrames(), shortest);
            EXPECT_EQ(played.streamInfo->GetName(), "camera" + std::to_string(order.front().first));
            ASSERT_EQ(played.atoms.size(), shortest * order.size());
            for (std::size_t i = 0; i < played.atoms.size(); ++i) {
                const auto& [stream, frames] = order[i % order.size()];
                const auto frame = static_cast<std::uint32_t>(i / order.size());
                const auto expected = MakeRecordedAtom(stream, frame, frames, {.take = takeOf[stream]});
                ExpectPlayed(*played.atoms[i], expected, played.streamInfo);
            }
        };
        Streams all;
        for (std::size_t f = 0; f < files.size(); ++f) {
            SCOPED_TRACE("file source on file" + std::to_string(f));
            check(kFileSource, dir.File("file" + std::to_string(f) + ".kel"), files[f]);
            all.insert(all.end(), files[f].begin(), files[f].end());
        }
        std::ranges::sort(all);
        SCOPED_TRACE("merged source");
        check(kMerged, dir.Path().string(), all);
    }
}

// Generated directories of files with the same streams and different lengths
// (one may be named just ".kel"): the sequential source plays the files
// named *.kel one after the other in byte-wise path order, numbering frames on across files, streams in ascending
// order. Each file's first atoms keep their own stream-level layers; every later atom gets those of the first file.
TEST(SequentialSource, PlaysTheFilesInPathOrderWithContinuingFrameNumbers) {
    for (std::uint32_t seed = 0; seed < 6; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        TempDir dir;
        std::vector<std::string> names = {"a", "A", "9", "10", "b-2", "b_1", "b", ""};
        std::shuffle(names.begin(), names.end(), random);
        names.resize(1 + random() % 4);
        // Keyed by file name: all paths share the directory, so this is path order.
        std::map<std::string, std::pair<std::uint32_t, RecordingOptions>> files;
        for (std::size_t f = 0; f < names.size(); ++f) {
            const std::uint32_t frames = 1 + random() % 4;
            const RecordingOptions options{.take = names[f], .timeStampOffset = 10'000'000LL * static_cast<int>(f)};
            WriteRecording(dir.File(names[f] + ".kel"), {{7, frames}, {2, frames}}, options);
            files[names[f] + ".kel"] = {frames, options};
        }
        // Not played: a directory named *.kel, files in subdirectories, other extensions.
        std::filesystem::create_directories(dir.Path() / "folder.kel");
        WriteRecording(dir.File("folder.kel/inner.kel"), {{5, 1}});
        WriteRecording(dir.File("take.kel.bak"), {{5, 1}});
        std::vector<std::shared_ptr<KEL::Atom>> expected;
        for (const auto& [name, file] : files) {
            for (std::uint32_t local = 0; local < file.first; ++local) {
                for (const std::uint16_t stream : {2, 7}) {
                    RecordingOptions options = file.second;
                    options.take = local == 0 ? options.take : files.begin()->second.second.take;
                    expected.push_back(MakeRecordedAtom(stream, local, file.first, options));
                    expected.back()->SetFrameNr(static_cast<std::uint32_t>(expected.size() - 1) / 2);
                }
            }
        }

        const auto played = PlayThroughGraph(kSequential, dir.Path().string());

        ASSERT_NE(played.streamInfo, nullptr);
        EXPECT_EQ(played.streamInfo->GetNumFrames(), expected.size() / 2);
        ASSERT_EQ(played.atoms.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            ExpectPlayed(*played.atoms[i], expected[i], played.streamInfo);
        }
    }
}

// The first candidate that does not open ends the scan: the later ones are
// never opened. A dangling link among them escapes as a filesystem error,
// which the host reports as an exception of the filter.
TEST(SequentialSource, FirstFileThatDoesNotOpenEndsTheScanAndADanglingLinkThrows) {
    TempDir dir;
    WriteRecording(dir.File("a.kel"), {{1, 2}});
    std::ofstream(dir.File("b.kel")) << "not a container";
    std::ofstream(dir.File("c.kel")) << "neither is this one, and it must never be opened";
    const KEL::KelErrorCode expected = KEL::ReadKEL2File(dir.File("b.kel").c_str()).Initialize();
    std::vector<std::shared_ptr<KEL::ReadKEL2File>> readers;
    KelCommon::ScopedLogCapture capture;
    EXPECT_EQ(Kel2File::SourceKEL2MultiFileAppend().CollectReadersForFilesInDirectory(dir.Path().string(), readers),
              expected);
    ASSERT_EQ(readers.size(), 1U);
    EXPECT_EQ(capture.CountContaining("c.kel"), 0U);
    std::filesystem::create_symlink(dir.File("gone.data"), dir.File("a0.kel"));
    const auto source = Make(kSequential);
    EXPECT_THROW(Open(*source, kSequential, dir.Path().string()), std::exception);
    EXPECT_EQ(source->Initialize(nullptr), KEL::KEL_ERR_EXCEPTION);
}

}  // namespace
