// What the serializer does beyond storing atoms (ContainerModelTest round-trips
// generated atoms of every layer kind): atoms too large for one gather write,
// the life of fetched atoms, and how a file is created or refused.

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using ContainerRoundTrip = ContainerTest;
using ContainerWriter = ContainerTest;

// More buffers than one writev() takes (IOV_MAX is 1024 on Linux).
TEST_F(ContainerRoundTrip, AtomWithMoreBlobsThanOneSystemCallTakesRoundTrips) {
    auto atom = std::make_shared<KEL::Atom>(2, 3, 99);
    for (std::uint32_t i = 0; i < 1500; ++i) {
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("part" + std::to_string(i), PatternBuffer(i % 97, i)),
                           true);
    }
    atom->AddDataLayer(MakeTexture(33, 17, 5), true);
    WriteContainer(path, {atom});
    ExpectSameAtom(atom, OpenContainer(path)->GetFrameAtom(2, 3));
}

TEST_F(ContainerRoundTrip, EveryFetchReturnsANewAtomWhosePayloadOutlivesTheReaderAndIsAligned) {
    const auto original = MakeFrameAtom(1, 0, 64, 32);
    WriteContainer(path, {original});
    KEL::AtomPtr one;
    KEL::AtomPtr two;
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

// The replacement is a new file: a reader of the old one keeps reading it,
// and opening again (Initialize a second time) shows only the new content.
TEST_F(ContainerWriter, OverwriteReplacesAnExistingFileUnderOpenReaders) {
    WriteContainer(path, {MakeFrameAtom(1, 0), MakeFrameAtom(1, 1)});
    auto oldReader = OpenContainer(path);
    const auto replacement = MakeFrameAtom(6, 3);
    WriteContainer(path, {replacement});
    EXPECT_TRUE(oldReader->GetFrameAtom(1, 1));
    ASSERT_EQ(oldReader->Initialize(), KEL::KEL_OK);
    EXPECT_EQ(oldReader->GetNumStreams(), 1);
    EXPECT_EQ(oldReader->GetNumAtoms(), 1U);
    ExpectSameAtom(replacement, oldReader->GetFrameAtom(6, 3));
}

TEST_F(ContainerWriter, UnsupportedVersionAndEmptyAtomAreInvalidAndWritingAfterCloseIsNotOpen) {
    KEL::SerializeToKel future(path.c_str(), true, static_cast<KEL::KELFormatVersion>(1999), false);
    EXPECT_EQ(future.GetOpenResult(), KEL::KEL_ERR_UNSUPPORTED_VERSION);
    EXPECT_FALSE(std::filesystem::exists(path));
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

// A host that forbids replacing files (kel without --overwrite) keeps every
// existing file whoever asks the serializer to replace it.
TEST(ContainerSettings, AHostThatForbidsReplacingKeepsEveryExistingFile) {
    TempDir dir;
    const auto path = dir.File("take.kel");
    WriteContainer(path, SmallAtoms(1, 2));
    const auto before = ReadFileBytes(path);
    KEL::SerializerSettings forbidding;
    forbidding.allowReplace = false;
    KEL::SetSerializerSettings(forbidding);
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    KEL::SetSerializerSettings({});
    EXPECT_EQ(writer.GetOpenResult(), KEL::KEL_ERR_ALREADY_EXISTS);
    EXPECT_EQ(writer.SerializeAtom(MakeFrameAtom(1, 0)), KEL::KEL_ERR_ALREADY_EXISTS);
    writer.Close();
    EXPECT_EQ(ReadFileBytes(path), before);
}

}  // namespace
