#include <KEL/ContainerVerifier.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "container/BlobCoding.h"
#include "container/Checksum.h"
#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"
#include "container/WorkerPool.h"
#include "support/TestSupport.h"

namespace {

using namespace KEL::container;
using kel_test::TempDir;

// Generated buffers of every length up to a few elements past a piece
// boundary, smooth or random, through every filter and element size: the
// filter is undone exactly, and a piece compressed with it decodes to the
// same bytes.
TEST(BlobCoding, EveryFilterIsUndoneExactlyAndPiecesRoundTrip) {
    std::mt19937_64 random(20261124);
    for (int round = 0; round < 400; ++round) {
        SCOPED_TRACE(round);
        const std::size_t size = std::uniform_int_distribution<std::size_t>(0, round % 50 == 0 ? 70000 : 300)(random);
        std::vector<std::uint8_t> data(size);
        const bool smooth = random() % 2 == 0;
        for (std::size_t i = 0; i < size; ++i) {
            data[i] = smooth ? static_cast<std::uint8_t>(i / 7 + random() % 3) : static_cast<std::uint8_t>(random());
        }
        for (const unsigned es : {1U, 2U, 4U, 8U}) {
            for (const auto filter :
                 {BlobFilter::kNone, BlobFilter::kShuffle, BlobFilter::kDeltaShuffle, BlobFilter::kShuffleDelta}) {
                std::vector<std::uint8_t> filtered(size);
                std::vector<std::uint8_t> back(size);
                ApplyFilter(filter, es, data.data(), size, filtered.data());
                UndoFilter(filter, es, filtered.data(), size, back.data());
                ASSERT_EQ(back, data) << "filter " << static_cast<int>(filter) << ", element size " << es;

                const BlobCoding coding{KEL::CompressionCodec::kZstd, filter, static_cast<std::uint8_t>(es), 1 << 20};
                std::vector<std::uint8_t> piece;
                std::string why;
                ASSERT_TRUE(CompressPiece(data.data(), size, coding, 1, piece, why)) << why;
                std::vector<std::uint8_t> decoded(size);
                ASSERT_TRUE(DecompressPiece(piece.data(), piece.size(), coding, decoded.data(), size, why)) << why;
                ASSERT_EQ(decoded, data);
            }
        }
    }
}

// Every piece of a job runs exactly once. The last piece is held for a few
// milliseconds so that whichever thread did not take it finishes its own
// piece and looks for work while the job's last piece is still running: a
// worker once found such a job still queued and ran a piece past its end.
TEST(WorkerPool, AJobWhoseLastPieceIsRunningGivesNoMorePieces) {
    WorkerPool pool(1);
    for (int round = 0; round < 20; ++round) {
        std::vector<std::atomic<int>> runs(2);
        std::atomic<int> outOfRange{0};
        pool.ParallelFor(2, [&](std::size_t i) {
            if (i >= runs.size()) {
                ++outOfRange;
                return;
            }
            if (i == 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            ++runs[i];
        });
        ASSERT_EQ(outOfRange.load(), 0) << "round " << round;
        ASSERT_EQ(runs[0].load(), 1);
        ASSERT_EQ(runs[1].load(), 1);
    }
}

KelCommon::SharedBuffer Smooth(std::size_t size, std::uint64_t seed) {
    std::vector<std::uint8_t> bytes(size);
    std::mt19937_64 random(seed);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i % 4096) / 16 + random() % 4);
    }
    return KelCommon::SharedBuffer::FromVector(std::move(bytes));
}

// Two atoms, the first a 3 MiB texture (three pieces), written compressed.
std::string WriteCompressedTake(const TempDir& dir) {
    const std::string path = dir.File("take.kel");
    auto first = std::make_shared<KEL::Atom>(0, 0, 0);
    first->AddDataLayer(std::make_shared<KEL::DataTypeTextureRGBA>(1024, 768, Smooth(1024 * 768 * 4, 1)), true);
    auto second = std::make_shared<KEL::Atom>(0, 1, 33'333);
    second->AddDataLayer(std::make_shared<KEL::DataTypeMesh>(Smooth(12 * 5000, 2), Smooth(12 * 4000, 3)), true);
    kel_test::WriteContainer(path, {first, second}, true, {KEL::CompressionCodec::kZstd, 1});
    return path;
}

// Changes the first blob reference of the first atom record with `patch`
// and seals the record again, as a writer that stored it so would have.
void PatchFirstBlobRef(const std::string& path, const std::function<void(std::uint8_t* ref)>& patch) {
    auto bytes = kel_test::ReadFileBytes(path);
    std::uint8_t* record = bytes.data() + kFirstRecordOffset;
    RecordHeader header;
    ASSERT_EQ(DecodeRecordHeader(record, kFirstRecordOffset, header), HeaderStatus::kValid);
    std::uint8_t* payload = record + kRecordHeaderSize;
    const std::uint8_t* descriptor = payload + kAtomMetaSize;
    ASSERT_EQ(GetU32(descriptor + 44), kBlobTableCoded);
    patch(payload + kAtomMetaSize + kLayerDescriptorSize + AlignUp(GetU32(descriptor + 40), kRecordAlignment));
    PayloadHasher hasher(kFirstRecordOffset + kRecordHeaderSize);
    hasher.Update(payload, header.payloadSize);
    header.payloadChecksum = hasher.Digest();
    EncodeRecordHeader(header, record);
    kel_test::WriteFileBytes(path, bytes);
}

// A compressed take is smaller, reads back byte for byte and verifies; an
// atom whose blob names a codec this reader does not know, or whose pieces
// do not decode to the size its table declares, is refused with the reason,
// by the reader and the verifier, while the file and its other atoms read.
TEST(ContainerCompression, CompressedAtomsReadBackAndBadOnesAreRefusedAlone) {
    TempDir dir;
    const std::string path = WriteCompressedTake(dir);
    {
        KEL::ReadKEL2File reader(path.c_str());
        ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
        EXPECT_LT(reader.GetFileSize(), 1024U * 768 * 4 / 2);
        const auto texture =
            KEL::LayerCast<KEL::DataTypeTextureRGBA>(reader.GetFrameAtom(0, 0)->GetAllDataLayers().front());
        ASSERT_TRUE(texture);
        const auto expected = Smooth(1024 * 768 * 4, 1);
        ASSERT_EQ(texture->GetPixels().size(), expected.size());
        EXPECT_EQ(std::memcmp(texture->GetPixels().data(), expected.data(), expected.size()), 0);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(texture->GetPixels().data()) % kBlobAlignment, 0U);
        EXPECT_TRUE(KEL::VerifyContainer(path).IsIntact());
    }
    const struct {
        const char* what;
        std::function<void(std::uint8_t*)> patch;
        const char* reason;
    } cases[] = {
        {"unknown codec", [](std::uint8_t* ref) { ref[24] = 9; }, "codec 9, which this reader does not know"},
        {"unknown filter", [](std::uint8_t* ref) { ref[25] = 7; }, "filter 7, which this reader does not know"},
        {"wrong original size", [](std::uint8_t* ref) { PutU64(ref + 16, GetU64(ref + 16) - 1); },
         "does not declare its size"},
        {"original size far too large", [](std::uint8_t* ref) { PutU64(ref + 16, std::uint64_t{1} << 50); }, "pieces"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string bad = dir.File(std::string("bad-") + c.what + ".kel");
        kel_test::WriteFileBytes(bad, kel_test::ReadFileBytes(path));
        PatchFirstBlobRef(bad, c.patch);
        KEL::ReadKEL2File reader(bad.c_str());
        ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
        EXPECT_EQ(reader.GetFrameAtom(0, 0), nullptr);
        const auto damage = reader.GetDamage();
        ASSERT_EQ(damage.size(), 1U);
        EXPECT_NE(damage.front().reason.find(c.reason), std::string::npos) << damage.front().reason;
        EXPECT_NE(reader.GetFrameAtom(0, 1), nullptr);
        const auto verification = KEL::VerifyContainer(bad);
        EXPECT_STREQ(verification.Verdict(), "DAMAGED");
        ASSERT_EQ(verification.problems.size(), 1U);
        EXPECT_NE(verification.problems.front().what.find(c.reason), std::string::npos)
            << verification.problems.front().what;
    }
}

}  // namespace
