// `kel copy`, `split`, `merge` and `concat`: graphs of the plugin's own
// filters, checked by reading the written files back atom by atom.

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ToolTestSupport.h"
#include "support/TestSupport.h"

namespace {

using kel_test::TempDir;
using kel_tool_test::RecordSynthetic;
using kel_tool_test::RunKel;

std::shared_ptr<KEL::ReadKEL2File> Open(const std::string& path) {
    auto reader = std::make_shared<KEL::ReadKEL2File>(path.c_str());
    EXPECT_EQ(reader->Initialize(), KEL::KEL_OK) << path;
    return reader;
}

std::vector<std::uint16_t> StreamIds(KEL::ReadKEL2File& reader) {
    std::vector<std::uint16_t> ids;
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        ids.push_back(reader.GetStreamId(i));
    }
    return ids;
}

std::shared_ptr<KEL::Atom> WithoutStreamInfo(const std::shared_ptr<KEL::Atom>& atom) {
    auto copy = KEL::Atom::Copy(atom, -1, false);
    copy->RemoveDataLayers(KEL::DataTypeStreamInfo::TheTypeGuid());
    return copy;
}

// Every atom of `stream` in `expected` is stored identically in `actual`,
// apart from the stream information: a source hands its own (with the frame
// count it plays) to every stream it reads, so the written file carries that
// one in each stream's first atom.
void ExpectSameStream(KEL::ReadKEL2File& expected, std::uint16_t expectedStream, KEL::ReadKEL2File& actual,
                      std::uint16_t actualStream) {
    ASSERT_EQ(actual.GetNumFrames(actualStream), expected.GetNumFrames(expectedStream));
    for (std::uint32_t f = 0; f < expected.GetNumFrames(expectedStream); ++f) {
        const auto a = expected.GetFrameAtom(expectedStream, f);
        const auto b = actual.GetFrameAtom(actualStream, f);
        ASSERT_TRUE(a && b) << "frame " << f;
        std::string why;
        EXPECT_TRUE(kel_test::AtomsEqual(*WithoutStreamInfo(a), *WithoutStreamInfo(b), &why))
            << "stream " << expectedStream << " frame " << f << ": " << why;
        const auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(
            b->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false));
        if (f == 0) {
            ASSERT_TRUE(info) << "stream " << actualStream;
            EXPECT_EQ(info->GetNumFrames(), actual.GetNumFrames(actualStream));
        } else {
            EXPECT_FALSE(info) << "later atoms are stored without stream information";
        }
    }
}

TEST(KelCopy, RoundTripStoresEveryAtomUnchanged) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 3, 6);
    const auto run = RunKel({"copy", "in.kel", "out/copy.kel"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 6"), std::string::npos) << run.out;
    auto in = Open(dir.File("in.kel"));
    auto out = Open(dir.File("out/copy.kel"));
    ASSERT_EQ(StreamIds(*out), StreamIds(*in));
    for (const std::uint16_t id : StreamIds(*in)) {
        ExpectSameStream(*in, id, *out, id);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.File("out/copy.kel.xml")));
}

TEST(KelCopy, StreamsOptionKeepsOnlyTheListedStreams) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 4, 3);
    const auto run = RunKel({"copy", "in.kel", "two.kel", "--streams", "1,3"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto in = Open(dir.File("in.kel"));
    auto out = Open(dir.File("two.kel"));
    ASSERT_EQ(StreamIds(*out), (std::vector<std::uint16_t>{1, 3}));
    ExpectSameStream(*in, 1, *out, 1);
    ExpectSameStream(*in, 3, *out, 3);
}

TEST(KelCopy, AsyncWithoutDroppingStoresEveryAtomAndXml) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 2, 20);
    const auto run =
        RunKel({"copy", "in.kel", "out.kel", "--async", "--buffer", "2", "--no-drop", "--xml"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("out: Dropped frames count = 0"), std::string::npos) << run.out;
    auto in = Open(dir.File("in.kel"));
    auto out = Open(dir.File("out.kel"));
    ExpectSameStream(*in, 0, *out, 0);
    ExpectSameStream(*in, 1, *out, 1);
    EXPECT_TRUE(std::filesystem::exists(dir.File("out.kel.xml")));
}

TEST(KelCopy, AsyncDroppingAccountsForEveryFrame) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 2, 40, false, 128, 128);
    const auto run = RunKel({"copy", "in.kel", "out.kel", "--async", "--buffer", "1", "--drop"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string marker = "out: Dropped frames count = ";
    const auto at = run.out.find(marker);
    ASSERT_NE(at, std::string::npos) << run.out;
    const std::uint32_t dropped = std::stoul(run.out.substr(at + marker.size()));
    // Whole frames are written or dropped: what is in the file and what was
    // counted as dropped make up every frame played.
    auto out = Open(dir.File("out.kel"));
    EXPECT_EQ(out->GetNumFrames(0) + dropped, 40U);
    EXPECT_EQ(out->GetNumFrames(1), out->GetNumFrames(0));
}

TEST(KelCopy, ThumbnailOptionAddsThumbnailToFirstAtoms) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 2, 3, /*thumbnail=*/false, 40, 20);
    const auto run = RunKel({"copy", "in.kel", "thumbs.kel", "--thumbnail"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto out = Open(dir.File("thumbs.kel"));
    for (const std::uint16_t id : StreamIds(*out)) {
        const auto kinds = kel_test::LayerKinds(*out->GetFirstFrameAtom(id));
        EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "TextureRGBA/THUMBNAIL"), 1) << "stream " << id;
    }
}

TEST(KelCopy, OutputPathGetsTheContainerExtension) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 1, 2);
    const auto run = RunKel({"copy", "in.kel", "copy.data"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(std::filesystem::exists(dir.File("copy.kel")));
    EXPECT_FALSE(std::filesystem::exists(dir.File("copy.data")));
}

TEST(KelCopy, RefusesToOverwriteItsInput) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 1, 3);
    const auto before = kel_test::ReadFileBytes(dir.File("in.kel"));
    const auto run = RunKel({"copy", "in.kel", "./in.data"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("is the input"), std::string::npos) << run.err;
    EXPECT_EQ(kel_test::ReadFileBytes(dir.File("in.kel")), before);
}

TEST(KelCopy, MissingInputFailsWithTheSourceMessage) {
    TempDir dir;
    const auto run = RunKel({"copy", "absent.kel", "out.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("Failed to open file '"), std::string::npos) << run.err;
    EXPECT_FALSE(std::filesystem::exists(dir.File("out.kel")));
}

TEST(KelSplit, WritesOneFilePerStreamAndMergeRestoresTheRecording) {
    TempDir dir;
    RecordSynthetic(dir.File("in.kel"), 3, 4);
    const auto split = RunKel({"split", "in.kel", "parts/"}, dir.Path().string());
    ASSERT_EQ(split.exitCode, 0) << split.err;
    auto in = Open(dir.File("in.kel"));
    for (const std::uint16_t id : {0, 1, 2}) {
        const std::string part = dir.File("parts/in_" + std::to_string(id) + ".kel");
        ASSERT_TRUE(std::filesystem::exists(part)) << part;
        auto reader = Open(part);
        ASSERT_EQ(StreamIds(*reader), std::vector<std::uint16_t>{id});
        ExpectSameStream(*in, id, *reader, id);
    }

    const auto merge = RunKel({"merge", "parts", "merged.kel"}, dir.Path().string());
    ASSERT_EQ(merge.exitCode, 0) << merge.err;
    auto merged = Open(dir.File("merged.kel"));
    ASSERT_EQ(StreamIds(*merged), StreamIds(*in));
    for (const std::uint16_t id : StreamIds(*in)) {
        ExpectSameStream(*in, id, *merged, id);
    }
}

TEST(KelConcat, JoinsFilesWithContinuousFrameNumbers) {
    TempDir dir;
    RecordSynthetic(dir.File("takes/1.kel"), 2, 3);
    RecordSynthetic(dir.File("takes/2.kel"), 2, 5);
    const auto run = RunKel({"concat", "takes", "all.kel"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto first = Open(dir.File("takes/1.kel"));
    auto second = Open(dir.File("takes/2.kel"));
    auto all = Open(dir.File("all.kel"));
    for (const std::uint16_t id : {0, 1}) {
        ASSERT_EQ(all->GetNumFrames(id), 8U);
        for (std::uint32_t f = 0; f < 8; ++f) {
            const auto atom = all->GetFrameAtom(id, f);
            ASSERT_TRUE(atom) << f;
            const auto original = f < 3 ? first->GetFrameAtom(id, f) : second->GetFrameAtom(id, f - 3);
            EXPECT_EQ(atom->GetTimeStamp(), original->GetTimeStamp()) << f;
            const auto image = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
                atom->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
            const auto originalImage = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
                original->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
            ASSERT_TRUE(image && originalImage);
            EXPECT_TRUE(image->GetPixels().ContentEquals(originalImage->GetPixels())) << f;
        }
    }
}

TEST(KelConcat, DirectoryOfUnlikeFilesFailsWithTheSourceMessage) {
    TempDir dir;
    RecordSynthetic(dir.File("takes/1.kel"), 1, 2);
    RecordSynthetic(dir.File("takes/2.kel"), 2, 2);
    const auto run = RunKel({"concat", "takes", "all.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("initialisation failed"), std::string::npos) << run.err;
    EXPECT_FALSE(std::filesystem::exists(dir.File("all.kel")));
}

TEST(KelConcat, RefusesToWriteOverOneOfItsInputs) {
    TempDir dir;
    RecordSynthetic(dir.File("takes/1.kel"), 1, 2);
    const auto run = RunKel({"concat", "takes", "takes/1.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("is the input"), std::string::npos) << run.err;
}

}  // namespace
