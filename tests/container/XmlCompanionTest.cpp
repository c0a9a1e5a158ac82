#include <KEL/KELPurposeGuids.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <map>
#include <pugixml.hpp>
#include <random>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using XmlCompanion = ContainerTest;

pugi::xml_node LoadCompanion(pugi::xml_document& doc, const std::string& xmlPath) {
    EXPECT_TRUE(doc.load_file(xmlPath.c_str())) << xmlPath;
    return doc.child("kelContainer");
}

// Atoms of random streams, frame numbers (in any order), time stamps and
// sizes, each with a texture of a registered purpose: the companion's summary
// of each stream must match one computed from the atoms written.
TEST_F(XmlCompanion, SummarisesEveryStreamsFramesTimeStampsAndLayers) {
    const auto purpose = KelCommon::Guid::FromHexString("9A8B7C6D-5E4F-4321-8765-0123456789AB");
    ASSERT_TRUE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(purpose, "XML_TEST_COLOR"));
    struct Summary {
        std::uint32_t frames = 0, firstFrame = UINT32_MAX, lastFrame = 0;
        std::int64_t firstStamp = INT64_MAX, lastStamp = INT64_MIN;
        std::uint64_t bytes = 0;
    };
    std::vector<std::uint16_t> order;
    std::map<std::uint16_t, Summary> model;
    std::mt19937 random(99);
    KEL::SerializeToKel writer((path + "+xml").c_str(), true, KEL::CURRENT_VERSION, false);
    EXPECT_EQ(writer.GetFilePath(), path);  // the suffix only asks for the companion
    for (std::uint32_t i = 0; i < 40; ++i) {
        const auto stream = static_cast<std::uint16_t>(std::array{0, 3, 7}[random() % 3]);
        auto atom = MakeFrameAtom(stream, i * 7919 % 1000, 2 + random() % 5, 2);
        atom->SetTimeStamp(static_cast<std::int64_t>(random() % 100000) - 50000);
        atom->AddDataLayer(MakeTexture(2, 1 + i % 3, i, purpose), true);
        auto& s = model[stream];
        if (s.frames++ == 0) {
            order.push_back(stream);
        }
        s.firstFrame = std::min(s.firstFrame, atom->GetFrameNr());
        s.lastFrame = std::max(s.lastFrame, atom->GetFrameNr());
        s.firstStamp = std::min(s.firstStamp, atom->GetTimeStamp());
        s.lastStamp = std::max(s.lastStamp, atom->GetTimeStamp());
        s.bytes += atom->PayloadSize();
        ASSERT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
    }
    ASSERT_EQ(writer.Close(), KEL::KEL_OK);

    pugi::xml_document doc;
    const auto root = LoadCompanion(doc, path + ".xml");
    EXPECT_STREQ(root.attribute("file").value(), "test.kel");
    EXPECT_EQ(root.attribute("atoms").as_uint(), 40U);
    EXPECT_EQ(root.attribute("fileSize").as_ullong(), FileSize(path));
    std::vector<std::uint16_t> listed;
    for (const auto stream : root.children("stream")) {
        listed.push_back(static_cast<std::uint16_t>(stream.attribute("id").as_uint()));
        const Summary& s = model[listed.back()];
        SCOPED_TRACE("stream " + std::to_string(listed.back()));
        EXPECT_EQ(stream.attribute("frames").as_uint(), s.frames);
        EXPECT_EQ(stream.attribute("firstFrame").as_uint(), s.firstFrame);
        EXPECT_EQ(stream.attribute("lastFrame").as_uint(), s.lastFrame);
        EXPECT_EQ(stream.attribute("firstTimeStamp").as_llong(), s.firstStamp);
        EXPECT_EQ(stream.attribute("lastTimeStamp").as_llong(), s.lastStamp);
        EXPECT_EQ(stream.attribute("payloadBytes").as_ullong(), s.bytes);
        // The layer kinds add up to the stream; the registered purpose is named by its alias.
        std::uint64_t layerBytes = 0;
        for (const auto layer : stream.children("layer")) {
            layerBytes += layer.attribute("payloadBytes").as_ullong();
            if (layer.attribute("purposeGuid").value() == purpose.ToString().str()) {
                EXPECT_STREQ(layer.attribute("purpose").value(), "XML_TEST_COLOR");
                EXPECT_STREQ(layer.attribute("type").value(), "TextureRGBA");
                EXPECT_EQ(layer.attribute("atoms").as_uint(), s.frames);
            }
        }
        EXPECT_EQ(layerBytes, s.bytes);
    }
    EXPECT_EQ(listed, order);
}

// Rewritten without a companion, the old one would describe a file that no
// longer exists: it goes.
TEST_F(XmlCompanion, OverwriteWithoutOneRemovesTheOldOne) {
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    EXPECT_FALSE(std::filesystem::exists(path + ".xml")) << "written without being asked for";
    WriteContainer(path + "+xml", {MakeFrameAtom(1, 0)});
    ASSERT_TRUE(std::filesystem::exists(path + ".xml"));
    WriteContainer(path, {MakeFrameAtom(2, 0)});
    EXPECT_FALSE(std::filesystem::exists(path + ".xml"));
}

}  // namespace
