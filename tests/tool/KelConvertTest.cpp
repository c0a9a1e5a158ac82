// `kel copy`, `split`, `merge` and `concat`: graphs of the plugin's own
// filters, checked by reading the written files back atom by atom.

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "ToolTestSupport.h"

namespace {

using kel_test::OpenContainer;
using kel_tool_test::Contains;
using kel_tool_test::RecordSynthetic;
using KelConvert = kel_tool_test::KelToolTest;

// `actual` holds exactly the streams `ids` of `expected`, every atom stored
// unchanged apart from the frame count in the stream information, which is
// that of the written stream: each stream keeps its own information (name,
// rate), in its first atom only. With `thumbnail`, that first atom also
// carries the one thumbnail the writer made.
void ExpectSameStreams(KEL::ReadKEL2File& expected, KEL::ReadKEL2File& actual, const std::vector<std::uint16_t>& ids,
                       bool thumbnail = false) {
    const auto infoGuid = KEL::DataTypeStreamInfo::TheTypeGuid();
    ASSERT_EQ(actual.GetNumStreams(), static_cast<int>(ids.size()));
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::uint16_t id = ids[i];
        ASSERT_EQ(actual.GetStreamId(static_cast<int>(i)), id);
        ASSERT_EQ(actual.GetNumFrames(id), expected.GetNumFrames(id));
        for (std::uint32_t f = 0; f < expected.GetNumFrames(id); ++f) {
            const auto a = expected.GetFrameAtom(id, f);
            const auto b = actual.GetFrameAtom(id, f);
            ASSERT_TRUE(a && b) << "stream " << id << " frame " << f;
            const auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(b->GetDataLayerByType(infoGuid, false));
            EXPECT_EQ(info != nullptr, f == 0) << "stream information belongs in the first atom only";
            if (info) {
                const auto own = KEL::LayerCast<KEL::DataTypeStreamInfo>(a->GetDataLayerByType(infoGuid, false));
                ASSERT_TRUE(own);
                EXPECT_EQ(info->GetName(), own->GetName()) << "stream " << id;
                EXPECT_EQ(info->GetFrameRate(), own->GetFrameRate());
                EXPECT_EQ(info->GetNumFrames(), actual.GetNumFrames(id));
            }
            EXPECT_EQ(b->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid()),
                      thumbnail && f == 0 ? 1U : 0U);
            a->RemoveDataLayers(infoGuid);
            b->RemoveDataLayers(infoGuid);
            std::string why;
            EXPECT_TRUE(kel_test::AtomsEqual(*a, *b, &why)) << "stream " << id << " frame " << f << ": " << why;
        }
    }
}

// Copies with every combination of writer, XML and thumbnail options: the
// synchronous writer or the asynchronous one, with a queue too small to hold
// the recording that waits for room or with one that holds all of it and
// would drop when full. Generated on top: a subset of the streams or all of
// them, quiet or not, a name whose extension the tool replaces or not. Every
// kept atom is stored unchanged. (How the asynchronous writer drops and
// counts whole frames is forced in
// AsyncTargets.FullQueueDropsCountsAndLogsEachFrame.) Split writes each
// stream to a file of its own, which merge joins again; concat joins takes.
TEST_F(KelConvert, CopyWithEveryOptionCombinationSplitMergeAndConcatStoreTheStreamsUnchanged) {
    RecordSynthetic(File("in.kel"), 4, 6);
    KelFails({"copy", "in.kel", "./in.data"}, 1, "is the input");
    const auto in = OpenContainer(File("in.kel"));
    std::mt19937 random(static_cast<std::uint32_t>(kel_test::EnvNumber("KEL_TOOL_COPY_SEED", 7)));
    for (unsigned round = 0; round < 12; ++round) {
        const bool xml = (round & 1U) != 0;
        const bool thumbnail = (round & 2U) != 0;
        const bool quiet = random() % 2 == 0;
        const unsigned writer = round / 4;
        const std::string name = "out" + std::to_string(round) + "/copy";
        std::vector<std::string> args{"copy", "in.kel", name + (random() % 2 == 0 ? ".data" : ".kel")};
        std::vector<std::uint16_t> ids{0, 1, 2, 3};
        if (random() % 2 == 0) {
            const auto mask = 1 + random() % 15;
            std::erase_if(ids, [mask](std::uint16_t id) { return ((mask >> id) & 1U) == 0; });
            std::string list;
            for (const auto id : ids) {
                list += (list.empty() ? "" : ",") + std::to_string(id);
            }
            args.insert(args.end(), {"--streams", list});
        }
        const std::vector<std::vector<std::string>> writers{
            {},
            {"--async", "--buffer", std::to_string(1 + random() % 4), "--no-drop"},
            {"--async", "--buffer", "8", "--drop"}};
        args.insert(args.end(), writers[writer].begin(), writers[writer].end());
        for (const auto& [on, option] : {std::pair{xml, "--xml"}, {thumbnail, "--thumbnail"}, {quiet, "-q"}}) {
            if (on) {
                args.emplace_back(option);
            }
        }
        SCOPED_TRACE(::testing::PrintToString(args));
        const auto run = KelOk(args);
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.out.find("Frames delivered: 6") != std::string::npos, !quiet) << run.out;
        EXPECT_EQ(run.out.find("out: Dropped frames count = 0") != std::string::npos, !quiet && writer != 0);
        ExpectSameStreams(*in, *OpenContainer(File(name + ".kel")), ids, thumbnail);
        EXPECT_EQ(Exists(name + ".kel.xml"), xml);
    }
    KelOk({"split", "in.kel", "parts/"});
    for (const std::uint16_t id : {0, 1, 2, 3}) {
        ExpectSameStreams(*in, *OpenContainer(File("parts/in_" + std::to_string(id) + ".kel")), {id});
    }
    KelOk({"merge", "parts", "merged.kel"});
    ExpectSameStreams(*in, *OpenContainer(File("merged.kel")), {0, 1, 2, 3});
    // Concat plays files of the same streams one after the other, numbered
    // on (how the sequential source keeps their atoms is checked in
    // SequentialSource.PlaysTheFilesInPathOrderWithContinuingFrameNumbers);
    // the split files, of unlike streams, do not join; files join as well
    // as directories, and takes whose time stamps overlap are joined with a
    // warning.
    KelFails({"concat", "parts", "all.kel"}, 1,
             "'parts/in_1.kel' holds streams 1, but the sequence's are 0 (from 'parts/in_0.kel')");
    KelFails({"merge", "parts/in_0.kel", "in.kel", "twice.kel"}, 1,
             "stream 0 is in both 'parts/in_0.kel' and 'in.kel'");
    EXPECT_TRUE(Contains(KelOk({"concat", "in.kel", "merged.kel", "all.kel"}).err,
                         {"kel: warning: the time stamps of 'merged.kel'", "overlap those before it"}));
    const auto all = OpenContainer(File("all.kel"));
    for (const std::uint16_t id : {0, 1, 2, 3}) {
        const auto once = in->GetTimeStamps(id);
        auto stamps = once;
        stamps.insert(stamps.end(), once.begin(), once.end());
        EXPECT_EQ(all->GetTimeStamps(id), stamps);
        EXPECT_EQ(all->GetFrameNumbers(id), (std::vector<std::uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    }
}

// One flipped byte in one texture costs the copy that whole frame (the file
// source's rule), and the tool says so: it fails, naming the file, stream,
// frame and offset, unless --skip-damaged, which succeeds and counts it.
TEST_F(KelConvert, AFrameLostToDamageFailsTheConversionUnlessSkipped) {
    RecordSynthetic(File("in.kel"), 2, 4);
    const auto atom = OpenContainer(File("in.kel"))->GetFrameAtom(1, 2);
    ASSERT_TRUE(atom);
    const auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
        atom->GetDataLayer(KEL::PurposeGuid_PRIMARY_COLOR, KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
    ASSERT_TRUE(texture);
    const auto& pixels = texture->GetPixels();
    const auto bytes = kel_test::ReadFileBytes(File("in.kel"));
    const auto at = std::search(bytes.begin(), bytes.end(), pixels.data(), pixels.data() + pixels.size());
    ASSERT_NE(at, bytes.end());
    kel_test::FlipByte(File("in.kel"), static_cast<std::uint64_t>(at - bytes.begin()) + pixels.size() / 2);

    const auto failed = Kel({"copy", "in.kel", "out.kel"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_TRUE(Contains(failed.err,
                         {"damaged: '", "in.kel' stream 1 frame 2 at offset ", "checksum mismatch", "--skip-damaged"}));
    const auto skipped = KelOk({"copy", "in.kel", "skipped.kel", "--skip-damaged"});
    EXPECT_TRUE(Contains(skipped.err, {"Skipped as damaged: 1"}));
    EXPECT_EQ(OpenContainer(File("skipped.kel"))->GetNumFrames(0), 3U);
}

// --streams takes ids and stream names; a stream the file lacks is a usage
// error that lists the streams it has, and nothing is written. --from and
// --to take frame positions or seconds from the first frame.
TEST_F(KelConvert, StreamsAndFramesAreChosenByIdNamePositionOrTime) {
    RecordSynthetic(File("in.kel"), 3, 2);
    KelFails({"copy", "in.kel", "x.kel", "--streams", "0,9"}, 2,
             "'in.kel' has no stream 9; its streams are: 0 (Camera 0), 1 (Camera 1), 2 (Camera 2)");
    KelFails({"split", "in.kel", "parts/", "--streams", "Camera 7"}, 2, "has no stream named 'Camera 7'");
    EXPECT_FALSE(Exists("x.kel") || Exists("parts"));
    const auto copy = KelOk({"copy", "in.kel", "two.kel", "--streams", "Camera 2, 0"});
    EXPECT_EQ(copy.err, "");
    const auto two = OpenContainer(File("two.kel"));
    ASSERT_EQ(two->GetNumStreams(), 2);
    EXPECT_EQ(two->GetNumFrames(1), 0U);
    EXPECT_EQ(two->GetNumFrames(2), 2U);

    RecordSynthetic(File("long.kel"), 2, 30);
    const auto in = OpenContainer(File("long.kel"));
    const auto stamps = in->GetTimeStamps(0);
    const std::string seconds = std::to_string(static_cast<double>(stamps[10] - stamps[0]) / 1e6) + "s";
    KelOk({"copy", "long.kel", "part.kel", "--from", seconds, "--to", "25"});
    const auto part = OpenContainer(File("part.kel"));
    EXPECT_EQ(part->GetTimeStamps(1), std::vector<std::int64_t>(stamps.begin() + 10, stamps.begin() + 25));
    KelFails({"split", "long.kel", "parts/", "--to", "ten"}, 2, "--to 'ten' is neither a frame position");
}

// cat lists the atoms; diff compares content, so a copy equals its
// original; recover rewrites an unclosed file with a damaged atom into a
// closed one holding every intact atom as stored.
TEST_F(KelConvert, CatDiffAndRecoverWorkAtomByAtom) {
    RecordSynthetic(File("in.kel"), 2, 4);
    const auto cat = KelOk({"cat", "in.kel", "--stream", "1"});
    EXPECT_EQ(std::count(cat.out.begin(), cat.out.end(), '\n'), 5);
    EXPECT_TRUE(Contains(cat.out, {"stream    frame        time", "     1        3", "TextureRGBA"}));
    EXPECT_TRUE(Contains(Kel({"cat", "in.kel", "--json"}).out, {"\"stream\": 1", "\"layers\": ["}));

    KelOk({"copy", "in.kel", "copy.kel", "--streams", "0"});
    const auto diff = Kel({"diff", "in.kel", "copy.kel"});
    EXPECT_EQ(diff.exitCode, 1);
    EXPECT_TRUE(Contains(diff.out, {"only in in.kel: stream 1 frame 0",
                                    "4 atom(s) the same, 0 differ, 4 only in in.kel, 0 only in copy.kel"}));

    auto bytes = kel_test::ReadFileBytes(File("in.kel"));
    bytes.resize(bytes.size() - 100);  // the index goes, as when the writer dies
    kel_test::WriteFileBytes(File("broken.kel"), bytes);
    kel_test::FlipByte(File("broken.kel"), bytes.size() / 2);
    const auto recover = KelOk({"recover", "broken.kel", "-o", "fixed.kel"});
    EXPECT_TRUE(Contains(recover.out, {"Recovered 7 atom(s) of broken.kel into fixed.kel", "Left out: 1 damaged"}));
    EXPECT_TRUE(Contains(Kel({"verify", "fixed.kel"}).out, {"fixed.kel: OK"}));
    EXPECT_TRUE(Contains(Kel({"diff", "in.kel", "fixed.kel"}).out, {"7 atom(s) the same, 0 differ, 1 only in in.kel"}));
    KelFails({"recover", "broken.kel", "-o", "fixed.kel"}, 1, "pass --overwrite to replace it");
}

}  // namespace
