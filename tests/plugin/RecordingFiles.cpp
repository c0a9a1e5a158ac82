#include "plugin/RecordingFiles.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/Graph.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "optimization/DataOptimizer.h"
#include "support/TestSupport.h"

namespace kel_test {

namespace {

std::string Substitute(std::string text, const std::string& value) {
    if (const auto at = text.find("%s"); at != std::string::npos) {
        text.replace(at, 2, value);
    }
    return text;
}

}  // namespace

std::shared_ptr<KEL::Atom> MakeRecordedAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t numFrames,
                                            const RecordingOptions& options) {
    auto atom = std::make_shared<KEL::Atom>(stream, frame, options.timeStampOffset + 1'000'000LL + frame * 33'333LL);
    const std::uint32_t seed = stream * 100'003U + frame;
    atom->AddDataLayer(MakeTexture(8, 4, seed), true);
    if (!options.withoutMesh) {
        atom->AddDataLayer(MakeMesh(2, seed), true);
    }
    if (!options.withoutStreamInfo) {
        atom->AddDataLayer(
            std::make_shared<KEL::DataTypeStreamInfo>(numFrames, 30.0, "camera" + std::to_string(stream)), true);
    }
    atom->AddDataLayer(std::make_shared<KEL::DataTypeRecordingInfo>(1'700'000'000'000'000LL, "rig-a", "test take"),
                       true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{
                           {"take", options.take}, {"marker", options.take + "-" + std::to_string(stream) + "-MARK"}}),
                       true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("calib.bin", PatternBuffer(32, stream)), true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeCylinderCrop>(0.0, 0.0, 1.5, 0.0, 2.2), true);
    atom->AddDataLayer(MakeCamera(1, stream), true);
    return atom;
}

void WriteRecording(const std::string& path, const std::vector<StreamSpec>& streams, const RecordingOptions& options) {
    KEL::SerializeToKel serializer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    ASSERT_EQ(serializer.GetOpenResult(), 0U) << path;
    std::uint32_t maxFrames = 0;
    for (const auto& plan : streams) {
        maxFrames = std::max(maxFrames, plan.frames);
    }
    for (std::uint32_t frame = 0; frame < maxFrames; ++frame) {
        for (const auto& plan : streams) {
            if (frame >= plan.frames || std::ranges::find(plan.missingFrames, frame) != plan.missingFrames.end()) {
                continue;
            }
            auto atom = MakeRecordedAtom(plan.stream, frame, plan.frames, options);
            if (frame != 0) {
                Kel2File::DataOptimizer::OptimizeAtomData(atom);
            }
            ASSERT_EQ(serializer.SerializeAtom(atom), 0U) << path;
        }
    }
    ASSERT_EQ(serializer.Close(), 0U) << path;
}

void CorruptFirstAtom(const std::string& path, const std::string& take, std::uint16_t stream, std::uint32_t frames) {
    const std::string marker = take + "-" + std::to_string(stream) + "-MARK";
    auto bytes = ReadFileBytes(path);
    const auto at = std::search(bytes.begin(), bytes.end(), marker.begin(), marker.end());
    ASSERT_NE(at, bytes.end()) << marker;
    FlipByte(path, static_cast<std::uint64_t>(at - bytes.begin()), 0x20);
    KEL::ReadKEL2File probe(path.c_str());
    ASSERT_EQ(probe.Initialize(), 0U) << path;
    ASSERT_EQ(probe.GetNumFrames(stream), frames) << path;
    ASSERT_EQ(probe.GetFirstFrameAtom(stream), nullptr) << path;
}

KEL::KelErrorCode WriteNonContainer(const std::string& path) {
    std::ofstream(path) << "plain text, not a container";
    const KEL::KelErrorCode code = ReaderOpenCode(path);
    EXPECT_NE(code, KEL::KEL_OK) << path;
    return code;
}

KEL::KelErrorCode ReaderOpenCode(const std::string& path) {
    KEL::ReadKEL2File reader(path.c_str());
    return reader.Initialize();
}

void SetParam(KEL::Filter& filter, const std::string& name, const std::string& value) {
    auto param = filter.FindParam(name);
    ASSERT_NE(param, nullptr) << name;
    std::string error;
    ASSERT_TRUE(param->SetValueFromString(value, &error)) << name << ": " << error;
}

void ExpectPlayed(const KEL::Atom& played, const KEL::Atom& expected,
                  const std::shared_ptr<KEL::DataTypeStreamInfo>& streamInfo) {
    const auto where =
        "stream " + std::to_string(expected.GetStreamId()) + " frame " + std::to_string(expected.GetFrameNr());
    EXPECT_EQ(played.GetStreamId(), expected.GetStreamId()) << where;
    EXPECT_EQ(played.GetFrameNr(), expected.GetFrameNr()) << where;
    EXPECT_EQ(played.GetTimeStamp(), expected.GetTimeStamp()) << where;
    auto unmatched = played.GetAllDataLayers();
    EXPECT_EQ(std::erase(unmatched, std::static_pointer_cast<KEL::DataLayer>(streamInfo)), 1U) << where;
    for (const auto& layer : expected.GetAllDataLayers()) {
        if (layer->GetTypeGuid() == KEL::DataTypeStreamInfo::TheTypeGuid()) {
            continue;
        }
        const auto match =
            std::ranges::find_if(unmatched, [&](const auto& other) { return layer->ContentEquals(*other); });
        if (match == unmatched.end()) {
            ADD_FAILURE() << where << ": no " << layer->TypeName() << " alike";
        } else {
            unmatched.erase(match);
        }
    }
    EXPECT_TRUE(unmatched.empty()) << where << ": " << unmatched.size() << " layers too many";
}

PushResult PushFrame(KEL::Source& source, std::uint32_t frameNr) {
    PushResult result;
    result.code = source.pushDataToOutput(frameNr);
    result.atoms = source.TakeOutputQueue();
    return result;
}

SourceUnderTest::SourceUnderTest(Creator creator, std::string pathParam)
    : source_(static_cast<KEL::Source*>(creator())), pathParam_(std::move(pathParam)) {}

KEL::KelErrorCode SourceUnderTest::Open(const std::string& path,
                                        const std::vector<std::pair<std::string, std::string>>& extra) {
    EXPECT_EQ(source_->onInitializeParams(nullptr), 0U);
    SetParam(*source_, pathParam_, path);
    for (const auto& [name, value] : extra) {
        SetParam(*source_, name, value);
    }
    return source_->onInitialize(nullptr);
}

void SourceUnderTest::ExpectClosed() {
    EXPECT_EQ(source_->GetOutputNumStreams(), 0U);
    EXPECT_TRUE(source_->GetStreamIds().empty());
    EXPECT_EQ(source_->GetStreamInfo(), nullptr);
    EXPECT_EQ(source_->GetOutputProfile(), nullptr);
    EXPECT_EQ(PushFrame(*source_, 0).code, 1U);
}

void CheckInitFailure(SourceUnderTest::Creator creator, const std::string& pathParam, const InitFailureCase& failure) {
    TempDir dir;
    SourceUnderTest source(creator, pathParam);
    const std::string value = failure.prepare(dir);
    ASSERT_FALSE(::testing::Test::HasFatalFailure());
    KelCommon::ScopedLogCapture capture;

    const KEL::KelErrorCode code = source.Open(value, failure.extraParams);

    if (failure.code) {
        EXPECT_EQ(code, *failure.code);
    } else {
        EXPECT_NE(code, KEL::KEL_OK);
    }
    if (!failure.readerCodeOf.empty()) {
        EXPECT_EQ(code, ReaderOpenCode(dir.File(failure.readerCodeOf)));
    }
    EXPECT_EQ(source->GetLastErrorMessage(), Substitute(failure.message, value));
    if (!failure.log.empty()) {
        EXPECT_EQ(capture.Count(Substitute(failure.log, value)), 1U);
    }
    source.ExpectClosed();
}

std::function<std::string(const TempDir& dir)> WriteFiles(
    std::vector<FileSpec> files, std::vector<std::pair<std::string, std::uint16_t>> unreadableFirstAtoms,
    std::string result) {
    return [files = std::move(files), unreadable = std::move(unreadableFirstAtoms),
            result = std::move(result)](const TempDir& dir) {
        for (const auto& file : files) {
            WriteRecording(dir.File(file.name), file.streams, file.options);
        }
        for (const auto& [name, stream] : unreadable) {
            const auto file = std::ranges::find(files, name, &FileSpec::name);
            const auto planned = std::ranges::find(file->streams, stream, &StreamSpec::stream);
            CorruptFirstAtom(dir.File(name), file->options.take, stream, planned->frames);
        }
        return result.empty() ? dir.Path().string() : dir.File(result);
    };
}

GraphPlayback PlayThroughGraph(SourceUnderTest::Creator creator, const std::string& param, const std::string& value) {
    GraphPlayback playback;
    KEL::Graph graph;
    auto* source = graph.AddFilter(std::unique_ptr<KEL::Filter>(creator()), "source");
    auto* target = static_cast<CollectingTarget*>(graph.AddFilter(std::make_unique<CollectingTarget>(), "collect"));
    if (source == nullptr || target == nullptr) {
        ADD_FAILURE() << "the graph refused a filter";
        return playback;
    }
    SetParam(*source, param, value);
    std::string error;
    if (graph.Connect(source, target) != 0U || graph.Initialize(&error) != 0U) {
        ADD_FAILURE() << "the graph did not start: " << error;
        return playback;
    }
    const auto result = graph.Run();
    EXPECT_TRUE(result.Ok()) << result.message;
    playback.atoms = target->atoms;
    playback.streamInfo = static_cast<KEL::Source*>(source)->GetStreamInfo();
    return playback;
}

}  // namespace kel_test
