#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/FilterFactory.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/TestSupport.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"
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

Frames Slice(const Frames& frames, std::size_t begin, std::size_t end) {
    return Frames(frames.begin() + static_cast<std::ptrdiff_t>(begin),
                  frames.begin() + static_cast<std::ptrdiff_t>(end));
}

class TargetRoundTrip : public ::testing::TestWithParam<TargetStrategy> {};

// Both targets of a strategy, the asynchronous one up to a natural end
// without dropping, write every frame whole, numbered from 0.
TEST_P(TargetRoundTrip, BothTargetsKeepEveryLayerOfEveryAtomAndNumberFramesFromZero) {
    const TargetStrategy& s = GetParam();
    TempDir dir;
    // Incoming frame numbers 100, 103, ... are written as 0, 1, ...
    const Frames frames = kel_test::MakeCompleteFrames({4, 9}, 6, 100, 3);
    GraphRun run({4, 9}, frames);
    KEL::Filter* sync = run.AddTarget(s.sync, "sync");
    KEL::Filter* async = run.AddTarget(s.async, "async");
    kel_test::SetParam(*sync, "KEL File Path", dir.File("sync.kel"));
    kel_test::SetParam(*async, "KEL File Path", dir.File("async.kel"));
    kel_test::SetParam(*async, "Drop frames when full", "false");
    run.Run(kel_test::Arm(s, {sync, async}, 6));
    for (const char* base : {"sync", "async"}) {
        const auto files = kel_test::OutputFiles(s, dir.File(base), {4, 9});
        for (std::size_t f = 0; f < files.size(); ++f) {
            Frames held = frames;
            for (auto& frame : held) {
                frame = s.perStream ? std::vector{frame[f]} : frame;
            }
            ExpectFileHoldsFrames(files[f], held);
            // As stored, only a stream's first atom carries its stream-level layers.
            for (const auto& atom : held[0]) {
                const auto stored = ReadStreams(files[f], false).at(atom->GetStreamId());
                EXPECT_EQ(stored[0]->GetNumDataLayers(), atom->GetNumDataLayers());
                EXPECT_LT(stored[1]->GetNumDataLayers(), atom->GetNumDataLayers());
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryStrategy, TargetRoundTrip, ::testing::ValuesIn(kel_test::TargetStrategies()),
                         kel_test::StrategyName);

// A basic writer in `run` recording into `file` of `dir`.
KEL::Filter* Recorder(GraphRun& run, const TempDir& dir, const std::string& file, const std::string& name = "rec") {
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterFilterCreator, name);
    SetParam(*target, "KEL File Path", dir.File(file));
    SetParam(*target, "Enable Recording", "true");
    return target;
}

// Changes set before a frame apply after it: recording switched off before
// frame 2 still writes it; a path set while not recording is used when
// recording is switched on again (before frame 6: from frame 7 on); a path
// change while recording moves to the new file after the frame in progress.
TEST(SyncTargets, ParameterChangesApplyAfterTheFrameInProgress) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2}, 10);
    GraphRun run({1, 2}, frames);
    KEL::Filter* target = Recorder(run, dir, "a.kel");
    const std::map<std::uint32_t, std::pair<const char*, std::string>> changes = {
        {2, {"Enable Recording", "false"}},
        {5, {"KEL File Path", dir.File("b.kel")}},
        {6, {"Enable Recording", "true"}},
        {8, {"KEL File Path", dir.File("c.kel")}}};
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph&, std::uint32_t nr) {
        if (const auto change = changes.find(nr); change != changes.end()) {
            SetParam(*target, change->second.first, change->second.second);
        }
    };
    run.Run(options);
    ExpectFileHoldsFrames(dir.File("a.kel"), Slice(frames, 0, 3));
    ExpectFileHoldsFrames(dir.File("b.kel"), Slice(frames, 7, 9));
    ExpectFileHoldsFrames(dir.File("c.kel"), Slice(frames, 9, 10));
    EXPECT_EQ(log.CountContaining("WriterBase::Start writing"), 3U);
    EXPECT_EQ(log.CountContaining("WriterBase::Stop writing"), 3U);
}

// "Write XML" is on by default, thumbnails are off: target a keeps the
// defaults but switches thumbnails on, target b switches XML off.
TEST(SyncTargets, XmlAndThumbnailSwitchesReachTheWriter) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    GraphRun run({1, 2}, kel_test::MakeCompleteFrames({1, 2}, 2));
    SetParam(*Recorder(run, dir, "a.kel", "a"), "Create thumbnail for first frame", "true");
    SetParam(*Recorder(run, dir, "b.kel", "b"), "Write XML", "false");
    run.Run();
    EXPECT_TRUE(std::filesystem::exists(dir.File("a.kel.xml")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("b.kel.xml")));
    for (const auto& [file, opened] :
         {std::pair(dir.File("a.kel"), dir.File("a.kel+xml")), std::pair(dir.File("b.kel"), dir.File("b.kel"))}) {
        EXPECT_EQ(log.Count("WriterBase::Start writing '" + opened + "'"), 1U);
        EXPECT_EQ(log.Count("WriterBase::Stop writing '" + file + "'"), 1U);
        const auto streams = ReadStreams(file, false);
        ASSERT_EQ(streams.size(), 2U) << file;
        for (const auto& [stream, atoms] : streams) {
            for (std::size_t i = 0; i < atoms.size(); ++i) {
                const bool thumbnail =
                    atoms[i]->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(),
                                           false) != nullptr;
                EXPECT_EQ(thumbnail, i == 0 && file == dir.File("a.kel")) << file << " " << stream << "/" << i;
            }
        }
    }
}

TEST(SyncTargets, ParametersComeInOrderWithTheirFlagsDefaultsAndBounds) {
    using Expected = std::vector<std::tuple<std::string, std::uint32_t, std::string>>;
    const std::string path =
        "file path (*.kel), default \"" + KelCommon::VarManager::getInstance().getRootValue().str() + "/record.kel\"";
    const Expected common = {{"KEL File Path", 0, path},
                             {"Write XML", 1, "true/false, default true"},
                             {"Create thumbnail for first frame", 0, "true/false, default false"}};
    Expected sync = common;
    sync.emplace_back("Enable Recording", 0, "true/false, default false");
    // Asynchronous targets append five parameters to their strategy's own.
    Expected asyncSnapshot = common;
    asyncSnapshot.insert(asyncSnapshot.end(), {{"Take snapshot", 0, "button (any value presses it)"},
                                               {"Frames count per snapshot", 0, "[1, 4294967295], default 3"},
                                               {"Buffer size", 1, "[0, 4294967295], default 1"},
                                               {"Buffered frames count", 4, "[0, 4294967295], default 0"},
                                               {"Drop frames when full", 0, "true/false, default true"},
                                               {"Dropped frames count", 4, "[0, 9223372036854775807], default 0"},
                                               {"Reset dropped frames counter", 0, "button (any value presses it)"}});
    for (const auto& [creator, expected] : std::vector<std::pair<KEL::FilterCreator, Expected>>{
             {&TargetKEL2FileWriterFilterCreator, sync},
             {&TargetKEL2FileSnapshotWriterAsyncFilterCreator, asyncSnapshot}}) {
        std::unique_ptr<KEL::Filter> target(creator());
        SCOPED_TRACE(target->GetFilterClassInfo().GetName());
        ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
        const auto params = target->GetParams();
        ASSERT_EQ(params.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(params[i]->GetName(), std::get<0>(expected[i]));
            EXPECT_EQ(params[i]->GetFlags(), std::get<1>(expected[i])) << std::get<0>(expected[i]);
            EXPECT_EQ(params[i]->DescribeDomain(), std::get<2>(expected[i]));
        }
        // A second call adds the very same objects, keeping their values.
        SetParam(*target, "Write XML", "false");
        ASSERT_EQ(target->onInitializeParams(nullptr), 0U);
        EXPECT_EQ(target->GetParams(), params);
        EXPECT_FALSE(Param<KEL::FilterParamBool>(*target, "Write XML")->GetValue());
    }
}

// A target driven directly on stream 1, initialised, writing into rec.kel.
struct Driven {
    Driven(KEL::FilterCreator creator, bool record) : filter(creator()), driver(Target(), {1}) {
        SetParam(Target(), "KEL File Path", dir.File("rec.kel"));
        if (record) {
            SetParam(Target(), "Enable Recording", "true");
        }
        driver.Initialize();
    }
    KEL::Target& Target() { return dynamic_cast<KEL::Target&>(*filter); }

    TempDir dir;
    std::unique_ptr<KEL::Filter> filter;
    kel_test::DirectDriver driver;
};

TEST(SyncTargets, PlayOutsideTheInitialisedStateDoesNotStartTheWriter) {
    Driven d(&TargetKEL2FileWriterFilterCreator, true);
    d.Target().SetFilterState(KEL::FILTER_STATE_PAUSED);
    EXPECT_EQ(d.Target().onPlay(), 0U);
    EXPECT_FALSE(std::filesystem::exists(d.dir.File("rec.kel")));
}

TEST(SyncTargets, SnapshotPressWhileNotPlayingIsNotCounted) {
    Driven d(&TargetKEL2FileSnapshotWriterFilterCreator, false);
    Param<KEL::FilterParamCallback>(d.Target(), "Take snapshot")->Press();
    d.driver.Play();
    EXPECT_EQ(d.driver.Deliver(kel_test::MakeCompleteFrames({1}, 1)[0]), 0U);
    d.driver.Stop();
    EXPECT_TRUE(ReadStreams(d.dir.File("rec.kel"), false).empty());
}

TEST(Targets, NullAtomIsRefusedWithAnErrorCode) {
    for (const auto creator : {&TargetKEL2FileWriterFilterCreator, &TargetKEL2FileWriterAsyncFilterCreator}) {
        Driven d(creator, true);
        d.driver.Play();
        EXPECT_EQ(d.Target().onProcessFrame(nullptr), KEL::KEL_ERR_INVALID);
        d.driver.Stop();
    }
}

TEST(PluginRegistration, ElevenClassesAreRegisteredUnderTheirGuidsNamesAndCategories) {
    const std::pair<std::string, const char*> classes[] = {
        {"SourceKEL2FileReader", "B74863F3-13CF-47A0-9F90-07718FC52AB6"},
        {"SourceKEL2MultiFileAppend", "757504F3-A320-43A6-BFD1-9ACE60EDEB7E"},
        {"SourceKEL2MultiFileReader", "6D82A817-BAC2-4277-B599-7848F2170ADD"},
        {"TargetKEL2FileWriter", "972EE495-EB8E-48A8-AB94-43797E34A436"},
        {"TargetKEL2FileWriterAsync", "3802D826-7D62-41BF-A92E-6A56E3700590"},
        {"TargetKEL2FileSnapshotWriter", "5F18B69C-472C-4BF7-902C-593A24A53267"},
        {"TargetKEL2FileSnapshotWriterAsync", "990F8140-8912-464F-B85A-6AB300AD0E37"},
        {"TargetKEL2FilePerStreamWriter", "C6AB7E7D-E3E2-4E3A-ACAF-9A4DD28B318B"},
        {"TargetKEL2FilePerStreamWriterAsync", "9F77FB3F-F205-491D-A12C-14B3266F700B"},
        {"TargetKEL2FilePerStreamSnapshotWriter", "A74FA620-53CD-461A-A512-3217F1271DC3"},
        {"TargetKEL2FilePerStreamSnapshotWriterAsync", "BEF1EC5E-D302-4BAD-B771-88D0E404035C"},
    };
    for (const auto& [name, guidText] : classes) {
        SCOPED_TRACE(name);
        const auto guid = KelCommon::Guid::FromHexString(guidText);
        const auto found = KEL::FilterFactory::Find(guid);
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->info.GetName(), name);
        const bool source = name.starts_with("Source");
        EXPECT_EQ(found->info.GetCategory(), source ? KEL::FILTER_CATEGORY_SOURCE : KEL::FILTER_CATEGORY_TARGET);
        std::unique_ptr<KEL::Filter> filter(found->creator());
        EXPECT_EQ(filter->TypeGuid(), guid);
        EXPECT_EQ(filter->GetFilterClassInfo().GetName(), name);
        auto* target = dynamic_cast<KEL::Target*>(filter.get());
        EXPECT_EQ(target != nullptr && target->AcceptsAllStreams(), !source);
    }
    EXPECT_EQ(Kel2File::TargetKEL2FileWriter::TheTypeGuid(), KelCommon::Guid::FromHexString(classes[3].second));
}

}  // namespace
