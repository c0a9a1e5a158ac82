#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KelErrorCode.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <set>

#include "support/TestSupport.h"
#include "targets/TargetTestSupport.h"
#include "utils/ParameterNames.h"
#include "utils/Utils.h"
#include "writers/BasicWriter.h"
#include "writers/PerStreamSnapshotWriter.h"
#include "writers/PerStreamWriter.h"
#include "writers/SnapshotWriter.h"

namespace {

namespace fs = std::filesystem;
using kel_test::AtomPtr;
using kel_test::MakeCompleteFrames;
using kel_test::ReadStreams;
using kel_test::TempDir;

// Switches "Enable Recording" on and points `writer` at `path`.
void Record(Kel2File::WriterBase& writer, const std::string& path) {
    std::dynamic_pointer_cast<KEL::FilterParamBool>(writer.InitializeWriterParams().at(0))->SetValue(true);
    writer.currentFilePath = path;
}

struct Strategy {
    const char* name;
    std::function<std::unique_ptr<Kel2File::WriterBase>()> make;
    bool snapshot;
    bool perStream;
};

template <class W>
std::unique_ptr<Kel2File::WriterBase> Make() {
    return std::make_unique<W>();
}

const Strategy kStrategies[] = {
    {"BasicWriter", Make<Kel2File::BasicWriter>, false, false},
    {"SnapshotWriter", Make<Kel2File::SnapshotWriter>, true, false},
    {"PerStreamWriter", Make<Kel2File::PerStreamWriter>, false, true},
    {"PerStreamSnapshotWriter", Make<Kel2File::PerStreamSnapshotWriter>, true, true},
};

// The output paths the generated runs switch between, with the stem of the
// files they give: the last extension is replaced by ".kel", and per-stream
// files add "_<stream id>" to the stem. Missing directories are created.
const std::pair<const char*, const char*> kPaths[] = {{"a.kel", "a"}, {"out/b.v2.data", "out/b.v2"}, {"c", "c"}};

// Which atoms each file holds, as the strategies are documented to write
// them. A single-file strategy opens its file (empty) when recording starts,
// at play for snapshots, and again on a path change while it is open; a
// per-stream strategy opens a stream's file with the stream's first atom.
// Opening truncates. Snapshots allow "Frames count per snapshot" times the
// number of streams atoms per press; a path change cancels them.
struct FileModel {
    struct Stream {
        bool thumbnail = false;  // thumbnails were on when its first atom was written
        std::vector<AtomPtr> atoms;
    };
    using File = std::map<std::uint16_t, Stream>;

    const Strategy& strategy;
    const TempDir& dir;
    std::string stem;
    bool recording = false;
    bool thumbnails = false;
    std::uint32_t budget = 0;
    std::set<std::string> open = {};
    std::map<std::string, File> files = {};

    std::string FileOf(std::uint16_t stream) const {
        return dir.File(stem + (strategy.perStream ? "_" + std::to_string(stream) : "") + ".kel");
    }
    bool Allowed() const { return strategy.snapshot ? budget != 0 : recording; }
    void OpenSingleFile() {
        open.clear();
        if (!strategy.perStream && (strategy.snapshot || recording)) {
            open.insert(FileOf(0));
            files[FileOf(0)] = {};
        }
    }
    void Toggle() {
        recording = !recording;
        OpenSingleFile();
    }
    void SetPath(const std::string& newStem) {
        if (newStem != stem) {
            stem = newStem;
            budget = 0;
            OpenSingleFile();
        }
    }
    void Write(const AtomPtr& atom) {
        const std::string file = FileOf(atom->GetStreamId());
        if (open.insert(file).second) {
            files[file] = {};
        }
        Stream& stream = files[file][atom->GetStreamId()];
        EXPECT_EQ(atom->GetFrameNr(), stream.atoms.size());
        stream.thumbnail = stream.atoms.empty() ? thumbnails : stream.thumbnail;
        stream.atoms.push_back(atom);
        budget -= strategy.snapshot ? 1 : 0;
    }
};

// Every file in the directory is one the model has, holding each stream's
// atoms numbered from 0, the first one complete and with a thumbnail when
// they were on, the later ones restored from it.
void ExpectFilesOfModel(const FileModel& model) {
    std::set<std::string> onDisk;
    for (const auto& entry : fs::recursive_directory_iterator(model.dir.Path())) {
        if (!entry.is_directory()) {
            onDisk.insert(entry.path().string());
        }
    }
    std::set<std::string> expected;
    for (const auto& [file, streams] : model.files) {
        expected.insert(file);
        const auto stored = ReadStreams(file, false);
        const auto restored = ReadStreams(file, true);
        ASSERT_EQ(restored.size(), streams.size()) << file;
        for (const auto& [id, stream] : streams) {
            ASSERT_EQ(restored.at(id).size(), stream.atoms.size()) << file;
            for (std::size_t i = 0; i < stream.atoms.size(); ++i) {
                const auto& atom = restored.at(id)[i];
                EXPECT_EQ(kel_test::CountThumbnails(*stored.at(id)[i]), i == 0 && stream.thumbnail ? 1U : 0U);
                std::string why;
                EXPECT_EQ(atom->GetFrameNr(), i) << file;
                EXPECT_TRUE(kel_test::SameContent(*atom, *stream.atoms[i], &why)) << file << " " << i << ": " << why;
            }
        }
    }
    EXPECT_EQ(onDisk, expected);
}

// Generated runs: between frames the run switches recording, presses "Take
// snapshot" with a new frame count, switches thumbnails or changes the path;
// frames are written atom by atom while the strategy allows it, as a
// synchronous target does.
TEST(WriterStrategies, GeneratedRunsWriteTheFilesOfTheModel) {
    const std::vector<std::uint16_t> streams = {3, 7};
    for (const Strategy& strategy : kStrategies) {
        for (std::uint32_t seed = 0; seed < 12; ++seed) {
            SCOPED_TRACE(std::string(strategy.name) + " seed " + std::to_string(seed));
            std::mt19937 random(seed);
            TempDir dir;
            const auto writer = strategy.make();
            const auto params = writer->InitializeWriterParams();
            FileModel model{strategy, dir, kPaths[0].second};
            writer->currentFilePath = dir.File(kPaths[0].first);
            writer->OnPlay(2);
            model.OpenSingleFile();
            const auto frames = MakeCompleteFrames(streams, 20, random() % 100, 1 + random() % 3);
            for (const auto& frame : frames) {
                for (auto step = random() % 3; step > 0; --step) {
                    switch (random() % 3) {
                        case 0: {
                            const auto& [path, stem] = kPaths[random() % 3];
                            writer->SetCurrentFilePath(dir.File(path), false);
                            model.SetPath(stem);
                            break;
                        }
                        case 1:
                            model.thumbnails = random() % 2 == 0;
                            writer->SetThumbnailCreationCurrentlyEnabled(model.thumbnails);
                            break;
                        default:
                            if (strategy.snapshot) {
                                const auto count = 1 + random() % 3;
                                std::dynamic_pointer_cast<KEL::FilterParamUInt32>(params.at(1))->SetValue(count);
                                writer->HandleParamValueChanged(params.at(0), Kel2File::kParamTakeSnapshot);
                                model.budget += count * 2;
                            } else {
                                const auto enable = std::dynamic_pointer_cast<KEL::FilterParamBool>(params.at(0));
                                enable->SetValue(!enable->GetValue());
                                EXPECT_TRUE(writer->WriterParamChangesAvailable());
                                EXPECT_EQ(writer->ProcessingAllowed(), model.Allowed());
                                writer->ApplyWriterParamChanges();
                                EXPECT_FALSE(writer->WriterParamChangesAvailable());
                                model.Toggle();
                            }
                    }
                }
                for (const auto& atom : frame) {
                    ASSERT_EQ(writer->ProcessingAllowed(), model.Allowed());
                    if (model.Allowed()) {
                        // The caller's atom is left whole (it is checked against
                        // the file below) but gets the output number.
                        ASSERT_EQ(writer->WriteAtom(atom, false), 0U);
                        model.Write(atom);
                    }
                }
            }
            writer->OnStop();
            ExpectFilesOfModel(model);
        }
    }
}

TEST(WriterOutput, FailingSerializationReturnsItsCodeAndKeepsTheFrameNumber) {
    TempDir dir;
    Kel2File::BasicWriter writer;
    Record(writer, dir.File("rec.kel"));
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
    writer.OnStop();
    kel_test::ExpectFileHoldsFrames(dir.File("rec.kel"), {frames[0], frames[2]});
}

// An atom's existing thumbnail is replaced, not duplicated; an atom without
// an image is written without one, and that is logged once.
TEST(Thumbnail, ExistingOneIsReplacedAndAnAtomWithoutImageIsWrittenWithoutOne) {
    auto atom = kel_test::MakeFrameAtom(1, 0, 32, 16);
    auto old = kel_test::MakeTexture(4, 4, 99, KEL::PurposeGuid_THUMBNAIL);
    atom->AddDataLayer(old, true);
    Kel2File::Utils::CreateThumbnailData(atom);
    ASSERT_EQ(kel_test::CountThumbnails(*atom), 1U);
    EXPECT_FALSE(atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false)
                     ->ContentEquals(*old));

    TempDir dir;
    KelCommon::ScopedLogCapture log;
    Kel2File::BasicWriter writer;
    Record(writer, dir.File("rec.kel"));
    writer.SetThumbnailCreationCurrentlyEnabled(true);
    writer.OnPlay(1);
    auto imageless = std::make_shared<KEL::Atom>(3, 0, 10);
    imageless->AddDataLayer(kel_test::MakeMesh(2, 1), true);
    EXPECT_EQ(writer.WriteAtom(imageless, false), 0U);
    writer.OnStop();
    EXPECT_EQ(log.Count("Failed to create a thumbnail for an atom"), 1U);
    EXPECT_EQ(kel_test::CountThumbnails(*ReadStreams(dir.File("rec.kel"), false).at(3).at(0)), 0U);
}

}  // namespace
