#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;

const KelCommon::Guid kUnknownType = KelCommon::Guid::FromHexString("0A1B2C3D-4E5F-4061-8293-A4B5C6D7E8F9");
const KelCommon::Guid kSomePurpose = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-555555555555");

std::shared_ptr<KEL::DataTypeOpaque> MakeUnknownLayer() {
    return std::make_shared<KEL::DataTypeOpaque>(
        kUnknownType, kSomePurpose, 7, std::vector<std::uint8_t>{1, 2, 3, 4, 5},
        std::vector<KelCommon::SharedBuffer>{PatternBuffer(100, 1), KelCommon::SharedBuffer{}, PatternBuffer(3, 2)});
}

void ExpectSame(const AtomPtr& expected, const AtomPtr& actual) {
    ASSERT_TRUE(actual);
    std::string why;
    EXPECT_TRUE(AtomsEqual(*expected, *actual, &why)) << why;
}

TEST(ContainerRoundTrip, EveryLayerTypeRoundTrips) {
    TempDir dir;
    const auto path = dir.File("all.kel");
    auto first = MakeFirstAtom(4, 2);  // stream, recording, static info, binary, crop, camera v1, texture, mesh
    first->AddDataLayer(MakeUnknownLayer(), true);
    auto second = MakeFrameAtom(4, 1);  // texture, mesh, camera v2
    WriteContainer(path, {first, second});

    auto reader = OpenContainer(path);
    ExpectSame(first, reader->GetFrameAtom(4, 0));
    ExpectSame(second, reader->GetFrameAtom(4, 1));
    const auto kinds = LayerKinds(*reader->GetFrameAtom(4, 0));
    for (const char* type : {"StreamInfo", "RecordingInfo", "StaticInfo", "Binary", "CylinderCrop", "CameraParams",
                             "TextureRGBA", "Mesh", "Unknown"}) {
        EXPECT_TRUE(std::any_of(kinds.begin(), kinds.end(), [&](const std::string& k) {
            return k.rfind(type, 0) == 0;
        })) << type;
    }
    auto camera = KEL::LayerCast<KEL::DataTypeCameraParams>(
        reader->GetFrameAtom(4, 1)->GetDataLayerByType(KEL::DataTypeCameraParams::TheTypeGuid(), false));
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->GetVersion(), 2);
}

TEST(ContainerRoundTrip, UnknownLayerTypeIsKeptAsOpaque) {
    TempDir dir;
    const auto path = dir.File("opaque.kel");
    auto atom = std::make_shared<KEL::Atom>(1, 0, 5);
    atom->AddDataLayer(MakeUnknownLayer(), true);
    WriteContainer(path, {atom});

    auto reader = OpenContainer(path);
    auto back = reader->GetFrameAtom(1, 0);
    ExpectSame(atom, back);
    auto layer = back->GetAllDataLayers().at(0);
    EXPECT_EQ(layer->GetTypeGuid(), kUnknownType);
    EXPECT_EQ(layer->GetPurposeGuid(), kSomePurpose);
    EXPECT_EQ(layer->GetVersion(), 7);
    EXPECT_EQ(layer->TypeName(), "Unknown");
    EXPECT_EQ(layer->PayloadSize(), 103U);
}

TEST(ContainerRoundTrip, AtomWithMoreBlobsThanOneSystemCallTakesRoundTrips) {
    TempDir dir;
    const auto path = dir.File("many.kel");
    auto atom = std::make_shared<KEL::Atom>(2, 3, 99);
    for (std::uint32_t i = 0; i < 1500; ++i) {
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("part" + std::to_string(i), PatternBuffer(i % 97, i)),
                           true);
    }
    atom->AddDataLayer(MakeTexture(33, 17, 5), true);
    WriteContainer(path, {atom});

    auto reader = OpenContainer(path);
    auto back = reader->GetFrameAtom(2, 3);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->GetNumDataLayers(), 1501U);
    ExpectSame(atom, back);
}

TEST(ContainerRoundTrip, InterleavedStreamsWithMissingFramesKeepTheirFrames) {
    TempDir dir;
    const auto path = dir.File("streams.kel");
    std::vector<AtomPtr> atoms;
    for (std::uint32_t f = 0; f < 6; ++f) {
        atoms.push_back(MakeFrameAtom(7, f));
        if (f != 2 && f != 4) {
            atoms.push_back(MakeFrameAtom(3, f));
        }
        if (f % 2 == 0) {
            atoms.push_back(MakeFrameAtom(5, f * 10));
        }
    }
    WriteContainer(path, atoms);

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), atoms.size());
    EXPECT_EQ(reader->GetNumFrames(7), 6U);
    EXPECT_EQ(reader->GetNumFrames(3), 4U);
    EXPECT_EQ(reader->GetNumFrames(5), 3U);
    EXPECT_EQ(reader->GetFrameNumbers(3), (std::vector<std::uint32_t>{0, 1, 3, 5}));
    EXPECT_EQ(reader->GetFrameNumbers(5), (std::vector<std::uint32_t>{0, 20, 40}));
    EXPECT_FALSE(reader->GetFrameAtom(3, 2));
    EXPECT_FALSE(reader->GetFrameAtom(3, 4));
    EXPECT_FALSE(reader->GetFrameAtom(5, 1));
    for (const auto& atom : atoms) {
        ExpectSame(atom, reader->GetFrameAtom(atom->GetStreamId(), atom->GetFrameNr()));
    }
}

TEST(ContainerRoundTrip, StreamsAreOrderedByFirstAppearance) {
    TempDir dir;
    const auto path = dir.File("order.kel");
    WriteContainer(path, {MakeFrameAtom(9, 0), MakeFrameAtom(2, 0), MakeFrameAtom(9, 1), MakeFrameAtom(5, 0),
                          MakeFrameAtom(2, 1)});

    auto reader = OpenContainer(path);
    ASSERT_EQ(reader->GetNumStreams(), 3);
    EXPECT_EQ(reader->GetStreamId(0), 9);
    EXPECT_EQ(reader->GetStreamId(1), 2);
    EXPECT_EQ(reader->GetStreamId(2), 5);
    EXPECT_EQ(reader->GetFirstStreamId(), 9);
    EXPECT_EQ(reader->GetStreamId(3), 0);
    EXPECT_EQ(reader->GetStreamId(-1), 0);
}

TEST(ContainerRoundTrip, FramesAreFoundByStoredNumber) {
    TempDir dir;
    const auto path = dir.File("numbers.kel");
    const auto a = MakeFrameAtom(1, 10);
    const auto b = MakeFrameAtom(1, 20);
    const auto c = MakeFrameAtom(1, 5);
    WriteContainer(path, {a, b, c});

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumFrames(1), 3U);
    ExpectSame(c, reader->GetFrameAtom(1, 5));
    ExpectSame(b, reader->GetFrameAtom(1, 20));
    ExpectSame(c, reader->GetFirstFrameAtom(1));
    EXPECT_FALSE(reader->GetFrameAtom(1, 0));
    EXPECT_FALSE(reader->GetFrameAtom(1, 2));
    EXPECT_FALSE(reader->GetFirstFrameAtom(8));
    EXPECT_EQ(reader->GetNumFrames(8), 0U);
}

TEST(ContainerRoundTrip, EveryFetchReturnsANewAtomSharingTheMappedPayload) {
    TempDir dir;
    const auto path = dir.File("fresh.kel");
    const auto original = MakeFrameAtom(1, 0, 64, 32);
    WriteContainer(path, {original});

    auto reader = OpenContainer(path);
    auto one = reader->GetFrameAtom(1, 0);
    auto two = reader->GetFrameAtom(1, 0);
    ASSERT_TRUE(one && two);
    EXPECT_NE(one.get(), two.get());
    auto texOne = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
        one->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
    auto texTwo = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
        two->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
    ASSERT_TRUE(texOne && texTwo);
    EXPECT_NE(texOne.get(), texTwo.get());
    EXPECT_TRUE(texOne->GetPixels().SharesStorageWith(texTwo->GetPixels()));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(texOne->GetPixels().data()) % 64, 0U);

    one->SetFrameNr(77);
    one->RemoveDataLayers(KEL::DataTypeTextureRGBA::TheTypeGuid());
    ExpectSame(original, reader->GetFrameAtom(1, 0));
}

TEST(ContainerRoundTrip, AtomsOutliveTheReader) {
    TempDir dir;
    const auto path = dir.File("outlive.kel");
    const auto original = MakeFrameAtom(1, 0, 32, 32);
    WriteContainer(path, {original});

    AtomPtr back;
    {
        auto reader = OpenContainer(path);
        back = reader->GetFrameAtom(1, 0);
    }
    ExpectSame(original, back);
}

TEST(ContainerRoundTrip, ContainerWithoutAtomsOpensEmpty) {
    TempDir dir;
    const auto path = dir.File("empty.kel");
    WriteContainer(path, {});

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumStreams(), 0);
    EXPECT_EQ(reader->GetFirstStreamId(), 0);
    EXPECT_EQ(reader->GetNumAtoms(), 0U);
    EXPECT_TRUE(reader->GetDamageReport().indexUsed);
    EXPECT_EQ(reader->GetFormatVersion(), KEL::CURRENT_VERSION);
}

TEST(ContainerRoundTrip, FileStartsWithTheContainerHeader) {
    TempDir dir;
    const auto path = dir.File("header.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    const auto bytes = ReadFileBytes(path);
    ASSERT_GE(bytes.size(), KEL::KEL2HeaderSize);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 10), KEL::KEL2HeaderString.str());
    EXPECT_EQ(bytes[10] | (bytes[11] << 8), 2000);
}

TEST(ContainerWriter, RefusesAnExistingFileWithoutOverwrite) {
    TempDir dir;
    const auto path = dir.File("keep.kel");
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

TEST(ContainerWriter, OverwriteReplacesAnExistingFile) {
    TempDir dir;
    const auto path = dir.File("replace.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0), MakeFrameAtom(1, 1)});
    auto oldReader = OpenContainer(path);
    const auto replacement = MakeFrameAtom(6, 3);
    WriteContainer(path, {replacement});

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 1U);
    ExpectSame(replacement, reader->GetFrameAtom(6, 3));
    // A reader of the replaced file still sees the old content.
    EXPECT_TRUE(oldReader->GetFrameAtom(1, 1));
}

TEST(ContainerWriter, CreatesMissingParentDirectories) {
    TempDir dir;
    const auto path = dir.File("a/b/c/deep.kel");
    WriteContainer(path, {MakeFrameAtom(1, 0)});
    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 1U);
}

TEST(ContainerWriter, RefusesAnUnsupportedVersion) {
    TempDir dir;
    const auto path = dir.File("v.kel");
    KEL::SerializeToKel writer(path.c_str(), true, static_cast<KEL::KELFormatVersion>(1999), false);
    EXPECT_EQ(writer.GetOpenResult(), KEL::KEL_ERR_UNSUPPORTED_VERSION);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ContainerWriter, WritingAfterCloseIsNotOpenAndCloseIsIdempotent) {
    TempDir dir;
    const auto path = dir.File("closed.kel");
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, true);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(1, 0)), KEL::KEL_OK);
    EXPECT_EQ(writer.Close(), KEL::KEL_OK);
    const auto size = FileSize(path);
    EXPECT_EQ(writer.Close(), KEL::KEL_OK);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(1, 1)), KEL::KEL_ERR_NOT_OPEN);
    EXPECT_EQ(FileSize(path), size);
    EXPECT_EQ(writer.GetNumAtomsWritten(), 1U);
}

TEST(ContainerWriter, EmptyAtomIsInvalidAndLeavesTheFileUsable) {
    TempDir dir;
    const auto path = dir.File("invalid.kel");
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    EXPECT_EQ(writer.SerializeAtom(nullptr), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(1, 0)), KEL::KEL_OK);
    writer.Close();
    EXPECT_EQ(OpenContainer(path)->GetNumAtoms(), 1U);
}

TEST(ContainerWriter, XmlSuffixIsNotPartOfTheFileName) {
    TempDir dir;
    const auto path = dir.File("named.kel");
    KEL::SerializeToKel writer((path + "+xml").c_str(), true, KEL::CURRENT_VERSION, false);
    EXPECT_EQ(writer.GetFilePath(), path);
    EXPECT_TRUE(writer.WritesXmlCompanion());
    writer.Close();
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_TRUE(std::filesystem::exists(path + ".xml"));
}

}  // namespace
