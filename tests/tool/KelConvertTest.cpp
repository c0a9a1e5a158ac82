// `kel copy`, `split`, `merge` and `concat`: graphs of the plugin's own
// filters, checked by reading the written files back atom by atom.

#include <KEL/DataTypeTextureRGBA.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ToolTestSupport.h"

namespace {

using kel_tool_test::ExpectSameStreams;
using kel_tool_test::Open;
using kel_tool_test::RecordSynthetic;
using kel_tool_test::StreamIds;
using KelCopy = kel_tool_test::KelToolTest;
using KelSplit = kel_tool_test::KelToolTest;
using KelConcat = kel_tool_test::KelToolTest;

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

// Whole frames are written or dropped: the file holds the same source frames
// (told by their time stamps) in both streams, and those plus the frames
// counted as dropped make up every frame played.
TEST_F(KelCopy, AsyncDroppingAccountsForEveryFrame) {
    RecordSynthetic(File("in.kel"), 2, 40, false, 128, 128);
    const auto run = Kel({"copy", "in.kel", "out.kel", "--async", "--buffer", "1", "--drop"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string marker = "out: Dropped frames count = ";
    const auto at = run.out.find(marker);
    ASSERT_NE(at, std::string::npos) << run.out;
    const auto out = Open(File("out.kel"));
    EXPECT_EQ(out->GetNumFrames(0) + std::stoul(run.out.substr(at + marker.size())), 40U);
    EXPECT_EQ(out->GetTimeStamps(0), out->GetTimeStamps(1));
    const auto played = Open(File("in.kel"))->GetTimeStamps(0);
    const auto kept = out->GetTimeStamps(0);
    EXPECT_TRUE(std::includes(played.begin(), played.end(), kept.begin(), kept.end()));
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

TEST_F(KelSplit, WritesOneFilePerStreamAndMergeRestoresTheRecording) {
    RecordSynthetic(File("in.kel"), 3, 4);
    const auto split = Kel({"split", "in.kel", "parts/"});
    ASSERT_EQ(split.exitCode, 0) << split.err;
    auto in = Open(File("in.kel"));
    for (const std::uint16_t id : {0, 1, 2}) {
        ExpectSameStreams(*in, *Open(File("parts/in_" + std::to_string(id) + ".kel")), {id});
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
    const auto takes = std::vector{Open(File("takes/1.kel")), Open(File("takes/2.kel"))};
    auto all = Open(File("all.kel"));
    const auto image = [](const KEL::AtomPtr& atom) {
        const auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
            atom->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
        return texture ? texture->GetPixels() : KelCommon::SharedBuffer();
    };
    for (const std::uint16_t id : {0, 1}) {
        ASSERT_EQ(all->GetNumFrames(id), 8U);
        for (std::uint32_t f = 0; f < 8; ++f) {
            const auto atom = all->GetFrameAtom(id, f);
            const auto original = f < 3 ? takes[0]->GetFrameAtom(id, f) : takes[1]->GetFrameAtom(id, f - 3);
            ASSERT_TRUE(atom && original) << f;
            EXPECT_EQ(atom->GetTimeStamp(), original->GetTimeStamp()) << f;
            EXPECT_TRUE(image(atom).size() > 0 && image(atom).ContentEquals(image(original))) << f;
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
