#include <KEL/KELPurposeGuids.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <pugixml.hpp>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using XmlCompanion = ContainerTest;

TEST_F(XmlCompanion, DescribesStreamsFramesLayersAndTimeStamps) {
    const auto purpose = KelCommon::Guid::FromHexString("9A8B7C6D-5E4F-4321-8765-0123456789AB");
    ASSERT_TRUE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(purpose, "XML_TEST_COLOR"));
    std::uint64_t expectedBytes = 0;
    {
        KEL::SerializeToKel writer((path + "+xml").c_str(), true, KEL::CURRENT_VERSION, false);
        for (std::uint32_t f = 0; f < 3; ++f) {
            auto atom = MakeFrameAtom(5, f, 4, 2);
            atom->AddDataLayer(MakeTexture(2, 2, f, purpose), true);
            expectedBytes += atom->PayloadSize();
            ASSERT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
        }
        ASSERT_EQ(writer.SerializeAtom(MakeFrameAtom(2, 8, 4, 4)), KEL::KEL_OK);
        ASSERT_EQ(writer.Close(), KEL::KEL_OK);
    }

    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file((path + ".xml").c_str()));
    auto root = doc.child("kelContainer");
    ASSERT_TRUE(root);
    EXPECT_STREQ(root.attribute("file").value(), "test.kel");
    EXPECT_EQ(root.attribute("formatVersion").as_uint(), 2000U);
    EXPECT_EQ(root.attribute("atoms").as_uint(), 4U);
    EXPECT_EQ(root.attribute("fileSize").as_ullong(), FileSize(path));

    std::vector<pugi::xml_node> streams(root.children("stream").begin(), root.children("stream").end());
    ASSERT_EQ(streams.size(), 2U);
    auto s5 = streams[0];
    EXPECT_EQ(s5.attribute("id").as_uint(), 5U);
    EXPECT_EQ(s5.attribute("frames").as_uint(), 3U);
    EXPECT_EQ(s5.attribute("firstFrame").as_uint(), 0U);
    EXPECT_EQ(s5.attribute("lastFrame").as_uint(), 2U);
    EXPECT_EQ(s5.attribute("firstTimeStamp").as_llong(), 1'000'000LL);
    EXPECT_EQ(s5.attribute("lastTimeStamp").as_llong(), 1'000'000LL + 2 * 33'333LL);
    EXPECT_EQ(streams[1].attribute("id").as_uint(), 2U);
    EXPECT_EQ(streams[1].attribute("frames").as_uint(), 1U);

    std::uint64_t layerBytes = 0;
    std::uint64_t aliasBytes = 0;
    for (auto layer : s5.children("layer")) {
        layerBytes += layer.attribute("payloadBytes").as_ullong();
        if (std::string(layer.attribute("purpose").value()) == "XML_TEST_COLOR") {
            aliasBytes = layer.attribute("payloadBytes").as_ullong();
            EXPECT_STREQ(layer.attribute("type").value(), "TextureRGBA");
            EXPECT_EQ(layer.attribute("atoms").as_uint(), 3U);
            EXPECT_EQ(std::string(layer.attribute("purposeGuid").value()), purpose.ToString().str());
        }
    }
    EXPECT_EQ(aliasBytes, 3U * 2 * 2 * 4);
    EXPECT_EQ(layerBytes, s5.attribute("payloadBytes").as_ullong());
    EXPECT_EQ(layerBytes, expectedBytes);
}

TEST_F(XmlCompanion, NotWrittenWithoutTheSuffix) {
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 1);
}

TEST_F(XmlCompanion, OverwriteRemovesTheOldOneAndTheNewOneNamesItsFile) {
    WriteContainer(path + "+xml", {MakeFrameAtom(1, 0)});
    const std::string xmlPath = path + ".xml";
    pugi::xml_document first;
    ASSERT_TRUE(first.load_file(xmlPath.c_str()));
    const std::string firstId = first.child("kelContainer").attribute("fileId").value();

    // Rewritten without a companion: the old one would describe a file that
    // no longer exists.
    WriteContainer(path, {MakeFrameAtom(2, 0)});
    EXPECT_FALSE(std::filesystem::exists(xmlPath));

    WriteContainer(path + "+xml", {MakeFrameAtom(3, 0)});
    pugi::xml_document second;
    ASSERT_TRUE(second.load_file(xmlPath.c_str()));
    const std::string secondId = second.child("kelContainer").attribute("fileId").value();
    auto reader = OpenContainer(path);
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(reader->GetFileId()));
    EXPECT_EQ(secondId, id);
    EXPECT_NE(secondId, firstId);
}

TEST_F(XmlCompanion, ALeftoverCompanionIsRefusedWithoutOverwrite) {
    const std::string xmlPath = path + ".xml";
    WriteFileBytes(xmlPath, {'<', 'x', '/', '>'});
    KEL::SerializeToKel writer((path + "+xml").c_str(), false, KEL::CURRENT_VERSION, false);
    EXPECT_EQ(writer.GetOpenResult(), KEL::KEL_ERR_ALREADY_EXISTS);
    writer.Close();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(ReadFileBytes(xmlPath).size(), 4U);
}

}  // namespace
