// Round trips of generated atom sequences, checked against the model: every
// layer kind with random values, payloads from 0 bytes to a few MiB, streams
// interleaved, frame numbers with gaps and out of order; files closed or
// left as a killed writer leaves them; read through the index and by
// walking the records. RC_PARAMS="max_success=N" sets the number of cases
// (scripts/soak.sh runs it for as long as asked).

#include <KEL/DataTypeStaticInfo.h>
#include <KEL/LayerCodec.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "container/ContainerFiles.h"
#include "harness/AtomModel.h"
#include "harness/ContainerOracle.h"

namespace {

using namespace kel_harness;

// RapidCheck drives the generator, so a failing case shrinks.
class RapidCheckEntropy final : public Entropy {
public:
    std::uint64_t Below(std::uint64_t bound) override {
        return bound == ~0ULL ? *rc::gen::arbitrary<std::uint64_t>() : *rc::gen::inRange<std::uint64_t>(0, bound + 1);
    }
};

void CheckStreams(const std::string& path, const std::vector<ModelAtom>& atoms, bool useIndex) {
    KEL::ReadKEL2File reader(path.c_str(), {true, false, useIndex});
    RC_ASSERT(reader.Initialize() == KEL::KEL_OK);
    std::vector<std::uint16_t> order;
    std::map<std::uint16_t, std::vector<std::uint32_t>> frames;
    for (const auto& atom : atoms) {
        if (frames.count(atom.stream) == 0) {
            order.push_back(atom.stream);
        }
        frames[atom.stream].push_back(atom.frame);
    }
    RC_ASSERT(reader.GetNumStreams() == static_cast<int>(order.size()));
    for (int s = 0; s < reader.GetNumStreams(); ++s) {
        RC_ASSERT(reader.GetStreamId(s) == order[static_cast<std::size_t>(s)]);
        auto expected = frames[order[static_cast<std::size_t>(s)]];
        std::sort(expected.begin(), expected.end());
        RC_ASSERT(reader.GetFrameNumbers(order[static_cast<std::size_t>(s)]) == expected);
        RC_ASSERT(reader.GetNumFrames(order[static_cast<std::size_t>(s)]) == expected.size());
    }
}

RC_GTEST_PROP(ContainerModel, WrittenAtomsReadBackAsModelled, ()) {
    RapidCheckEntropy entropy;
    const auto atoms = GenerateAtoms(entropy, {.maxAtoms = 24, .maxLayers = 12, .largeBlobOneIn = 100});
    const bool close = *rc::gen::arbitrary<bool>();
    KEL::CompressionSetting compression;
    if (*rc::gen::arbitrary<bool>()) {
        compression.codec = KEL::CompressionCodec::kZstd;
        compression.level = *rc::gen::inRange(1, 4);
    }
    std::uint64_t bytes = 0;
    for (const auto& atom : atoms) {
        bytes += atom.PayloadBytes();
    }
    RC_TAG(close ? "closed" : "not closed", compression.Enabled() ? "compressed" : "plain",
           atoms.size() < 8 ? "< 8 atoms" : "8+ atoms",
           bytes < 65536       ? "< 64 KiB"
           : bytes < (1 << 20) ? "64 KiB - 1 MiB"
                               : ">= 1 MiB");

    kel_test::TempDir dir;
    const std::string path = dir.File("model.kel");
    std::vector<KEL::AtomPtr> built;
    for (const auto& atom : atoms) {
        built.push_back(BuildAtom(atom));
    }
    kel_test::WriteContainer(path, built, close, compression);

    std::vector<WrittenAtom> written;
    for (const auto& atom : atoms) {
        written.push_back({&atom, Fate::kRequired});
    }
    for (const bool useIndex : {true, false}) {
        const auto problems = CheckContainer(path, written, {true, false, useIndex});
        if (!problems.empty()) {
            RC_FAIL((useIndex ? "through the index: " : "walking the records: ") + problems.front());
        }
        CheckStreams(path, atoms, useIndex);
    }
}

// A record described from its header and layer descriptors says what the
// atom read whole holds: key, layer types, purposes, versions, payload
// sizes, and the record's size in the file.
RC_GTEST_PROP(ContainerModel, DescriptionsMatchTheAtomsRead, ()) {
    RapidCheckEntropy entropy;
    const auto atoms = GenerateAtoms(entropy, {.maxAtoms = 12, .maxLayers = 12, .largeBlobOneIn = 100});
    const bool close = *rc::gen::arbitrary<bool>();
    KEL::CompressionSetting compression;
    if (*rc::gen::arbitrary<bool>()) {
        compression.codec = KEL::CompressionCodec::kZstd;
        compression.level = *rc::gen::inRange(1, 4);
    }
    kel_test::TempDir dir;
    const std::string path = dir.File("described.kel");
    std::vector<KEL::AtomPtr> built;
    for (const auto& atom : atoms) {
        built.push_back(BuildAtom(atom));
        // Now and then descriptors longer than the description's first
        // read, before the atom's own layers.
        if (*rc::gen::inRange(0, 4) == 0) {
            const auto size = *rc::gen::inRange<std::size_t>(1000, 20000);
            const auto own = built.back()->GetAllDataLayers();
            built.back() = std::make_shared<KEL::Atom>(atom.stream, atom.frame, atom.timeStamp);
            built.back()->AddDataLayer(
                std::make_shared<KEL::DataTypeStaticInfo>(
                    std::map<std::string, std::string>{{"notes", std::string(size, 'n')}}, KEL::PurposeGuid_STATIC),
                true);
            for (const auto& layer : own) {
                built.back()->AddDataLayer(layer, true);
            }
        }
    }
    KelCommon::ScopedLogCapture quiet;
    const auto ends = kel_test::WriteContainer(path, built, close, compression);
    KEL::ReadKEL2File reader(path.c_str());
    RC_ASSERT(reader.Initialize() == KEL::KEL_OK);
    bool longDescriptors = false;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        const KEL::AtomDescription d = reader.DescribeAtomAt(i);
        const auto atom = reader.GetAtomAt(i);
        RC_ASSERT(atom != nullptr);
        RC_ASSERT(!d.damaged);
        RC_ASSERT(d.key.streamId == atom->GetStreamId() && d.key.frameNr == atom->GetFrameNr() &&
                  d.key.timeStamp == atom->GetTimeStamp());
        RC_ASSERT(d.storedBytes == ends[i] - (i == 0 ? 128 : ends[i - 1]));
        const auto& layers = atom->GetAllDataLayers();
        RC_ASSERT(d.layers.size() == layers.size());
        std::uint64_t descriptorBytes = 0;
        for (std::size_t l = 0; l < layers.size(); ++l) {
            RC_ASSERT(d.layers[l].typeGuid == layers[l]->GetTypeGuid());
            RC_ASSERT(d.layers[l].purposeGuid == layers[l]->GetPurposeGuid());
            RC_ASSERT(d.layers[l].version == layers[l]->GetVersion());
            RC_ASSERT(d.layers[l].typeName == layers[l]->TypeName());
            RC_ASSERT(d.layers[l].blobBytes == layers[l]->PayloadSize());
            const bool storedAsExpected = compression.Enabled() ? d.layers[l].storedBlobBytes <= d.layers[l].blobBytes
                                                                : d.layers[l].storedBlobBytes == d.layers[l].blobBytes;
            RC_ASSERT(storedAsExpected);
            KEL::LayerEncoder encoder;
            layers[l]->EncodeFields(encoder);
            descriptorBytes += 48 + encoder.Fields().size() + 16 * encoder.Blobs().size();
        }
        longDescriptors = longDescriptors || descriptorBytes > 4096;
    }
    RC_TAG(close ? "closed" : "not closed", compression.Enabled() ? "compressed" : "plain",
           longDescriptors ? "descriptors beyond the first read" : "short");
    RC_ASSERT(reader.DescribeAtomAt(atoms.size()).damaged);
}

}  // namespace
