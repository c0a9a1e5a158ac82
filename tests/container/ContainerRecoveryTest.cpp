#include <gtest/gtest.h>

#include <random>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;
using ContainerRecovery = ContainerTest;

// Every atom the reader returns must be exactly one that was written.
void ExpectOnlyOriginals(KEL::ReadKEL2File& reader, const std::vector<AtomPtr>& written) {
    for (const auto& atom : ReadAll(reader)) {
        if (!atom) {
            continue;
        }
        const auto original = std::find_if(written.begin(), written.end(), [&](const AtomPtr& w) {
            return w->GetStreamId() == atom->GetStreamId() && w->GetFrameNr() == atom->GetFrameNr();
        });
        ASSERT_NE(original, written.end()) << "stream " << atom->GetStreamId() << " frame " << atom->GetFrameNr();
        ExpectSameAtom(*original, atom);
    }
}

TEST_F(ContainerRecovery, UnclosedFileOpensByScanningAndSaysSo) {
    const auto atoms = SmallAtoms(1, 3);
    WriteContainer(path, atoms, false);

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    const auto& report = reader->GetDamageReport();
    EXPECT_TRUE(report.recovered);
    EXPECT_FALSE(report.indexUsed);
    EXPECT_EQ(report.validRecords, 3U);
    EXPECT_EQ(report.skippedRecords, 0U);
    EXPECT_EQ(report.truncatedTailBytes, 0U);
    EXPECT_EQ(CountAtLevel(log, 3, "Recovered container '" + path + "'"), 1U);
    ExpectOnlyOriginals(*reader, atoms);
    EXPECT_EQ(reader->GetNumFrames(1), 3U);
}

TEST_F(ContainerRecovery, FileStillBeingWrittenOpensUpToItsLastRecord) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    const auto atoms = SmallAtoms(4, 2);
    for (const auto& atom : atoms) {
        ASSERT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
    }
    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumFrames(4), 2U);
    ExpectOnlyOriginals(*reader, atoms);
    ASSERT_EQ(writer.SerializeAtom(MakeFrameAtom(4, 2, 2, 2)), KEL::KEL_OK);
    EXPECT_EQ(reader->GetNumFrames(4), 2U);  // the mapping is a snapshot
    EXPECT_EQ(OpenContainer(path)->GetNumFrames(4), 3U);
}

TEST_F(ContainerRecovery, TruncationAtEveryOffsetKeepsTheCompleteRecords) {
    std::vector<AtomPtr> atoms = SmallAtoms(1, 2);
    atoms.push_back(MakeFrameAtom(2, 0, 2, 2));
    atoms.push_back(MakeFrameAtom(1, 2, 2, 2));
    const auto ends = WriteContainer(path, atoms);
    const auto bytes = ReadFileBytes(path);
    const auto cut = dir.File("cut.kel");

    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        SCOPED_TRACE("size " + std::to_string(size));
        WriteFileBytes(cut, std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(size)));
        KEL::ReadKEL2File reader(cut.c_str(), {true, false});
        const auto code = reader.Initialize();
        if (size < KEL::KEL2HeaderSize) {
            EXPECT_TRUE(code == KEL::KEL_ERR_NOT_A_CONTAINER || code == KEL::KEL_ERR_CORRUPT) << code;
            continue;
        }
        ASSERT_EQ(code, KEL::KEL_OK) << reader.GetLastError();
        const auto complete = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), size) - ends.begin());
        EXPECT_EQ(reader.GetNumAtoms(), complete);
        EXPECT_EQ(reader.GetDamageReport().skippedRecords, 0U);
        EXPECT_EQ(reader.GetDamageReport().indexUsed, size == bytes.size());
        for (std::size_t i = 0; i < complete; ++i) {
            ExpectSameAtom(atoms[i], reader.GetFrameAtom(atoms[i]->GetStreamId(), atoms[i]->GetFrameNr()));
        }
    }
}

// A flipped byte in the third record's last blob loses that atom only,
// whether the index lists it or scanning finds it.
TEST_F(ContainerRecovery, FlippedPayloadByteLosesThatAtomOnly) {
    for (const bool closed : {true, false}) {
        SCOPED_TRACE(closed ? "with index" : "without index");
        const auto atoms = SmallAtoms(1, 4);
        const auto ends = WriteContainer(path, atoms, closed);
        FlipByte(path, ends[2] - 20);

        KelCommon::ScopedLogCapture log;
        auto reader = OpenContainer(path);
        const auto& report = reader->GetDamageReport();
        EXPECT_EQ(report.indexUsed, closed);
        EXPECT_EQ(report.recovered, !closed);
        EXPECT_FALSE(reader->GetFrameAtom(1, 2));
        EXPECT_FALSE(reader->GetFrameAtom(1, 2));
        EXPECT_EQ(report.validRecords, 3U);
        EXPECT_EQ(report.skippedRecords, 1U);
        ExpectOnlyOriginals(*reader, atoms);
        EXPECT_TRUE(reader->GetFrameAtom(1, 3));
        if (closed) {
            // The index still lists the frame; reading it fails, logged once.
            EXPECT_EQ(reader->GetNumFrames(1), 4U);
            EXPECT_EQ(CountAtLevel(log, 3, "frame 2"), 1U);
        } else {
            EXPECT_EQ(report.skippedBytes, ends[2] - ends[1]);
            EXPECT_EQ(reader->GetFrameNumbers(1), (std::vector<std::uint32_t>{0, 1, 3}));
        }
    }
}

TEST_F(ContainerRecovery, DamagedRecordLengthIsDetectedAndSkippedBySearching) {
    const auto atoms = SmallAtoms(1, 4);
    const auto ends = WriteContainer(path, atoms, false);
    FlipByte(path, ends[0] + 9, 0x40);  // the second record's payload size

    auto reader = OpenContainer(path);
    const auto& report = reader->GetDamageReport();
    EXPECT_EQ(report.validRecords, 3U);
    EXPECT_EQ(report.skippedRecords, 1U);
    EXPECT_EQ(report.skippedBytes, ends[1] - ends[0]);
    EXPECT_EQ(reader->GetFrameNumbers(1), (std::vector<std::uint32_t>{0, 2, 3}));
    ExpectOnlyOriginals(*reader, atoms);
}

TEST_F(ContainerRecovery, DamagedIndexFallsBackToScanning) {
    const auto atoms = SmallAtoms(3, 5);
    const auto ends = WriteContainer(path, atoms);
    FlipByte(path, ends.back() + KEL::container::kRecordHeaderSize + 12);

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().recovered);
    EXPECT_EQ(reader->GetNumFrames(3), 5U);
    EXPECT_EQ(CountAtLevel(log, 3, "index unusable"), 1U);
    ExpectOnlyOriginals(*reader, atoms);
}

TEST_F(ContainerRecovery, PartialRecordAtTheEndIsAnIncompleteTail) {
    const auto ends = WriteContainer(path, SmallAtoms(1, 3), false);
    TruncateFile(path, ends[2] - 17);

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 2U);
    EXPECT_EQ(reader->GetDamageReport().truncatedTailBytes, ends[2] - 17 - ends[1]);
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
}

// Re-seals the header of the record at `offset` after `forge` changed it or
// its payload, as a forger (or a writer bug) would: both checksums are valid.
template <typename Forge>
void ForgeRecord(const std::string& path, std::uint64_t offset, Forge forge) {
    using namespace KEL::container;
    auto bytes = ReadFileBytes(path);
    std::uint8_t* header = bytes.data() + offset;
    RecordHeader h;
    ASSERT_EQ(DecodeRecordHeader(header, offset, h), HeaderStatus::kValid);
    forge(h, header + kRecordHeaderSize);
    EncodeRecordHeader(h, header);
    WriteFileBytes(path, bytes);
}

TEST_F(ContainerRecovery, LengthClaimingGigabytesIsRefusedWithoutReadingPastTheFile) {
    const auto ends = WriteContainer(path, SmallAtoms(1, 3));
    ForgeRecord(path, ends[1], [](KEL::container::RecordHeader& h, std::uint8_t*) { h.payloadSize = 64ULL << 30; });

    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().indexUsed);
    EXPECT_FALSE(reader->GetFrameAtom(1, 2));
    EXPECT_TRUE(reader->GetFrameAtom(1, 1));

    // Without the index the forged record is where the file ends.
    TruncateFile(path, ends[2]);
    auto scanned = OpenContainer(path);
    EXPECT_EQ(scanned->GetNumAtoms(), 2U);
    EXPECT_EQ(scanned->GetDamageReport().truncatedTailBytes, ends[2] - ends[1]);
}

TEST_F(ContainerRecovery, LayerCountClaimingBillionsIsRefused) {
    const auto ends = WriteContainer(path, SmallAtoms(1, 2));
    ForgeRecord(path, ends[0], [](KEL::container::RecordHeader& h, std::uint8_t* payload) {
        KEL::container::PutU32(payload + 20, 0xFFFFFFFFU);
        h.payloadChecksum =
            KEL::container::PayloadChecksum(payload, h.payloadSize, h.offset + KEL::container::kRecordHeaderSize);
    });

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    EXPECT_FALSE(reader->GetFrameAtom(1, 1));
    EXPECT_EQ(CountAtLevel(log, 3, "layer count"), 1U);
    EXPECT_TRUE(reader->GetFrameAtom(1, 0));
}

TEST_F(ContainerRecovery, RandomBitFlipsNeverYieldWrongAtoms) {
    std::vector<AtomPtr> atoms = SmallAtoms(1, 3);
    atoms.push_back(MakeFirstAtom(2, 3, 4, 4));
    atoms.push_back(MakeFrameAtom(2, 1, 3, 3));
    WriteContainer(path, atoms);
    const auto original = ReadFileBytes(path);
    const auto damaged = dir.File("damaged.kel");
    std::mt19937 rng(12345);

    for (int round = 0; round < 400; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto bytes = original;
        // Half the rounds also drop the index, so both paths are exercised.
        if (round % 2 == 1) {
            bytes.resize(bytes.size() - (rng() % 200));
        }
        const int flips = 1 + static_cast<int>(rng() % 8);
        for (int i = 0; i < flips; ++i) {
            bytes[rng() % bytes.size()] ^= static_cast<std::uint8_t>(1U << (rng() % 8));
        }
        WriteFileBytes(damaged, bytes);
        KEL::ReadKEL2File reader(damaged.c_str(), {true, false});
        if (reader.Initialize() != KEL::KEL_OK) {
            EXPECT_FALSE(reader.GetLastError().empty());
            continue;
        }
        ExpectOnlyOriginals(reader, atoms);
    }
}

}  // namespace
