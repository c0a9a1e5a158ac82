// `kel copy`, `split`, `merge` and `concat`: graphs of the plugin's own
// filters, checked by reading the written files back atom by atom.

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ToolTestSupport.h"

namespace {

using kel_tool_test::RecordSynthetic;
using KelCopy = kel_tool_test::KelToolTest;
using KelSplit = kel_tool_test::KelToolTest;
using KelConcat = kel_tool_test::KelToolTest;

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

// `actual` holds exactly the streams `ids` of `expected`, each stored
// unchanged.
void ExpectSameStreams(KEL::ReadKEL2File& expected, KEL::ReadKEL2File& actual, const std::vector<std::uint16_t>& ids) {
    ASSERT_EQ(StreamIds(actual), ids);
    for (const std::uint16_t id : ids) {
        ExpectSameStream(expected, id, actual, id);
    }
}

TEST_F(KelCopy, RoundTripStoresEveryAtomUnchanged) {
    RecordSynthetic(File("in.kel"), 3, 6);
    const auto run = Kel({"copy", "in.kel", "out/copy.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 6"), std::string::npos) << run.out;
    auto in = Open(File("in.kel"));
    ExpectSameStreams(*in, *Open(File("out/copy.kel")), StreamIds(*in));
    EXPECT_FALSE(Exists("out/copy.kel.xml"));
}

TEST_F(KelCopy, StreamsOptionKeepsOnlyTheListedStreams) {
    RecordSynthetic(File("in.kel"), 4, 3);
    const auto run = Kel({"copy", "in.kel", "two.kel", "--streams", "1,3"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    ExpectSameStreams(*Open(File("in.kel")), *Open(File("two.kel")), {1, 3});
}

TEST_F(KelCopy, AsyncWithoutDroppingStoresEveryAtomAndXml) {
    RecordSynthetic(File("in.kel"), 2, 20);
    const auto run = Kel({"copy", "in.kel", "out.kel", "--async", "--buffer", "2", "--no-drop", "--xml"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("out: Dropped frames count = 0"), std::string::npos) << run.out;
    ExpectSameStreams(*Open(File("in.kel")), *Open(File("out.kel")), {0, 1});
    EXPECT_TRUE(Exists("out.kel.xml"));
}

TEST_F(KelCopy, AsyncDroppingAccountsForEveryFrame) {
    RecordSynthetic(File("in.kel"), 2, 40, false, 128, 128);
    const auto run = Kel({"copy", "in.kel", "out.kel", "--async", "--buffer", "1", "--drop"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string marker = "out: Dropped frames count = ";
    const auto at = run.out.find(marker);
    ASSERT_NE(at, std::string::npos) << run.out;
    const std::uint32_t dropped = std::stoul(run.out.substr(at + marker.size()));
    // Whole frames are written or dropped: what is in the file and what was
    // counted as dropped make up every frame played.
    auto out = Open(File("out.kel"));
    EXPECT_EQ(out->GetNumFrames(0) + dropped, 40U);
    EXPECT_EQ(out->GetNumFrames(1), out->GetNumFrames(0));
}

TEST_F(KelCopy, ThumbnailOptionAddsThumbnailToFirstAtoms) {
    RecordSynthetic(File("in.kel"), 2, 3, /*thumbnail=*/false, 40, 20);
    const auto run = Kel({"copy", "in.kel", "thumbs.kel", "--thumbnail"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto out = Open(File("thumbs.kel"));
    for (const std::uint16_t id : StreamIds(*out)) {
        const auto kinds = kel_test::LayerKinds(*out->GetFirstFrameAtom(id));
        EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "TextureRGBA/THUMBNAIL"), 1) << "stream " << id;
    }
}

TEST_F(KelCopy, OutputPathGetsTheContainerExtensionButNeverNamesTheInput) {
    RecordSynthetic(File("in.kel"), 1, 3);
    KelFails({"copy", "in.kel", "./in.data"}, 1, "is the input");
    const auto run = Kel({"copy", "in.kel", "copy.data"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(Exists("copy.kel"));
    EXPECT_FALSE(Exists("copy.data"));
}

TEST_F(KelCopy, MissingInputFailsWithTheSourceMessage) {
    KelFails({"copy", "absent.kel", "out.kel"}, 1, "Failed to open file '");
    EXPECT_FALSE(Exists("out.kel"));
}

TEST_F(KelSplit, WritesOneFilePerStreamAndMergeRestoresTheRecording) {
    RecordSynthetic(File("in.kel"), 3, 4);
    const auto split = Kel({"split", "in.kel", "parts/"});
    ASSERT_EQ(split.exitCode, 0) << split.err;
    auto in = Open(File("in.kel"));
    for (const std::uint16_t id : {0, 1, 2}) {
        const std::string part = File("parts/in_" + std::to_string(id) + ".kel");
        ASSERT_TRUE(std::filesystem::exists(part)) << part;
        ExpectSameStreams(*in, *Open(part), {id});
    }

    const auto merge = Kel({"merge", "parts", "merged.kel"});
    ASSERT_EQ(merge.exitCode, 0) << merge.err;
    ExpectSameStreams(*in, *Open(File("merged.kel")), StreamIds(*in));
}

TEST_F(KelConcat, JoinsFilesWithContinuousFrameNumbers) {
    RecordSynthetic(File("takes/1.kel"), 2, 3);
    RecordSynthetic(File("takes/2.kel"), 2, 5);
    KelFails({"concat", "takes", "takes/1.kel"}, 1, "is the input");
    const auto run = Kel({"concat", "takes", "all.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto first = Open(File("takes/1.kel"));
    auto second = Open(File("takes/2.kel"));
    auto all = Open(File("all.kel"));
    const auto textureGuid = KEL::DataTypeTextureRGBA::TheTypeGuid();
    for (const std::uint16_t id : {0, 1}) {
        ASSERT_EQ(all->GetNumFrames(id), 8U);
        for (std::uint32_t f = 0; f < 8; ++f) {
            const auto atom = all->GetFrameAtom(id, f);
            ASSERT_TRUE(atom) << f;
            const auto original = f < 3 ? first->GetFrameAtom(id, f) : second->GetFrameAtom(id, f - 3);
            EXPECT_EQ(atom->GetTimeStamp(), original->GetTimeStamp()) << f;
            const auto image = KEL::LayerCast<KEL::DataTypeTextureRGBA>(atom->GetDataLayerByType(textureGuid, false));
            const auto originalImage =
                KEL::LayerCast<KEL::DataTypeTextureRGBA>(original->GetDataLayerByType(textureGuid, false));
            ASSERT_TRUE(image && originalImage);
            EXPECT_TRUE(image->GetPixels().ContentEquals(originalImage->GetPixels())) << f;
        }
    }
}

TEST_F(KelConcat, DirectoryOfUnlikeFilesFailsWithTheSourceMessage) {
    RecordSynthetic(File("takes/1.kel"), 1, 2);
    RecordSynthetic(File("takes/2.kel"), 2, 2);
    KelFails({"concat", "takes", "all.kel"}, 1, "initialisation failed");
    EXPECT_FALSE(Exists("all.kel"));
}

}  // namespace
