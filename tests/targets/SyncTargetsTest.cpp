#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/FilterFactory.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/TestSupport.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FilePerStreamWriter.h"
#include "targets/TargetKEL2FilePerStreamWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"
#include "targets/TargetTestSupport.h"

namespace {

using kel_test::Frames;
using kel_test::GraphRun;
using kel_test::SetParam;
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
    for (const auto& [stream, atoms] : kel_test::ReadStreams(path, false)) {
        n += atoms.size();
    }
    return n;
}

KEL::RunOptions PressBefore(KEL::Filter* target, std::uint32_t frame, int presses = 1) {
    KEL::RunOptions options;
    options.beforeFrame = [=](KEL::Graph&, std::uint32_t nr) {
        if (nr == frame) {
            for (int i = 0; i < presses; ++i) {
                kel_test::Param<KEL::FilterParamCallback>(*target, "Take snapshot")->Press();
            }
        }
    };
    return options;
}

TEST(SyncTargets, BasicWriterRoundTripKeepsEveryLayerOfEveryAtom) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 6, 100, 3);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Enable Recording", "true");
    run.Run();
    kel_test::ExpectFileHoldsFrames(dir.File("rec.kel"), frames);
}

TEST(SyncTargets, SnapshotWriterRoundTripKeepsEveryLayerOfEveryAtom) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 6);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileSnapshotWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Frames count per snapshot", "6");
    run.Run(PressBefore(target, 0));
    kel_test::ExpectFileHoldsFrames(dir.File("rec.kel"), frames);
}

TEST(SyncTargets, PerStreamWriterRoundTripKeepsEveryLayerOfEveryAtom) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 6, 9);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FilePerStreamWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Enable Recording", "true");
    run.Run();
    kel_test::ExpectFileHoldsFrames(dir.File("rec_1.kel"), OnlyStream(frames, 0));
    kel_test::ExpectFileHoldsFrames(dir.File("rec_2.kel"), OnlyStream(frames, 1));
}

TEST(SyncTargets, PerStreamSnapshotWriterRoundTripKeepsEveryLayerOfEveryAtom) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({4, 9}, 6);
    GraphRun run({4, 9}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FilePerStreamSnapshotWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Frames count per snapshot", "6");
    run.Run(PressBefore(target, 0));
    kel_test::ExpectFileHoldsFrames(dir.File("rec_4.kel"), OnlyStream(frames, 0));
    kel_test::ExpectFileHoldsFrames(dir.File("rec_9.kel"), OnlyStream(frames, 1));
}

TEST(SyncTargets, IncomingFrameNumbersAreWrittenFromZero) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({3}, 2, 17, 23);
    GraphRun run({3}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Enable Recording", "true");
    run.Run();
    const auto stored = kel_test::ReadStreams(dir.File("rec.kel"), false).at(3);
    ASSERT_EQ(stored.size(), 2U);
    EXPECT_EQ(stored[0]->GetFrameNr(), 0U);
    EXPECT_EQ(stored[1]->GetFrameNr(), 1U);
    EXPECT_EQ(stored[0]->GetNumDataLayers(), frames[0][0]->GetNumDataLayers());
    EXPECT_LT(stored[1]->GetNumDataLayers(), frames[1][0]->GetNumDataLayers());
}

TEST(SyncTargets, RecordingSwitchedOffAndOnStartsANewFileNumberedFromZero) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 10);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Enable Recording", "true");
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph&, std::uint32_t nr) {
        if (nr == 3) {
            SetParam(*target, "Enable Recording", "false");
        }
        if (nr == 6) {
            SetParam(*target, "Enable Recording", "true");
        }
    };
    run.Run(options);
    // Changes apply after the frame in progress: frame 3 is still written,
    // frame 6 not yet; the reopened file holds frames 7 to 9.
    kel_test::ExpectFileHoldsFrames(dir.File("rec.kel"), Slice(frames, 7, 10));
    EXPECT_EQ(log.CountContaining("WriterBase::Start writing"), 2U);
    EXPECT_EQ(log.CountContaining("WriterBase::Stop writing"), 2U);
}

TEST(SyncTargets, PathChangeSwitchesFilesAfterTheFrameInProgress) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 10);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("a.kel"));
    SetParam(*target, "Enable Recording", "true");
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph&, std::uint32_t nr) {
        if (nr == 4) {
            SetParam(*target, "KEL File Path", dir.File("b.kel"));
        }
    };
    run.Run(options);
    kel_test::ExpectFileHoldsFrames(dir.File("a.kel"), Slice(frames, 0, 5));
    kel_test::ExpectFileHoldsFrames(dir.File("b.kel"), Slice(frames, 5, 10));
}

TEST(SyncTargets, OneSnapshotOfThreeFramesOverTwoStreamsWritesSixAtoms) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 10);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileSnapshotWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("snap.kel"));
    run.Run(PressBefore(target, 2));
    EXPECT_EQ(AtomsIn(dir.File("snap.kel")), 6U);
    kel_test::ExpectFileHoldsFrames(dir.File("snap.kel"), Slice(frames, 2, 5));
}

TEST(SyncTargets, TwoPressesAddUp) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 10);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileSnapshotWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("snap.kel"));
    run.Run(PressBefore(target, 2, 2));
    EXPECT_EQ(AtomsIn(dir.File("snap.kel")), 12U);
    kel_test::ExpectFileHoldsFrames(dir.File("snap.kel"), Slice(frames, 2, 8));
}

TEST(SyncTargets, XmlCompanionIsWrittenByDefaultAndNotWhenSwitchedOff) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1}, 2);
    GraphRun run({1}, frames);
    KEL::Filter* withXml = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "with");
    KEL::Filter* withoutXml = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "without");
    SetParam(*withXml, "KEL File Path", dir.File("a.kel"));
    SetParam(*withXml, "Enable Recording", "true");
    SetParam(*withoutXml, "KEL File Path", dir.File("b.kel"));
    SetParam(*withoutXml, "Enable Recording", "true");
    SetParam(*withoutXml, "Write XML", "false");
    run.Run();
    EXPECT_TRUE(std::filesystem::exists(dir.File("a.kel.xml")));
    EXPECT_TRUE(std::filesystem::exists(dir.File("b.kel")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("b.kel.xml")));
}

TEST(SyncTargets, ThumbnailSwitchPutsAThumbnailIntoEachStreamsFirstAtom) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 3);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, "writer");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    SetParam(*target, "Enable Recording", "true");
    SetParam(*target, "Create thumbnail for first frame", "true");
    run.Run();
    for (const auto& [stream, atoms] : kel_test::ReadStreams(dir.File("rec.kel"), false)) {
        ASSERT_EQ(atoms.size(), 3U);
        EXPECT_NE(atoms[0]->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false),
                  nullptr);
        EXPECT_EQ(atoms[1]->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false),
                  nullptr);
    }
}

TEST(SyncTargets, ParametersComeInOrderWithTheirFlagsAndDefaults) {
    std::unique_ptr<KEL::Filter> target(TargetKEL2FileWriterFilterCreator());
    ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
    const auto params = target->GetParams();
    ASSERT_EQ(params.size(), 4U);
    EXPECT_EQ(params[0]->GetName(), "KEL File Path");
    EXPECT_EQ(params[0]->GetFlags(), 0U);
    EXPECT_EQ(params[0]->GetValueAsString(), KelCommon::VarManager::getInstance().getRootValue().str() + "/record.kel");
    EXPECT_EQ(std::dynamic_pointer_cast<KEL::FilterParamWriteFilePath>(params[0])->GetExtension(), "kel");
    EXPECT_EQ(params[1]->GetName(), "Write XML");
    EXPECT_EQ(params[1]->GetFlags(), 1U);
    EXPECT_TRUE(kel_test::Param<KEL::FilterParamBool>(*target, "Write XML")->GetValue());
    EXPECT_EQ(params[2]->GetName(), "Create thumbnail for first frame");
    EXPECT_EQ(params[2]->GetFlags(), 0U);
    EXPECT_FALSE(kel_test::Param<KEL::FilterParamBool>(*target, "Create thumbnail for first frame")->GetValue());
    EXPECT_EQ(params[3]->GetName(), "Enable Recording");

    // A second call adds the very same objects, keeping their values.
    SetParam(*target, "Enable Recording", "true");
    ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
    const auto again = target->GetParams();
    ASSERT_EQ(again.size(), 4U);
    for (std::size_t i = 0; i < again.size(); ++i) {
        EXPECT_EQ(again[i], params[i]);
    }
    EXPECT_TRUE(kel_test::Param<KEL::FilterParamBool>(*target, "Enable Recording")->GetValue());
}

TEST(SyncTargets, AsyncTargetsAppendFiveParameters) {
    std::unique_ptr<KEL::Filter> target(TargetKEL2FileSnapshotWriterAsyncFilterCreator());
    ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
    const auto params = target->GetParams();
    ASSERT_EQ(params.size(), 10U);
    const std::vector<std::pair<std::string, std::uint32_t>> expected = {{"KEL File Path", 0},
                                                                         {"Write XML", 1},
                                                                         {"Create thumbnail for first frame", 0},
                                                                         {"Take snapshot", 0},
                                                                         {"Frames count per snapshot", 0},
                                                                         {"Buffer size", 1},
                                                                         {"Buffered frames count", 4},
                                                                         {"Drop frames when full", 0},
                                                                         {"Dropped frames count", 4},
                                                                         {"Reset dropped frames counter", 0}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(params[i]->GetName(), expected[i].first);
        EXPECT_EQ(params[i]->GetFlags(), expected[i].second) << expected[i].first;
    }
    auto bufferSize = kel_test::Param<KEL::FilterParamUInt32>(*target, "Buffer size");
    EXPECT_EQ(bufferSize->GetValue(), 1U);
    EXPECT_EQ(bufferSize->GetMinimum(), 0U);
    EXPECT_EQ(bufferSize->GetMaximum(), 4294967295U);
    EXPECT_TRUE(kel_test::Param<KEL::FilterParamBool>(*target, "Drop frames when full")->GetValue());
    auto dropped = kel_test::Param<KEL::FilterParamInt64>(*target, "Dropped frames count");
    EXPECT_EQ(dropped->GetMaximum(), 9223372036854775807LL);
}

TEST(SyncTargets, PlayOutsideTheInitialisedStateDoesNotStartTheWriter) {
    TempDir dir;
    std::unique_ptr<KEL::Filter> filter(TargetKEL2FileWriterFilterCreator());
    auto& target = dynamic_cast<KEL::Target&>(*filter);
    kel_test::DirectDriver driver(target, {1});
    SetParam(target, "KEL File Path", dir.File("rec.kel"));
    SetParam(target, "Enable Recording", "true");
    driver.Initialize();
    target.SetFilterState(KEL::FILTER_STATE_PAUSED);
    EXPECT_EQ(target.onPlay(), 0U);
    EXPECT_FALSE(std::filesystem::exists(dir.File("rec.kel")));
}

TEST(SyncTargets, SnapshotPressWhileNotPlayingIsNotCounted) {
    TempDir dir;
    std::unique_ptr<KEL::Filter> filter(TargetKEL2FileSnapshotWriterFilterCreator());
    auto& target = dynamic_cast<KEL::Target&>(*filter);
    kel_test::DirectDriver driver(target, {1});
    SetParam(target, "KEL File Path", dir.File("snap.kel"));
    driver.Initialize();
    kel_test::Param<KEL::FilterParamCallback>(target, "Take snapshot")->Press();
    driver.Play();
    const Frames frames = kel_test::MakeCompleteFrames({1}, 2);
    for (const auto& frame : frames) {
        EXPECT_EQ(driver.Deliver(frame), 0U);
    }
    driver.Stop();
    EXPECT_EQ(AtomsIn(dir.File("snap.kel")), 0U);
}

TEST(SyncTargets, NullAtomIsRefusedWithAnErrorCode) {
    TempDir dir;
    std::unique_ptr<KEL::Filter> filter(TargetKEL2FileWriterFilterCreator());
    auto& target = dynamic_cast<KEL::Target&>(*filter);
    kel_test::DirectDriver driver(target, {1});
    SetParam(target, "KEL File Path", dir.File("rec.kel"));
    SetParam(target, "Enable Recording", "true");
    driver.Initialize();
    driver.Play();
    EXPECT_EQ(target.onProcessFrame(nullptr), KEL::KEL_ERR_INVALID);
    driver.Stop();
}

struct Registered {
    const char* name;
    const char* guid;
    KEL::FilterCreator creator;
};

TEST(TargetRegistry, EightTargetClassesAreRegisteredWithTheirGuidsAndCategory) {
    const std::vector<Registered> classes = {
        {"TargetKEL2FileWriter", "972EE495-EB8E-48A8-AB94-43797E34A436", &TargetKEL2FileWriterFilterCreator},
        {"TargetKEL2FileWriterAsync", "3802D826-7D62-41BF-A92E-6A56E3700590", &TargetKEL2FileWriterAsyncFilterCreator},
        {"TargetKEL2FileSnapshotWriter", "5F18B69C-472C-4BF7-902C-593A24A53267",
         &TargetKEL2FileSnapshotWriterFilterCreator},
        {"TargetKEL2FileSnapshotWriterAsync", "990F8140-8912-464F-B85A-6AB300AD0E37",
         &TargetKEL2FileSnapshotWriterAsyncFilterCreator},
        {"TargetKEL2FilePerStreamWriter", "C6AB7E7D-E3E2-4E3A-ACAF-9A4DD28B318B",
         &TargetKEL2FilePerStreamWriterFilterCreator},
        {"TargetKEL2FilePerStreamWriterAsync", "9F77FB3F-F205-491D-A12C-14B3266F700B",
         &TargetKEL2FilePerStreamWriterAsyncFilterCreator},
        {"TargetKEL2FilePerStreamSnapshotWriter", "A74FA620-53CD-461A-A512-3217F1271DC3",
         &TargetKEL2FilePerStreamSnapshotWriterFilterCreator},
        {"TargetKEL2FilePerStreamSnapshotWriterAsync", "BEF1EC5E-D302-4BAD-B771-88D0E404035C",
         &TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator},
    };
    for (const auto& c : classes) {
        const auto guid = KelCommon::Guid::FromHexString(c.guid);
        const auto found = KEL::FilterFactory::Find(guid);
        ASSERT_TRUE(found.has_value()) << c.name;
        EXPECT_EQ(found->info.GetName(), c.name);
        EXPECT_EQ(found->info.GetCategory(), KEL::FILTER_CATEGORY_TARGET);
        EXPECT_EQ(found->creator, c.creator);
        std::unique_ptr<KEL::Filter> filter(c.creator());
        EXPECT_EQ(filter->TypeGuid(), guid);
        EXPECT_EQ(filter->GetFilterClassInfo().GetName(), c.name);
        auto* target = dynamic_cast<KEL::Target*>(filter.get());
        ASSERT_NE(target, nullptr);
        EXPECT_TRUE(target->AcceptsAllStreams());
    }
    EXPECT_EQ(Kel2File::TargetKEL2FileWriter::TheTypeGuid(), KelCommon::Guid::FromHexString(classes[0].guid));
    EXPECT_EQ(Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync::TheFilterClassInfo().GetName(), classes[7].name);
}

}  // namespace
