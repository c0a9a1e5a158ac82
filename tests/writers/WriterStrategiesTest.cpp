#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KelErrorCode.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "support/TestSupport.h"
#include "targets/TargetTestSupport.h"
#include "utils/Utils.h"
#include "writers/BasicWriter.h"
#include "writers/PerStreamFilePath.h"
#include "writers/PerStreamSnapshotWriter.h"
#include "writers/PerStreamWriter.h"
#include "writers/SnapshotWriter.h"

namespace {

namespace fs = std::filesystem;
using kel_test::AtomPtr;
using kel_test::MakeCompleteFrames;
using kel_test::ReadStreams;
using kel_test::TempDir;

std::shared_ptr<KEL::FilterParamBool> AsBool(const std::shared_ptr<KEL::FilterParam>& p) {
    return std::dynamic_pointer_cast<KEL::FilterParamBool>(p);
}

std::size_t CountThumbnails(const KEL::Atom& atom) {
    const auto layers = atom.GetAllDataLayers();
    return static_cast<std::size_t>(std::count_if(layers.begin(), layers.end(), [](const auto& layer) {
        return layer->GetPurposeGuid() == KEL::PurposeGuid_THUMBNAIL &&
               layer->GetTypeGuid() == KEL::DataTypeTextureRGBA::TheTypeGuid();
    }));
}

bool HasStreamInfo(const KEL::Atom& atom) {
    const auto layers = atom.GetAllDataLayers();
    return std::any_of(layers.begin(), layers.end(), [](const auto& layer) {
        return layer->GetTypeGuid() == KEL::DataTypeStreamInfo::TheTypeGuid();
    });
}

// Switches "Enable Recording" on and points `writer` at `path`.
template <class W>
void Record(W& writer, const std::string& path, bool xml = false) {
    AsBool(writer.InitializeWriterParams().at(0))->SetValue(true);
    writer.currentFilePath = path;
    writer.writeXml = xml;
}

// Writes every atom of `frame`, each of which must succeed.
template <class W>
void WriteFrame(W& writer, const std::vector<AtomPtr>& frame) {
    for (const auto& atom : frame) {
        ASSERT_EQ(writer.WriteAtom(atom, false), 0U);
    }
}

// A BasicWriter recording into rec.kel of a fresh directory.
class WriterBase : public ::testing::Test {
protected:
    void SetUp() override { Record(writer, dir.File("rec.kel")); }
    TempDir dir;
    Kel2File::BasicWriter writer;
};

TEST(WriterOutput, IncomingFrameNumbersAreRenumberedFromZeroAndOnlyOwnedAtomsAreStripped) {
    for (bool owned : {false, true}) {
        SCOPED_TRACE(owned);
        TempDir dir;
        Kel2File::BasicWriter writer;
        Record(writer, dir.File("rec.kel"));
        writer.OnPlay(1);
        const auto frames = MakeCompleteFrames({5}, 2, 17, 23);
        AtomPtr first = frames[0][0];
        AtomPtr second = frames[1][0];
        ASSERT_EQ(second->GetFrameNr(), 40U);
        const std::size_t layersBefore = second->GetNumDataLayers();
        EXPECT_EQ(writer.WriteAtom(first, owned), 0U);
        EXPECT_EQ(writer.WriteAtom(second, owned), 0U);
        writer.OnStop();

        // The caller's atoms got the output numbers; only owned ones lost layers.
        EXPECT_EQ(first->GetFrameNr(), 0U);
        EXPECT_EQ(second->GetFrameNr(), 1U);
        EXPECT_TRUE(HasStreamInfo(*first));
        EXPECT_EQ(HasStreamInfo(*second), !owned);
        EXPECT_EQ(second->GetNumDataLayers() == layersBefore, !owned);

        const auto stored = ReadStreams(dir.File("rec.kel"), false).at(5);
        ASSERT_EQ(stored.size(), 2U);
        EXPECT_EQ(stored[0]->GetFrameNr(), 0U);
        EXPECT_EQ(stored[1]->GetFrameNr(), 1U);
        EXPECT_TRUE(HasStreamInfo(*stored[0]));
        EXPECT_FALSE(HasStreamInfo(*stored[1]));
        EXPECT_EQ(stored[0]->GetNumDataLayers(), layersBefore);
        // Only the texture, mesh and version-2 camera survive optimisation.
        EXPECT_EQ(stored[1]->GetNumDataLayers(), 3U);
    }
}

TEST_F(WriterBase, NullAtomIsRefused) {
    writer.OnPlay(1);
    EXPECT_EQ(writer.WriteAtom(nullptr, false), KEL::KEL_ERR_INVALID);
    writer.OnStop();
}

TEST(WriterOutput, ExtensionIsReplacedAndXmlCompanionWrittenOnlyWithTheSwitch) {
    for (bool xml : {true, false}) {
        SCOPED_TRACE(xml);
        TempDir dir;
        KelCommon::ScopedLogCapture log;
        Kel2File::BasicWriter writer;
        Record(writer, dir.File("out/rec.data"), xml);
        writer.OnPlay(1);
        EXPECT_EQ(writer.WriteAtom(kel_test::MakeFirstAtom(1, 1), false), 0U);
        writer.OnStop();
        const std::string kel = dir.File("out/rec.kel");
        EXPECT_TRUE(fs::exists(kel));
        EXPECT_FALSE(fs::exists(dir.File("out/rec.data")));
        EXPECT_EQ(fs::exists(kel + ".xml"), xml);
        EXPECT_EQ(log.Count("WriterBase::Start writing '" + kel + (xml ? "+xml'" : "'")), 1U);
        EXPECT_EQ(log.Count("WriterBase::Stop writing '" + kel + "'"), 1U);
    }
}

TEST_F(WriterBase, SettingTheSamePathChangesNothing) {
    KelCommon::ScopedLogCapture log;
    writer.OnPlay(1);
    writer.SetCurrentFilePath(dir.File("rec.kel"), false);
    EXPECT_EQ(log.CountContaining("Stop writing"), 0U);
    EXPECT_EQ(log.CountContaining("Start writing"), 1U);
    writer.OnStop();
}

TEST_F(WriterBase, FailingSerializationReturnsItsCodeAndKeepsTheFrameNumber) {
    writer.OnPlay(1);
    const auto frames = MakeCompleteFrames({2}, 3, 0, 1, 64, 64);
    ASSERT_EQ(writer.WriteAtom(frames[0][0], false), 0U);

    // Let the file grow by a few bytes only: the next record cannot fit.
    rlimit original{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &original), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = original;
    limited.rlim_cur = kel_test::FileSize(dir.File("rec.kel")) + 16;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const KEL::KelErrorCode failed = writer.WriteAtom(frames[1][0], false);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &original), 0);
    std::signal(SIGXFSZ, previousHandler);

    EXPECT_EQ(failed, KEL::KEL_ERR_FILE_TOO_LARGE);
    // The failed atom did not use up number 1: the next atom gets it.
    EXPECT_EQ(writer.WriteAtom(frames[2][0], false), 0U);
    EXPECT_EQ(frames[2][0]->GetFrameNr(), 1U);
    writer.OnStop();

    const auto stored = ReadStreams(dir.File("rec.kel"), true);
    ASSERT_EQ(stored.at(2).size(), 2U);
    EXPECT_EQ(stored.at(2)[1]->GetFrameNr(), 1U);
    EXPECT_EQ(stored.at(2)[1]->GetTimeStamp(), frames[2][0]->GetTimeStamp());
}

TEST_F(WriterBase, ThumbnailGoesOnlyOnTheFirstAtomOfEachStreamInEachFile) {
    writer.currentFilePath = dir.File("a.kel");
    writer.SetThumbnailCreationCurrentlyEnabled(true);
    writer.OnPlay(2);
    const auto frames = MakeCompleteFrames({1, 2}, 4);
    for (std::size_t i = 0; i < 3; ++i) {
        WriteFrame(writer, frames[i]);
    }
    writer.SetCurrentFilePath(dir.File("b.kel"), false);
    WriteFrame(writer, frames[3]);
    writer.OnStop();
    const auto a = ReadStreams(dir.File("a.kel"), false);
    const auto b = ReadStreams(dir.File("b.kel"), false);
    for (std::uint16_t stream : {1, 2}) {
        ASSERT_EQ(a.at(stream).size(), 3U);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(CountThumbnails(*a.at(stream)[i]), i == 0 ? 1U : 0U) << stream << "/" << i;
        }
        // The new file starts over: numbered from 0, complete, with a thumbnail.
        ASSERT_EQ(b.at(stream).size(), 1U);
        EXPECT_EQ(b.at(stream)[0]->GetFrameNr(), 0U);
        EXPECT_EQ(CountThumbnails(*b.at(stream)[0]), 1U);
        EXPECT_TRUE(HasStreamInfo(*b.at(stream)[0]));
    }
}

TEST(Thumbnail, ExistingThumbnailIsReplacedNotDuplicated) {
    auto atom = kel_test::MakeFrameAtom(1, 0, 32, 16);
    auto old = kel_test::MakeTexture(4, 4, 99, KEL::PurposeGuid_THUMBNAIL);
    atom->AddDataLayer(old, true);
    Kel2File::Utils::CreateThumbnailData(atom);
    ASSERT_EQ(CountThumbnails(*atom), 1U);
    auto thumbnail = atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false);
    EXPECT_NE(thumbnail, old);
    EXPECT_FALSE(thumbnail->ContentEquals(*old));
}

TEST_F(WriterBase, AtomWithoutImageIsWrittenWithoutThumbnailAndLoggedOnce) {
    KelCommon::ScopedLogCapture log;
    writer.SetThumbnailCreationCurrentlyEnabled(true);
    writer.OnPlay(1);
    auto atom = std::make_shared<KEL::Atom>(3, 0, 10);
    atom->AddDataLayer(kel_test::MakeMesh(2, 1), true);
    EXPECT_EQ(writer.WriteAtom(atom, false), 0U);
    writer.OnStop();
    const auto records = log.Records();
    ASSERT_EQ(log.Count("Failed to create a thumbnail for an atom"), 1U);
    const auto it = std::find_if(records.begin(), records.end(),
                                 [](const auto& r) { return r.message == "Failed to create a thumbnail for an atom"; });
    EXPECT_EQ(it->level, 2);
    EXPECT_EQ(it->tag, "KEL2File");
    const auto stored = ReadStreams(dir.File("rec.kel"), false);
    ASSERT_EQ(stored.at(3).size(), 1U);
    EXPECT_EQ(CountThumbnails(*stored.at(3)[0]), 0U);
}

TEST(BasicWriter, NothingIsWrittenWhileRecordingIsOff) {
    TempDir dir;
    Kel2File::BasicWriter writer;
    auto params = writer.InitializeWriterParams();
    ASSERT_EQ(params.size(), 1U);
    EXPECT_EQ(params[0]->GetName(), "Enable Recording");
    EXPECT_EQ(params[0]->GetFlags(), 0U);
    EXPECT_FALSE(AsBool(params[0])->GetValue());
    EXPECT_EQ(writer.InitializeWriterParams()[0], params[0]);
    writer.currentFilePath = dir.File("rec.kel");
    writer.OnPlay(1);
    EXPECT_FALSE(writer.ProcessingAllowed());
    writer.OnStop();
    EXPECT_FALSE(fs::exists(dir.File("rec.kel")));
}

TEST(BasicWriter, SwitchingRecordingOnOpensTheFileAtTheNextApply) {
    TempDir dir;
    Kel2File::BasicWriter writer;
    auto enable = AsBool(writer.InitializeWriterParams()[0]);
    writer.currentFilePath = dir.File("rec.kel");
    writer.OnPlay(1);
    enable->SetValue(true);
    EXPECT_TRUE(writer.WriterParamChangesAvailable());
    EXPECT_FALSE(writer.ProcessingAllowed());
    writer.ApplyWriterParamChanges();
    EXPECT_FALSE(writer.WriterParamChangesAvailable());
    EXPECT_TRUE(writer.ProcessingAllowed());
    EXPECT_EQ(writer.WriteAtom(kel_test::MakeFirstAtom(1, 1), false), 0U);
    writer.OnStop();
    EXPECT_EQ(ReadStreams(dir.File("rec.kel"), false).at(1).size(), 1U);
}

// Snapshot writers are driven through their parameters as a target would.
template <class W>
struct SnapshotFixture {
    explicit SnapshotFixture(const std::string& file) {
        auto params = writer.InitializeWriterParams();
        press = std::dynamic_pointer_cast<KEL::FilterParamCallback>(params.at(0));
        count = std::dynamic_pointer_cast<KEL::FilterParamUInt32>(params.at(1));
        writer.currentFilePath = dir.File(file);
    }
    void Press() { writer.HandleParamValueChanged(press, "Take snapshot"); }
    // Offers every atom of `count` new frames of `streams` as a synchronous
    // target does; returns how many were written.
    int Offer(const std::vector<std::uint16_t>& streams, std::uint32_t frames) {
        int written = 0;
        for (const auto& frame : MakeCompleteFrames(streams, frames)) {
            for (const auto& atom : frame) {
                if (writer.ProcessingAllowed()) {
                    EXPECT_EQ(writer.WriteAtom(atom, false), 0U);
                    ++written;
                }
            }
        }
        return written;
    }
    TempDir dir;
    W writer;
    std::shared_ptr<KEL::FilterParamCallback> press;
    std::shared_ptr<KEL::FilterParamUInt32> count;
};

TEST(SnapshotWriter, ParametersHaveTheirNamesDefaultsAndBounds) {
    SnapshotFixture<Kel2File::SnapshotWriter> f("unused.kel");
    EXPECT_EQ(f.press->GetName(), "Take snapshot");
    EXPECT_EQ(f.count->GetName(), "Frames count per snapshot");
    EXPECT_EQ(f.count->GetValue(), 3U);
    EXPECT_EQ(f.count->GetMinimum(), 1U);
    EXPECT_EQ(f.count->GetMaximum(), 4294967295U);
    EXPECT_FALSE(f.count->SetValue(0));
}

TEST(SnapshotWriter, OnePressWritesFramesCountFramesOfEveryStreamAndPressesAddUp) {
    SnapshotFixture<Kel2File::SnapshotWriter> f("snap.kel");
    f.writer.OnPlay(2);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    f.Press();
    EXPECT_EQ(f.Offer({1, 2}, 10), 6);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    f.Press();
    f.Press();
    EXPECT_EQ(f.Offer({1, 2}, 10), 12);
    f.writer.OnStop();
    const auto stored = ReadStreams(f.dir.File("snap.kel"), false);
    ASSERT_EQ(stored.at(1).size(), 9U);
    EXPECT_EQ(stored.at(2).size(), 9U);
    EXPECT_EQ(stored.at(1)[8]->GetFrameNr(), 8U);
    EXPECT_TRUE(HasStreamInfo(*stored.at(1)[0]));
    EXPECT_FALSE(HasStreamInfo(*stored.at(1)[6]));
}

TEST(SnapshotWriter, CounterHasNoFloorWhenAFrameOvershoots) {
    SnapshotFixture<Kel2File::SnapshotWriter> f("snap.kel");
    f.count->SetValue(1);
    f.writer.OnPlay(1);
    f.Press();
    // A caller that checks once per frame of two atoms writes both.
    const auto frames = MakeCompleteFrames({1, 2}, 1);
    ASSERT_TRUE(f.writer.ProcessingAllowed());
    WriteFrame(f.writer, frames[0]);
    // The counter wrapped below zero and keeps writing.
    EXPECT_TRUE(f.writer.ProcessingAllowed());
    f.writer.OnStop();
}

TEST(SnapshotWriter, PathChangeEndsTheSnapshotAndOpensANewFile) {
    SnapshotFixture<Kel2File::SnapshotWriter> f("a.kel");
    f.writer.OnPlay(1);
    f.Press();
    EXPECT_EQ(f.Offer({1}, 1), 1);
    f.writer.SetCurrentFilePath(f.dir.File("b.kel"), false);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    EXPECT_TRUE(fs::exists(f.dir.File("b.kel")));
    f.writer.OnStop();
    EXPECT_EQ(ReadStreams(f.dir.File("a.kel"), false).at(1).size(), 1U);
}

TEST(SnapshotWriter, PlayAndStopWithoutPressLeavesAnEmptyFile) {
    SnapshotFixture<Kel2File::SnapshotWriter> f("snap.kel");
    f.writer.OnPlay(1);
    f.writer.OnStop();
    EXPECT_TRUE(fs::exists(f.dir.File("snap.kel")));
    EXPECT_TRUE(ReadStreams(f.dir.File("snap.kel"), false).empty());
}

TEST(PerStreamFilePath, StreamIdGoesBetweenStemAndLastExtension) {
    const std::vector<std::tuple<std::string, std::uint16_t, std::string>> cases = {
        {"out/take.kel", 3, "out/take_3.kel"}, {"out/take", 3, "out/take_3"},
        {"take.kel", 3, "take_3.kel"},         {"out/take.v2.data", 3, "out/take.v2_3.data"},
        {"/d/rec.kel", 12, "/d/rec_12.kel"},   {"/d/rec.kel", 65535, "/d/rec_65535.kel"}};
    for (const auto& [path, stream, expected] : cases) {
        EXPECT_EQ(Kel2File::PerStreamFilePath(path, stream), expected);
    }
}

TEST(PerStreamWriter, EachStreamGetsItsOwnKelFileNamedAfterThePath) {
    struct Case {
        std::string path;  // as set; relative paths are taken in the working directory
        std::string stem;  // expected files: stem_3.kel and stem_7.kel
    };
    for (const Case& c : {Case{"out/take.kel", "out/take"}, Case{"out/take", "out/take"},
                          Case{"out/take.v2.data", "out/take.v2"}, Case{"take.kel", "take"}}) {
        SCOPED_TRACE(c.path);
        TempDir dir;
        const auto previous = fs::current_path();
        fs::current_path(dir.Path());
        Kel2File::PerStreamWriter writer;
        Record(writer, c.path == "take.kel" ? c.path : dir.File(c.path));
        writer.OnPlay(2);
        WriteFrame(writer, MakeCompleteFrames({3, 7}, 1)[0]);
        writer.OnStop();
        fs::current_path(previous);
        EXPECT_EQ(ReadStreams(dir.File(c.stem + "_3.kel"), false).at(3).size(), 1U);
        EXPECT_EQ(ReadStreams(dir.File(c.stem + "_7.kel"), false).at(7).size(), 1U);
        EXPECT_FALSE(fs::exists(dir.File(c.path)));
    }
}

TEST(PerStreamWriter, NoAtomMeansNoFile) {
    TempDir dir;
    Kel2File::PerStreamWriter writer;
    Record(writer, dir.File("take.kel"));
    writer.OnPlay(2);
    EXPECT_TRUE(writer.ProcessingAllowed());
    writer.OnStop();
    EXPECT_TRUE(fs::is_empty(dir.Path()));
}

TEST(PerStreamWriter, PathChangeClosesEveryFileAndTheNextAtomsStartAtZero) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    Kel2File::PerStreamWriter writer;
    Record(writer, dir.File("a.kel"));
    writer.OnPlay(2);
    const auto frames = MakeCompleteFrames({3, 7}, 3);
    WriteFrame(writer, frames[0]);
    writer.SetCurrentFilePath(dir.File("b.kel"), false);
    EXPECT_EQ(log.CountContaining("Stop writing"), 2U);
    WriteFrame(writer, frames[1]);
    writer.OnStop();
    const auto b3 = ReadStreams(dir.File("b_3.kel"), false).at(3);
    ASSERT_EQ(b3.size(), 1U);
    EXPECT_EQ(b3[0]->GetFrameNr(), 0U);
    EXPECT_TRUE(HasStreamInfo(*b3[0]));
}

TEST(PerStreamSnapshotWriter, TwoSnapshotsGoIntoTheSameFilesWithContinuingNumbers) {
    SnapshotFixture<Kel2File::PerStreamSnapshotWriter> f("snap.kel");
    f.count->SetValue(2);
    f.writer.OnPlay(2);
    EXPECT_TRUE(fs::is_empty(f.dir.Path()));
    for (int snapshot = 0; snapshot < 2; ++snapshot) {
        f.Press();
        EXPECT_EQ(f.Offer({3, 7}, 5), 4);
    }
    f.writer.OnStop();
    for (std::uint16_t stream : {3, 7}) {
        const auto atoms = ReadStreams(f.dir.File("snap_" + std::to_string(stream) + ".kel"), false).at(stream);
        ASSERT_EQ(atoms.size(), 4U);
        for (std::uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(atoms[i]->GetFrameNr(), i);
        }
    }
}

TEST(PerStreamSnapshotWriter, PathChangeCancelsTheSnapshot) {
    SnapshotFixture<Kel2File::PerStreamSnapshotWriter> f("a.kel");
    f.writer.OnPlay(1);
    f.Press();
    EXPECT_EQ(f.Offer({3}, 1), 1);
    f.writer.SetCurrentFilePath(f.dir.File("b.kel"), false);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    f.writer.OnStop();
    EXPECT_TRUE(fs::exists(f.dir.File("a_3.kel")));
    EXPECT_FALSE(fs::exists(f.dir.File("b_3.kel")));
}

}  // namespace
