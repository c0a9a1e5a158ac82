#include <KEL/DataTypeBinary.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using KEL::container::kBlobAlignment;
using KEL::container::PayloadChecksum;
using KEL::container::PayloadHasher;

// The serializer hashes a payload in the pieces of its gather list; the
// reader hashes it in one go. Both must agree wherever the payload starts
// relative to the alignment boundary and however it is cut into pieces.
TEST(PayloadChecksum, StreamedAndOneShotAgreeAtEveryOffsetModulo64) {
    std::mt19937 random(7);
    std::vector<std::uint8_t> bytes(4096);
    for (auto& b : bytes) {
        b = static_cast<std::uint8_t>(random());
    }
    for (std::uint64_t offset = 0; offset < 2 * kBlobAlignment; ++offset) {
        for (std::size_t size : {0UL, 1UL, 7UL, 63UL, 64UL, 65UL, 130UL, 4096UL}) {
            PayloadHasher hasher(offset);
            std::size_t done = 0;
            while (done < size) {
                const std::size_t piece = std::min<std::size_t>(size - done, 1 + random() % 80);
                hasher.Update(bytes.data() + done, piece);
                done += piece;
            }
            ASSERT_EQ(hasher.Digest(), PayloadChecksum(bytes.data(), size, offset))
                << "offset " << offset << " size " << size;
        }
    }
}

// Binary payloads of 1 + 7k bytes put successive records at every 8-byte
// residue modulo 64; every one of them must come back.
TEST_F(ContainerTest, AtomsAtEveryRecordOffsetModulo64ReadBack) {
    std::vector<KEL::AtomPtr> atoms;
    for (std::uint32_t i = 0; i < 64; ++i) {
        auto atom = std::make_shared<KEL::Atom>(1, i, i);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", PatternBuffer(1 + 7 * i, i)), true);
        atoms.push_back(atom);
    }
    std::set<std::uint64_t> residues;
    std::uint64_t start = KEL::container::kFirstRecordOffset;
    for (const auto end : WriteContainer(path, atoms)) {
        residues.insert((start + KEL::container::kRecordHeaderSize) % kBlobAlignment);
        start = end;
    }
    EXPECT_EQ(residues.size(), kBlobAlignment / KEL::container::kRecordAlignment);

    auto reader = OpenContainer(path);
    for (const auto& atom : atoms) {
        ExpectSameAtom(atom, reader->GetFrameAtom(1, atom->GetFrameNr()));
    }
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
}

}  // namespace
