#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;
using ContainerRoundTrip = ContainerTest;
using ContainerWriter = ContainerTest;

const KelCommon::Guid kUnknownType = KelCommon::Guid::FromHexString("0A1B2C3D-4E5F-4061-8293-A4B5C6D7E8F9");
const KelCommon::Guid kSomePurpose = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-555555555555");

TEST_F(ContainerRoundTrip, EveryLayerTypeRoundTripsAndUnknownTypesAreKeptAsOpaque) {
    auto first = MakeFirstAtom(4, 2);  // stream, recording, static info, binary, crop, camera v1, texture, mesh
    first->AddDataLayer(std::make_shared<KEL::DataTypeOpaque>(
                            kUnknownType, kSomePurpose, 7, std::vector<std::uint8_t>{1, 2, 3, 4, 5},
                            std::vector<KelCommon::SharedBuffer>{PatternBuffer(100, 1), {}, PatternBuffer(3, 2)}),
                        true);
    auto second = MakeFrameAtom(4, 1);  // texture, mesh, camera v2
    WriteContainer(path, {first, second});

    auto reader = OpenContainer(path);
    const auto back = reader->GetFrameAtom(4, 0);
    ExpectSameAtom(first, back);
    ExpectSameAtom(second, reader->GetFrameAtom(4, 1));
    const auto kinds = LayerKinds(*back);
    for (const char* type : {"StreamInfo", "RecordingInfo", "StaticInfo", "Binary", "CylinderCrop", "CameraParams",
                             "TextureRGBA", "Mesh", "Unknown"}) {
        EXPECT_TRUE(std::any_of(kinds.begin(), kinds.end(), [&](const auto& k) { return k.rfind(type, 0) == 0; }))
            << type;
    }
    const auto opaque = back->GetDataLayerByType(kUnknownType, false);
    ASSERT_TRUE(opaque);
    EXPECT_EQ(opaque->GetPurposeGuid(), kSomePurpose);
    EXPECT_EQ(opaque->GetVersion(), 7);
    EXPECT_EQ(opaque->TypeName(), "Unknown");
    EXPECT_EQ(opaque->PayloadSize(), 103U);
    auto camera = reader->GetFrameAtom(4, 1)->GetDataLayerByType(KEL::DataTypeCameraParams::TheTypeGuid(), false);
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->GetVersion(), 2);
}

TEST_F(ContainerRoundTrip, AtomWithMoreBlobsThanOneSystemCallTakesRoundTrips) {
    auto atom = std::make_shared<KEL::Atom>(2, 3, 99);
    for (std::uint32_t i = 0; i < 1500; ++i) {
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("part" + std::to_string(i), PatternBuffer(i % 97, i)),
                           true);
    }
    atom->AddDataLayer(MakeTexture(33, 17, 5), true);
    WriteContainer(path, {atom});
    auto back = OpenContainer(path)->GetFrameAtom(2, 3);
    ExpectSameAtom(atom, back);
    EXPECT_EQ(back->GetNumDataLayers(), 1501U);
}

TEST_F(ContainerRoundTrip, EveryFetchReturnsANewAtomWhosePayloadOutlivesTheReaderAndIsAligned) {
    const auto original = MakeFrameAtom(1, 0, 64, 32);
    WriteContainer(path, {original});

    AtomPtr one;
    AtomPtr two;
    {
        auto reader = OpenContainer(path);
        one = reader->GetFrameAtom(1, 0);
        two = reader->GetFrameAtom(1, 0);
        ASSERT_TRUE(one && two);
        one->SetFrameNr(77);
        one->RemoveDataLayers(KEL::DataTypeTextureRGBA::TheTypeGuid());
        ExpectSameAtom(original, reader->GetFrameAtom(1, 0));
    }
    EXPECT_NE(one.get(), two.get());
    ExpectSameAtom(original, two);
    auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
        two->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
    ASSERT_TRUE(texture);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(texture->GetPixels().data()) % 64, 0U);
}

TEST_F(ContainerRoundTrip, ContainerWithoutAtomsOpensEmptyBehindTheFileHeader) {
    WriteContainer(path, {});
    const auto bytes = ReadFileBytes(path);
    ASSERT_GE(bytes.size(), KEL::KEL2HeaderSize);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 10), KEL::KEL2HeaderString.str());
    EXPECT_EQ(bytes[10] | (bytes[11] << 8), 2000);
    EXPECT_NE(OpenContainer(path)->GetFileId(), 0U);

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumStreams(), 0);
    EXPECT_EQ(reader->GetFirstStreamId(), 0);
    EXPECT_EQ(reader->GetNumAtoms(), 0U);
    EXPECT_TRUE(reader->GetDamageReport().indexUsed);
    EXPECT_EQ(reader->GetFormatVersion(), KEL::CURRENT_VERSION);
}

TEST_F(ContainerWriter, RefusesAnExistingFileWithoutOverwrite) {
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    const auto before = ReadFileBytes(path);

    KelCommon::ScopedLogCapture log;
    KEL::SerializeToKel writer(path.c_str(), false, KEL::CURRENT_VERSION, false);
    EXPECT_EQ(writer.GetOpenResult(), KEL::KEL_ERR_ALREADY_EXISTS);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(2, 0)), KEL::KEL_ERR_ALREADY_EXISTS);
    writer.Close();
    EXPECT_EQ(ReadFileBytes(path), before);
    EXPECT_EQ(log.CountContaining(path), 1U);
}

TEST_F(ContainerWriter, OverwriteReplacesAnExistingFileUnderOpenReaders) {
    WriteContainer(path, {MakeFrameAtom(1, 0), MakeFrameAtom(1, 1)});
    auto oldReader = OpenContainer(path);
    const auto replacement = MakeFrameAtom(6, 3);
    WriteContainer(path, {replacement});

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 1U);
    ExpectSameAtom(replacement, reader->GetFrameAtom(6, 3));
    EXPECT_TRUE(oldReader->GetFrameAtom(1, 1));
}

TEST_F(ContainerWriter, CreatesMissingParentDirectories) {
    const auto deep = dir.File("a/b/c/deep.kel");
    WriteContainer(deep, {MakeFrameAtom(1, 0)});
    EXPECT_EQ(OpenContainer(deep)->GetNumAtoms(), 1U);
}

TEST_F(ContainerWriter, RefusesAnUnsupportedVersion) {
    KEL::SerializeToKel writer(path.c_str(), true, static_cast<KEL::KELFormatVersion>(1999), false);
    EXPECT_EQ(writer.GetOpenResult(), KEL::KEL_ERR_UNSUPPORTED_VERSION);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ContainerWriter, EmptyAtomIsInvalidAndWritingAfterCloseIsNotOpen) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, true);
    EXPECT_EQ(writer.SerializeAtom(nullptr), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(1, 0)), KEL::KEL_OK);
    EXPECT_EQ(writer.Close(), KEL::KEL_OK);
    const auto size = FileSize(path);
    EXPECT_EQ(writer.Close(), KEL::KEL_OK);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(1, 1)), KEL::KEL_ERR_NOT_OPEN);
    EXPECT_EQ(FileSize(path), size);
    EXPECT_EQ(writer.GetNumAtomsWritten(), 1U);
    EXPECT_EQ(OpenContainer(path)->GetNumAtoms(), 1U);
}

TEST_F(ContainerWriter, XmlSuffixIsNotPartOfTheFileName) {
    KEL::SerializeToKel writer((path + "+xml").c_str(), true, KEL::CURRENT_VERSION, false);
    EXPECT_EQ(writer.GetFilePath(), path);
    EXPECT_TRUE(writer.WritesXmlCompanion());
    writer.Close();
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_TRUE(std::filesystem::exists(path + ".xml"));
}

}  // namespace
