#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/FilterFactory.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/TestSupport.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetTestSupport.h"

namespace {

using kel_test::ExpectFileHoldsFrames;
using kel_test::Frames;
using kel_test::GraphRun;
using kel_test::Param;
using kel_test::ReadStreams;
using kel_test::SetParam;
using kel_test::TargetStrategy;
using kel_test::TempDir;

// The frames of one stream only, for checking a per-stream file.
Frames OnlyStream(const Frames& frames, std::size_t index) {
    Frames result;
    for (const auto& frame : frames) {
        result.push_back({frame.at(index)});
    }
    return result;
}

Frames Slice(const Frames& frames, std::size_t begin, std::size_t end) {
    return Frames(frames.begin() + static_cast<std::ptrdiff_t>(begin),
                  frames.begin() + static_cast<std::ptrdiff_t>(end));
}

std::size_t AtomsIn(const std::string& path) {
    std::size_t n = 0;
    for (const auto& [stream, atoms] : ReadStreams(path, false)) {
        n += atoms.size();
    }
    return n;
}

class SyncTargetRoundTrip : public ::testing::TestWithParam<TargetStrategy> {};

TEST_P(SyncTargetRoundTrip, KeepsEveryLayerOfEveryAtomAndNumbersFramesFromZero) {
    const TargetStrategy& s = GetParam();
    TempDir dir;
    // Incoming frame numbers 100, 103, ... are written as 0, 1, ...
    const Frames frames = kel_test::MakeCompleteFrames({4, 9}, 6, 100, 3);
    GraphRun run({4, 9}, frames);
    KEL::Filter* target = run.AddTarget(s.sync, "writer");
    kel_test::SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    run.Run(kel_test::Arm(s, {target}, 6));
    const auto files = kel_test::OutputFiles(s, dir.File("rec"), {4, 9});
    for (std::size_t f = 0; f < files.size(); ++f) {
        const Frames held = s.perStream ? OnlyStream(frames, f) : frames;
        ExpectFileHoldsFrames(files[f], held);
        // As stored, only a stream's first atom carries its stream-level layers.
        const auto stored = ReadStreams(files[f], false);
        for (std::size_t k = 0; k < held[0].size(); ++k) {
            const auto& atoms = stored.at(held[0][k]->GetStreamId());
            ASSERT_EQ(atoms.size(), held.size()) << files[f];
            EXPECT_EQ(atoms[0]->GetNumDataLayers(), held[0][k]->GetNumDataLayers());
            EXPECT_LT(atoms[1]->GetNumDataLayers(), held[1][k]->GetNumDataLayers());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryStrategy, SyncTargetRoundTrip, ::testing::ValuesIn(kel_test::TargetStrategies()),
                         kel_test::StrategyName);

class SyncTargets : public ::testing::Test {
protected:
    // A basic writer in `run` recording into `file`.
    KEL::Filter* Recorder(GraphRun& run, const std::string& file, const std::string& name = "writer") {
        KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, name);
        SetParam(*target, "KEL File Path", dir.File(file));
        SetParam(*target, "Enable Recording", "true");
        return target;
    }
    // A target of `creator` driven directly on stream 1, initialised.
    KEL::Target& Driven(KEL::FilterCreator creator, bool record) {
        filter_.reset(creator());
        auto& target = dynamic_cast<KEL::Target&>(*filter_);
        driver_ = std::make_unique<kel_test::DirectDriver>(target, std::vector<std::uint16_t>{1});
        SetParam(target, "KEL File Path", dir.File("rec.kel"));
        if (record) {
            SetParam(target, "Enable Recording", "true");
        }
        driver_->Initialize();
        return target;
    }
    kel_test::DirectDriver& Driver() { return *driver_; }

    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 10);

private:
    std::unique_ptr<KEL::Filter> filter_;
    std::unique_ptr<kel_test::DirectDriver> driver_;
};

TEST_F(SyncTargets, RecordingSwitchedOffAndOnStartsANewFileNumberedFromZero) {
    KelCommon::ScopedLogCapture log;
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = Recorder(run, "rec.kel");
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph&, std::uint32_t nr) {
        if (nr == 3 || nr == 6) {
            SetParam(*target, "Enable Recording", nr == 6 ? "true" : "false");
        }
    };
    run.Run(options);
    // Changes apply after the frame in progress: frame 3 is still written,
    // frame 6 not yet; the reopened file holds frames 7 to 9.
    ExpectFileHoldsFrames(dir.File("rec.kel"), Slice(frames, 7, 10));
    EXPECT_EQ(log.CountContaining("WriterBase::Start writing"), 2U);
    EXPECT_EQ(log.CountContaining("WriterBase::Stop writing"), 2U);
}

TEST_F(SyncTargets, PathChangeSwitchesFilesAfterTheFrameInProgress) {
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = Recorder(run, "a.kel");
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph&, std::uint32_t nr) {
        if (nr == 4) {
            SetParam(*target, "KEL File Path", dir.File("b.kel"));
        }
    };
    run.Run(options);
    ExpectFileHoldsFrames(dir.File("a.kel"), Slice(frames, 0, 5));
    ExpectFileHoldsFrames(dir.File("b.kel"), Slice(frames, 5, 10));
}

TEST_F(SyncTargets, EachSnapshotPressAddsThreeFramesOfEveryStream) {
    for (int presses : {1, 2}) {
        SCOPED_TRACE(presses);
        const std::string file = dir.File("snap" + std::to_string(presses) + ".kel");
        GraphRun run({1, 2}, frames);
        KEL::Filter* target = run.AddTarget(&TargetKEL2FileSnapshotWriterFilterCreator, "writer");
        SetParam(*target, "KEL File Path", file);
        run.Run(kel_test::PressBefore({target}, 2, presses));
        EXPECT_EQ(AtomsIn(file), 6U * static_cast<std::size_t>(presses));
        ExpectFileHoldsFrames(file, Slice(frames, 2, 2 + 3 * static_cast<std::size_t>(presses)));
    }
}

TEST_F(SyncTargets, XmlCompanionIsWrittenByDefaultAndNotWhenSwitchedOff) {
    GraphRun run({1}, kel_test::MakeCompleteFrames({1}, 2));
    Recorder(run, "a.kel", "with");
    SetParam(*Recorder(run, "b.kel", "without"), "Write XML", "false");
    run.Run();
    EXPECT_TRUE(std::filesystem::exists(dir.File("a.kel.xml")));
    EXPECT_TRUE(std::filesystem::exists(dir.File("b.kel")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("b.kel.xml")));
}

TEST_F(SyncTargets, ThumbnailSwitchPutsAThumbnailIntoEachStreamsFirstAtom) {
    GraphRun run({1, 2}, kel_test::MakeCompleteFrames({1, 2}, 3));
    SetParam(*Recorder(run, "rec.kel"), "Create thumbnail for first frame", "true");
    run.Run();
    for (const auto& [stream, atoms] : ReadStreams(dir.File("rec.kel"), false)) {
        ASSERT_EQ(atoms.size(), 3U);
        for (std::size_t i = 0; i < 2; ++i) {
            const auto thumbnail =
                atoms[i]->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false);
            EXPECT_EQ(thumbnail != nullptr, i == 0) << "stream " << stream << " atom " << i;
        }
    }
}

TEST_F(SyncTargets, ParametersComeInOrderWithTheirFlagsAndDefaults) {
    using Expected = std::vector<std::pair<std::string, std::uint32_t>>;
    const Expected sync = {
        {"KEL File Path", 0}, {"Write XML", 1}, {"Create thumbnail for first frame", 0}, {"Enable Recording", 0}};
    // Asynchronous targets append five parameters to their strategy's own.
    const Expected asyncSnapshot = {{"KEL File Path", 0},
                                    {"Write XML", 1},
                                    {"Create thumbnail for first frame", 0},
                                    {"Take snapshot", 0},
                                    {"Frames count per snapshot", 0},
                                    {"Buffer size", 1},
                                    {"Buffered frames count", 4},
                                    {"Drop frames when full", 0},
                                    {"Dropped frames count", 4},
                                    {"Reset dropped frames counter", 0}};
    for (const auto& [creator, expected] : std::vector<std::pair<KEL::FilterCreator, Expected>>{
             {&TargetKEL2FileWriterFilterCreator, sync},
             {&TargetKEL2FileSnapshotWriterAsyncFilterCreator, asyncSnapshot}}) {
        std::unique_ptr<KEL::Filter> target(creator());
        SCOPED_TRACE(target->GetFilterClassInfo().GetName());
        ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
        const auto params = target->GetParams();
        ASSERT_EQ(params.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(params[i]->GetName(), expected[i].first);
            EXPECT_EQ(params[i]->GetFlags(), expected[i].second) << expected[i].first;
        }
        auto path = Param<KEL::FilterParamWriteFilePath>(*target, "KEL File Path");
        EXPECT_EQ(path->GetValueAsString(), KelCommon::VarManager::getInstance().getRootValue().str() + "/record.kel");
        EXPECT_EQ(path->GetExtension(), "kel");
        EXPECT_TRUE(Param<KEL::FilterParamBool>(*target, "Write XML")->GetValue());
        EXPECT_FALSE(Param<KEL::FilterParamBool>(*target, "Create thumbnail for first frame")->GetValue());
        // A second call adds the very same objects, keeping their values.
        SetParam(*target, "Write XML", "false");
        ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
        EXPECT_EQ(target->GetParams(), params);
        EXPECT_FALSE(Param<KEL::FilterParamBool>(*target, "Write XML")->GetValue());
    }
}

TEST_F(SyncTargets, AsyncParametersHaveTheirDefaultsAndBounds) {
    std::unique_ptr<KEL::Filter> target(TargetKEL2FileSnapshotWriterAsyncFilterCreator());
    ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
    auto bufferSize = Param<KEL::FilterParamUInt32>(*target, "Buffer size");
    EXPECT_EQ(bufferSize->GetValue(), 1U);
    EXPECT_EQ(bufferSize->GetMinimum(), 0U);
    EXPECT_EQ(bufferSize->GetMaximum(), 4294967295U);
    EXPECT_TRUE(Param<KEL::FilterParamBool>(*target, "Drop frames when full")->GetValue());
    EXPECT_EQ(Param<KEL::FilterParamInt64>(*target, "Dropped frames count")->GetMaximum(), 9223372036854775807LL);
}

TEST_F(SyncTargets, PlayOutsideTheInitialisedStateDoesNotStartTheWriter) {
    KEL::Target& target = Driven(&TargetKEL2FileWriterFilterCreator, true);
    target.SetFilterState(KEL::FILTER_STATE_PAUSED);
    EXPECT_EQ(target.onPlay(), 0U);
    EXPECT_FALSE(std::filesystem::exists(dir.File("rec.kel")));
}

TEST_F(SyncTargets, SnapshotPressWhileNotPlayingIsNotCounted) {
    KEL::Target& target = Driven(&TargetKEL2FileSnapshotWriterFilterCreator, false);
    Param<KEL::FilterParamCallback>(target, "Take snapshot")->Press();
    Driver().Play();
    for (const auto& frame : kel_test::MakeCompleteFrames({1}, 2)) {
        EXPECT_EQ(Driver().Deliver(frame), 0U);
    }
    Driver().Stop();
    EXPECT_EQ(AtomsIn(dir.File("rec.kel")), 0U);
}

TEST_F(SyncTargets, NullAtomIsRefusedWithAnErrorCode) {
    KEL::Target& target = Driven(&TargetKEL2FileWriterFilterCreator, true);
    Driver().Play();
    EXPECT_EQ(target.onProcessFrame(nullptr), KEL::KEL_ERR_INVALID);
    Driver().Stop();
}

TEST(TargetRegistry, EightTargetClassesAreRegisteredWithTheirGuidsAndCategory) {
    for (const TargetStrategy& s : kel_test::TargetStrategies()) {
        const std::string syncName = std::string("TargetKEL2File") + s.name;
        for (const auto& [name, guidText, creator] :
             {std::tuple(syncName, s.syncGuid, s.sync), std::tuple(syncName + "Async", s.asyncGuid, s.async)}) {
            SCOPED_TRACE(name);
            const auto guid = KelCommon::Guid::FromHexString(guidText);
            const auto found = KEL::FilterFactory::Find(guid);
            ASSERT_TRUE(found.has_value());
            EXPECT_EQ(found->info.GetName(), name);
            EXPECT_EQ(found->info.GetCategory(), KEL::FILTER_CATEGORY_TARGET);
            EXPECT_EQ(found->creator, creator);
            std::unique_ptr<KEL::Filter> filter(creator());
            EXPECT_EQ(filter->TypeGuid(), guid);
            EXPECT_EQ(filter->GetFilterClassInfo().GetName(), name);
            auto* target = dynamic_cast<KEL::Target*>(filter.get());
            ASSERT_NE(target, nullptr);
            EXPECT_TRUE(target->AcceptsAllStreams());
        }
    }
    EXPECT_EQ(Kel2File::TargetKEL2FileWriter::TheTypeGuid(),
              KelCommon::Guid::FromHexString(kel_test::TargetStrategies()[0].syncGuid));
    EXPECT_EQ(Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync::TheFilterClassInfo().GetName(),
              "TargetKEL2FilePerStreamSnapshotWriterAsync");
}

}  // namespace
