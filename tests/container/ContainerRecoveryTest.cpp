#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <random>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;

// Every atom the reader returns must be exactly one that was written.
void ExpectOnlyOriginals(KEL::ReadKEL2File& reader, const std::vector<AtomPtr>& written) {
    for (const auto& atom : ReadAll(reader)) {
        if (!atom) {
            continue;
        }
        bool found = false;
        for (const auto& original : written) {
            if (original->GetStreamId() == atom->GetStreamId() && original->GetFrameNr() == atom->GetFrameNr()) {
                std::string why;
                EXPECT_TRUE(AtomsEqual(*original, *atom, &why)) << why;
                found = true;
            }
        }
        EXPECT_TRUE(found) << "stream " << atom->GetStreamId() << " frame " << atom->GetFrameNr();
    }
}

std::size_t CountLevel(const KelCommon::ScopedLogCapture& log, int level, const std::string& fragment) {
    std::size_t n = 0;
    for (const auto& r : log.Records()) {
        n += (r.level == level && r.message.find(fragment) != std::string::npos) ? 1 : 0;
    }
    return n;
}

TEST(ContainerRecovery, UnclosedFileOpensByScanningAndSaysSo) {
    TempDir dir;
    const auto path = dir.File("unclosed.kel");
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
    EXPECT_EQ(CountLevel(log, 3, "Recovered container '" + path + "'"), 1U);
    ExpectOnlyOriginals(*reader, atoms);
    EXPECT_EQ(reader->GetNumFrames(1), 3U);
}

TEST(ContainerRecovery, FileStillBeingWrittenOpensUpToItsLastRecord) {
    TempDir dir;
    const auto path = dir.File("live.kel");
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

TEST(ContainerRecovery, TruncationAtEveryOffsetKeepsTheCompleteRecords) {
    TempDir dir;
    const auto full = dir.File("full.kel");
    std::vector<AtomPtr> atoms = SmallAtoms(1, 2);
    atoms.push_back(MakeFrameAtom(2, 0, 2, 2));
    atoms.push_back(MakeFrameAtom(1, 2, 2, 2));
    const auto ends = WriteContainer(full, atoms);
    const auto bytes = ReadFileBytes(full);
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
        std::size_t complete = 0;
        while (complete < ends.size() && ends[complete] <= size) {
            ++complete;
        }
        EXPECT_EQ(reader.GetNumAtoms(), complete);
        EXPECT_EQ(reader.GetDamageReport().skippedRecords, 0U);
        std::size_t read = 0;
        for (std::size_t i = 0; i < complete; ++i) {
            auto back = reader.GetFrameAtom(atoms[i]->GetStreamId(), atoms[i]->GetFrameNr());
            ASSERT_TRUE(back);
            std::string why;
            EXPECT_TRUE(AtomsEqual(*atoms[i], *back, &why)) << why;
            ++read;
        }
        EXPECT_EQ(read, complete);
        EXPECT_EQ(reader.GetDamageReport().indexUsed, size == bytes.size());
    }
}

TEST(ContainerRecovery, FlippedPayloadByteWithIndexLosesThatAtomOnly) {
    TempDir dir;
    const auto path = dir.File("flip.kel");
    const auto atoms = SmallAtoms(1, 4);
    const auto ends = WriteContainer(path, atoms);
    FlipByte(path, ends[2] - 20);  // in the third record's last blob

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().indexUsed);
    EXPECT_EQ(reader->GetNumFrames(1), 4U);
    EXPECT_FALSE(reader->GetFrameAtom(1, 2));
    EXPECT_FALSE(reader->GetFrameAtom(1, 2));
    EXPECT_EQ(CountLevel(log, 3, "frame 2"), 1U);
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 1U);
    EXPECT_EQ(reader->GetDamageReport().validRecords, 3U);
    ExpectOnlyOriginals(*reader, atoms);
    EXPECT_TRUE(reader->GetFrameAtom(1, 3));
}

TEST(ContainerRecovery, FlippedPayloadByteWithoutIndexLosesThatAtomOnly) {
    TempDir dir;
    const auto path = dir.File("flip.kel");
    const auto atoms = SmallAtoms(1, 4);
    const auto ends = WriteContainer(path, atoms, false);
    FlipByte(path, ends[2] - 20);

    auto reader = OpenContainer(path);
    const auto& report = reader->GetDamageReport();
    EXPECT_TRUE(report.recovered);
    EXPECT_EQ(report.validRecords, 3U);
    EXPECT_EQ(report.skippedRecords, 1U);
    EXPECT_EQ(report.skippedBytes, ends[2] - ends[1]);
    EXPECT_EQ(reader->GetFrameNumbers(1), (std::vector<std::uint32_t>{0, 1, 3}));
    ExpectOnlyOriginals(*reader, atoms);
}

TEST(ContainerRecovery, DamagedRecordLengthIsDetectedAndSkippedBySearching) {
    TempDir dir;
    const auto path = dir.File("length.kel");
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

TEST(ContainerRecovery, DamagedIndexFallsBackToScanning) {
    TempDir dir;
    const auto path = dir.File("index.kel");
    const auto atoms = SmallAtoms(3, 5);
    const auto ends = WriteContainer(path, atoms);
    FlipByte(path, ends.back() + KEL::container::kRecordHeaderSize + 12);

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().recovered);
    EXPECT_EQ(reader->GetNumFrames(3), 5U);
    EXPECT_EQ(CountLevel(log, 3, "index unusable"), 1U);
    ExpectOnlyOriginals(*reader, atoms);
}

TEST(ContainerRecovery, PartialRecordAtTheEndIsAnIncompleteTail) {
    TempDir dir;
    const auto path = dir.File("tail.kel");
    const auto ends = WriteContainer(path, SmallAtoms(1, 3), false);
    TruncateFile(path, ends[2] - 17);

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 2U);
    EXPECT_EQ(reader->GetDamageReport().truncatedTailBytes, ends[2] - 17 - ends[1]);
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
}

TEST(ContainerRecovery, LengthClaimingGigabytesIsRefusedWithoutReadingPastTheFile) {
    TempDir dir;
    const auto path = dir.File("huge.kel");
    const auto atoms = SmallAtoms(1, 3);
    const auto ends = WriteContainer(path, atoms);
    // Re-seal the last atom record's header with a payload of 64 GiB, as a
    // forger (or a writer bug) would: its header checksum is valid.
    auto bytes = ReadFileBytes(path);
    std::uint8_t* header = bytes.data() + ends[1];
    KEL::container::RecordHeader h;
    ASSERT_EQ(KEL::container::DecodeRecordHeader(header, ends[1], h), KEL::container::HeaderStatus::kValid);
    h.payloadSize = 64ULL << 30;
    KEL::container::EncodeRecordHeader(h, header);
    WriteFileBytes(path, bytes);

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

TEST(ContainerRecovery, LayerCountClaimingBillionsIsRefused) {
    TempDir dir;
    const auto path = dir.File("layers.kel");
    const auto atoms = SmallAtoms(1, 2);
    const auto ends = WriteContainer(path, atoms);
    auto bytes = ReadFileBytes(path);
    using namespace KEL::container;
    std::uint8_t* header = bytes.data() + ends[0];
    RecordHeader h;
    ASSERT_EQ(DecodeRecordHeader(header, ends[0], h), HeaderStatus::kValid);
    std::uint8_t* payload = header + kRecordHeaderSize;
    PutU32(payload + 20, 0xFFFFFFFFU);
    h.payloadChecksum = Checksum(payload, h.payloadSize);
    EncodeRecordHeader(h, header);
    WriteFileBytes(path, bytes);

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    EXPECT_FALSE(reader->GetFrameAtom(1, 1));
    EXPECT_EQ(CountLevel(log, 3, "layer count"), 1U);
    EXPECT_TRUE(reader->GetFrameAtom(1, 0));
}

TEST(ContainerRecovery, RandomBitFlipsNeverYieldWrongAtoms) {
    TempDir dir;
    const auto path = dir.File("random.kel");
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
