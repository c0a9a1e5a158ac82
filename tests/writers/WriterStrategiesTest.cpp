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

using kel_test::AtomPtr;
using kel_test::ReadStreams;
using kel_test::TempDir;

std::shared_ptr<KEL::FilterParamBool> AsBool(const std::shared_ptr<KEL::FilterParam>& p) {
    return std::dynamic_pointer_cast<KEL::FilterParamBool>(p);
}

std::size_t CountThumbnails(const KEL::Atom& atom) {
    std::size_t n = 0;
    for (const auto& layer : atom.GetAllDataLayers()) {
        if (layer->GetPurposeGuid() == KEL::PurposeGuid_THUMBNAIL &&
            layer->GetTypeGuid() == KEL::DataTypeTextureRGBA::TheTypeGuid()) {
            ++n;
        }
    }
    return n;
}

bool HasStreamInfo(const KEL::Atom& atom) {
    const auto layers = atom.GetAllDataLayers();
    return std::any_of(layers.begin(), layers.end(), [](const auto& layer) {
        return layer->GetTypeGuid() == KEL::DataTypeStreamInfo::TheTypeGuid();
    });
}

// A BasicWriter that records into `path`.
struct RecordingWriter {
    explicit RecordingWriter(const std::string& path, bool xml = false) {
        AsBool(writer.InitializeWriterParams().at(0))->SetValue(true);
        writer.currentFilePath = path;
        writer.writeXml = xml;
    }
    Kel2File::BasicWriter writer;
};

TEST(WriterBase, IncomingFrameNumbersAreRenumberedFromZero) {
    TempDir dir;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.OnPlay(1);
    const auto frames = kel_test::MakeCompleteFrames({5}, 2, 17, 23);
    AtomPtr first = frames[0][0];
    AtomPtr second = frames[1][0];
    ASSERT_EQ(second->GetFrameNr(), 40U);
    const std::size_t layersBefore = second->GetNumDataLayers();
    EXPECT_EQ(w.writer.WriteAtom(first, false), 0U);
    EXPECT_EQ(w.writer.WriteAtom(second, false), 0U);
    w.writer.OnStop();

    // The caller's atoms got the output numbers but kept their layers.
    EXPECT_EQ(first->GetFrameNr(), 0U);
    EXPECT_EQ(second->GetFrameNr(), 1U);
    EXPECT_EQ(second->GetNumDataLayers(), layersBefore);

    const auto stored = ReadStreams(dir.File("rec.kel"), false);
    ASSERT_EQ(stored.at(5).size(), 2U);
    EXPECT_EQ(stored.at(5)[0]->GetFrameNr(), 0U);
    EXPECT_EQ(stored.at(5)[1]->GetFrameNr(), 1U);
    EXPECT_TRUE(HasStreamInfo(*stored.at(5)[0]));
    EXPECT_FALSE(HasStreamInfo(*stored.at(5)[1]));
    EXPECT_EQ(stored.at(5)[0]->GetNumDataLayers(), layersBefore);
    // Only the texture, mesh and version-2 camera survive optimisation.
    EXPECT_EQ(stored.at(5)[1]->GetNumDataLayers(), 3U);
}

TEST(WriterBase, OwnedAtomIsStrippedInPlace) {
    TempDir dir;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.OnPlay(1);
    const auto frames = kel_test::MakeCompleteFrames({1}, 2);
    EXPECT_EQ(w.writer.WriteAtom(frames[0][0], true), 0U);
    EXPECT_EQ(w.writer.WriteAtom(frames[1][0], true), 0U);
    EXPECT_TRUE(HasStreamInfo(*frames[0][0]));
    EXPECT_FALSE(HasStreamInfo(*frames[1][0]));
    w.writer.OnStop();
}

TEST(WriterBase, NullAtomIsRefused) {
    TempDir dir;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.OnPlay(1);
    EXPECT_EQ(w.writer.WriteAtom(nullptr, false), KEL::KEL_ERR_INVALID);
    w.writer.OnStop();
}

TEST(WriterBase, ExtensionIsReplacedAndXmlSuffixRequested) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    RecordingWriter w(dir.File("out/rec.data"), true);
    w.writer.OnPlay(1);
    EXPECT_EQ(w.writer.WriteAtom(kel_test::MakeFirstAtom(1, 1), false), 0U);
    w.writer.OnStop();
    const std::string kel = dir.File("out/rec.kel");
    EXPECT_TRUE(std::filesystem::exists(kel));
    EXPECT_FALSE(std::filesystem::exists(dir.File("out/rec.data")));
    EXPECT_TRUE(std::filesystem::exists(kel + ".xml"));
    EXPECT_EQ(log.Count("WriterBase::Start writing '" + kel + "+xml'"), 1U);
    EXPECT_EQ(log.Count("WriterBase::Stop writing '" + kel + "'"), 1U);
}

TEST(WriterBase, NoXmlCompanionWithoutTheSwitch) {
    TempDir dir;
    RecordingWriter w(dir.File("rec.kel"), false);
    w.writer.OnPlay(1);
    EXPECT_EQ(w.writer.WriteAtom(kel_test::MakeFirstAtom(1, 1), false), 0U);
    w.writer.OnStop();
    EXPECT_TRUE(std::filesystem::exists(dir.File("rec.kel")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("rec.kel.xml")));
}

TEST(WriterBase, SettingTheSamePathChangesNothing) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.OnPlay(1);
    w.writer.SetCurrentFilePath(dir.File("rec.kel"), false);
    EXPECT_EQ(log.CountContaining("Stop writing"), 0U);
    EXPECT_EQ(log.CountContaining("Start writing"), 1U);
    w.writer.OnStop();
}

TEST(WriterBase, FailingSerializationReturnsItsCodeAndKeepsTheFrameNumber) {
    TempDir dir;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.OnPlay(1);
    const auto frames = kel_test::MakeCompleteFrames({2}, 3, 0, 1, 64, 64);
    ASSERT_EQ(w.writer.WriteAtom(frames[0][0], false), 0U);

    // Let the file grow by a few bytes only: the next record cannot fit.
    rlimit original{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &original), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = original;
    limited.rlim_cur = kel_test::FileSize(dir.File("rec.kel")) + 16;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const KEL::KelErrorCode failed = w.writer.WriteAtom(frames[1][0], false);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &original), 0);
    std::signal(SIGXFSZ, previousHandler);

    EXPECT_EQ(failed, KEL::KEL_ERR_FILE_TOO_LARGE);
    // The failed atom did not use up number 1: the next atom gets it.
    EXPECT_EQ(w.writer.WriteAtom(frames[2][0], false), 0U);
    EXPECT_EQ(frames[2][0]->GetFrameNr(), 1U);
    w.writer.OnStop();

    const auto stored = ReadStreams(dir.File("rec.kel"), true);
    ASSERT_EQ(stored.at(2).size(), 2U);
    EXPECT_EQ(stored.at(2)[1]->GetFrameNr(), 1U);
    EXPECT_EQ(stored.at(2)[1]->GetTimeStamp(), frames[2][0]->GetTimeStamp());
}

TEST(WriterBase, ThumbnailOnlyOnTheFirstAtomOfEachStream) {
    TempDir dir;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.SetThumbnailCreationCurrentlyEnabled(true);
    w.writer.OnPlay(2);
    const auto frames = kel_test::MakeCompleteFrames({1, 2}, 3);
    for (const auto& frame : frames) {
        for (const auto& atom : frame) {
            ASSERT_EQ(w.writer.WriteAtom(atom, false), 0U);
        }
    }
    w.writer.OnStop();
    const auto stored = ReadStreams(dir.File("rec.kel"), false);
    for (std::uint16_t stream : {1, 2}) {
        ASSERT_EQ(stored.at(stream).size(), 3U);
        EXPECT_EQ(CountThumbnails(*stored.at(stream)[0]), 1U);
        EXPECT_EQ(CountThumbnails(*stored.at(stream)[1]), 0U);
        EXPECT_EQ(CountThumbnails(*stored.at(stream)[2]), 0U);
    }
}

TEST(WriterBase, NewFileGetsAThumbnailAgain) {
    TempDir dir;
    RecordingWriter w(dir.File("a.kel"));
    w.writer.SetThumbnailCreationCurrentlyEnabled(true);
    w.writer.OnPlay(1);
    const auto frames = kel_test::MakeCompleteFrames({1}, 3);
    ASSERT_EQ(w.writer.WriteAtom(frames[0][0], false), 0U);
    ASSERT_EQ(w.writer.WriteAtom(frames[1][0], false), 0U);
    w.writer.SetCurrentFilePath(dir.File("b.kel"), false);
    ASSERT_EQ(w.writer.WriteAtom(frames[2][0], false), 0U);
    w.writer.OnStop();
    const auto a = ReadStreams(dir.File("a.kel"), false);
    const auto b = ReadStreams(dir.File("b.kel"), false);
    ASSERT_EQ(a.at(1).size(), 2U);
    ASSERT_EQ(b.at(1).size(), 1U);
    EXPECT_EQ(b.at(1)[0]->GetFrameNr(), 0U);
    EXPECT_EQ(CountThumbnails(*b.at(1)[0]), 1U);
    EXPECT_TRUE(HasStreamInfo(*b.at(1)[0]));
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

TEST(Thumbnail, AtomWithoutImageIsWrittenWithoutThumbnailAndLoggedOnce) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    RecordingWriter w(dir.File("rec.kel"));
    w.writer.SetThumbnailCreationCurrentlyEnabled(true);
    w.writer.OnPlay(1);
    auto atom = std::make_shared<KEL::Atom>(3, 0, 10);
    atom->AddDataLayer(kel_test::MakeMesh(2, 1), true);
    EXPECT_EQ(w.writer.WriteAtom(atom, false), 0U);
    w.writer.OnStop();
    EXPECT_EQ(log.Count("Failed to create a thumbnail for an atom"), 1U);
    const auto records = log.Records();
    const auto it = std::find_if(records.begin(), records.end(),
                                 [](const auto& r) { return r.message == "Failed to create a thumbnail for an atom"; });
    ASSERT_NE(it, records.end());
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
    EXPECT_FALSE(std::filesystem::exists(dir.File("rec.kel")));
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
    explicit SnapshotFixture(const std::string& path) {
        auto params = writer.InitializeWriterParams();
        press = std::dynamic_pointer_cast<KEL::FilterParamCallback>(params.at(0));
        count = std::dynamic_pointer_cast<KEL::FilterParamUInt32>(params.at(1));
        writer.currentFilePath = path;
    }
    void Press() { writer.HandleParamValueChanged(press, "Take snapshot"); }
    // Offers every atom of the frames as a synchronous target does; returns
    // how many were written.
    int Offer(const kel_test::Frames& frames) {
        int written = 0;
        for (const auto& frame : frames) {
            for (const auto& atom : frame) {
                if (writer.ProcessingAllowed()) {
                    EXPECT_EQ(writer.WriteAtom(atom, false), 0U);
                    ++written;
                }
            }
        }
        return written;
    }
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

TEST(SnapshotWriter, OnePressWritesFramesCountTimesStreamsAtoms) {
    TempDir dir;
    SnapshotFixture<Kel2File::SnapshotWriter> f(dir.File("snap.kel"));
    f.writer.OnPlay(2);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({1, 2}, 10)), 6);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    f.writer.OnStop();
    const auto stored = ReadStreams(dir.File("snap.kel"), false);
    EXPECT_EQ(stored.at(1).size(), 3U);
    EXPECT_EQ(stored.at(2).size(), 3U);
}

TEST(SnapshotWriter, PressesAddUpAndNumberingContinues) {
    TempDir dir;
    SnapshotFixture<Kel2File::SnapshotWriter> f(dir.File("snap.kel"));
    f.writer.OnPlay(2);
    f.Press();
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({1, 2}, 10)), 12);
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({1, 2}, 10)), 6);
    f.writer.OnStop();
    const auto stored = ReadStreams(dir.File("snap.kel"), false);
    ASSERT_EQ(stored.at(1).size(), 9U);
    EXPECT_EQ(stored.at(1)[8]->GetFrameNr(), 8U);
    EXPECT_TRUE(HasStreamInfo(*stored.at(1)[0]));
    EXPECT_FALSE(HasStreamInfo(*stored.at(1)[6]));
}

TEST(SnapshotWriter, CounterHasNoFloorWhenAFrameOvershoots) {
    TempDir dir;
    SnapshotFixture<Kel2File::SnapshotWriter> f(dir.File("snap.kel"));
    f.count->SetValue(1);
    f.writer.OnPlay(1);
    f.Press();
    // A caller that checks once per frame of two atoms writes both.
    const auto frames = kel_test::MakeCompleteFrames({1, 2}, 1);
    ASSERT_TRUE(f.writer.ProcessingAllowed());
    EXPECT_EQ(f.writer.WriteAtom(frames[0][0], false), 0U);
    EXPECT_EQ(f.writer.WriteAtom(frames[0][1], false), 0U);
    // The counter wrapped below zero and keeps writing.
    EXPECT_TRUE(f.writer.ProcessingAllowed());
    f.writer.OnStop();
}

TEST(SnapshotWriter, PathChangeEndsTheSnapshotAndOpensANewFile) {
    TempDir dir;
    SnapshotFixture<Kel2File::SnapshotWriter> f(dir.File("a.kel"));
    f.writer.OnPlay(1);
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({1}, 1)), 1);
    f.writer.SetCurrentFilePath(dir.File("b.kel"), false);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    EXPECT_TRUE(std::filesystem::exists(dir.File("b.kel")));
    f.writer.OnStop();
    EXPECT_EQ(ReadStreams(dir.File("a.kel"), false).at(1).size(), 1U);
}

TEST(SnapshotWriter, PlayAndStopWithoutPressLeavesAnEmptyFile) {
    TempDir dir;
    SnapshotFixture<Kel2File::SnapshotWriter> f(dir.File("snap.kel"));
    f.writer.OnPlay(1);
    f.writer.OnStop();
    EXPECT_TRUE(std::filesystem::exists(dir.File("snap.kel")));
    EXPECT_TRUE(ReadStreams(dir.File("snap.kel"), false).empty());
}

TEST(PerStreamFilePath, StreamIdGoesBetweenStemAndLastExtension) {
    EXPECT_EQ(Kel2File::PerStreamFilePath("out/take.kel", 3), "out/take_3.kel");
    EXPECT_EQ(Kel2File::PerStreamFilePath("out/take", 3), "out/take_3");
    EXPECT_EQ(Kel2File::PerStreamFilePath("take.kel", 3), "take_3.kel");
    EXPECT_EQ(Kel2File::PerStreamFilePath("out/take.v2.data", 3), "out/take.v2_3.data");
    EXPECT_EQ(Kel2File::PerStreamFilePath("/d/rec.kel", 12), "/d/rec_12.kel");
    EXPECT_EQ(Kel2File::PerStreamFilePath("/d/rec.kel", 65535), "/d/rec_65535.kel");
}

// Writes one atom of streams 3 and 7 through a recording PerStreamWriter.
void WritePerStream(const std::string& path) {
    Kel2File::PerStreamWriter writer;
    AsBool(writer.InitializeWriterParams()[0])->SetValue(true);
    writer.currentFilePath = path;
    writer.OnPlay(2);
    const auto frames = kel_test::MakeCompleteFrames({3, 7}, 1);
    for (const auto& atom : frames[0]) {
        EXPECT_EQ(writer.WriteAtom(atom, false), 0U);
    }
    writer.OnStop();
}

TEST(PerStreamWriter, EachStreamGetsItsOwnFile) {
    TempDir dir;
    WritePerStream(dir.File("out/take.kel"));
    EXPECT_EQ(ReadStreams(dir.File("out/take_3.kel"), false).at(3).size(), 1U);
    EXPECT_EQ(ReadStreams(dir.File("out/take_7.kel"), false).at(7).size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(dir.File("out/take.kel")));
}

TEST(PerStreamWriter, PathWithoutExtensionGetsKel) {
    TempDir dir;
    WritePerStream(dir.File("out/take"));
    EXPECT_TRUE(std::filesystem::exists(dir.File("out/take_3.kel")));
    EXPECT_TRUE(std::filesystem::exists(dir.File("out/take_7.kel")));
}

TEST(PerStreamWriter, BareFileNameIsTakenInTheWorkingDirectory) {
    TempDir dir;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    WritePerStream("take.kel");
    std::filesystem::current_path(previous);
    EXPECT_TRUE(std::filesystem::exists(dir.File("take_3.kel")));
    EXPECT_TRUE(std::filesystem::exists(dir.File("take_7.kel")));
}

TEST(PerStreamWriter, OnlyTheLastExtensionIsSplitOff) {
    TempDir dir;
    WritePerStream(dir.File("out/take.v2.data"));
    EXPECT_TRUE(std::filesystem::exists(dir.File("out/take.v2_3.kel")));
    EXPECT_TRUE(std::filesystem::exists(dir.File("out/take.v2_7.kel")));
}

TEST(PerStreamWriter, NoAtomMeansNoFile) {
    TempDir dir;
    Kel2File::PerStreamWriter writer;
    AsBool(writer.InitializeWriterParams()[0])->SetValue(true);
    writer.currentFilePath = dir.File("take.kel");
    writer.OnPlay(2);
    EXPECT_TRUE(writer.ProcessingAllowed());
    writer.OnStop();
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

TEST(PerStreamWriter, PathChangeClosesEveryFileAndTheNextAtomsStartAtZero) {
    TempDir dir;
    KelCommon::ScopedLogCapture log;
    Kel2File::PerStreamWriter writer;
    AsBool(writer.InitializeWriterParams()[0])->SetValue(true);
    writer.currentFilePath = dir.File("a.kel");
    writer.OnPlay(2);
    const auto frames = kel_test::MakeCompleteFrames({3, 7}, 3);
    for (const auto& atom : frames[0]) {
        ASSERT_EQ(writer.WriteAtom(atom, false), 0U);
    }
    writer.SetCurrentFilePath(dir.File("b.kel"), false);
    EXPECT_EQ(log.CountContaining("Stop writing"), 2U);
    for (const auto& atom : frames[1]) {
        ASSERT_EQ(writer.WriteAtom(atom, false), 0U);
    }
    writer.OnStop();
    const auto b3 = ReadStreams(dir.File("b_3.kel"), false).at(3);
    ASSERT_EQ(b3.size(), 1U);
    EXPECT_EQ(b3[0]->GetFrameNr(), 0U);
    EXPECT_TRUE(HasStreamInfo(*b3[0]));
}

TEST(PerStreamSnapshotWriter, TwoSnapshotsGoIntoTheSameFilesWithContinuingNumbers) {
    TempDir dir;
    SnapshotFixture<Kel2File::PerStreamSnapshotWriter> f(dir.File("snap.kel"));
    f.count->SetValue(2);
    f.writer.OnPlay(2);
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({3, 7}, 5)), 4);
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({3, 7}, 5)), 4);
    f.writer.OnStop();
    for (std::uint16_t stream : {3, 7}) {
        const auto atoms = ReadStreams(dir.File("snap_" + std::to_string(stream) + ".kel"), false).at(stream);
        ASSERT_EQ(atoms.size(), 4U);
        for (std::uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(atoms[i]->GetFrameNr(), i);
        }
    }
}

TEST(PerStreamSnapshotWriter, PathChangeCancelsTheSnapshot) {
    TempDir dir;
    SnapshotFixture<Kel2File::PerStreamSnapshotWriter> f(dir.File("a.kel"));
    f.writer.OnPlay(1);
    f.Press();
    EXPECT_EQ(f.Offer(kel_test::MakeCompleteFrames({3}, 1)), 1);
    f.writer.SetCurrentFilePath(dir.File("b.kel"), false);
    EXPECT_FALSE(f.writer.ProcessingAllowed());
    f.writer.OnStop();
    EXPECT_TRUE(std::filesystem::exists(dir.File("a_3.kel")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("b_3.kel")));
}

}  // namespace
