// libFuzzer target for the container reader. The first input byte picks how
// the rest is used:
//   even: the bytes are the whole file;
//   odd:  the bytes are the payload of one atom record, sealed with valid
//         checksums into a file (closed with an index when bit 1 is set,
//         unclosed otherwise), so that mutations reach the atom decoder
//         instead of stopping at a checksum.
// The file is opened, every atom fetched, and the verifier must agree with
// the reader on whether the file opens. Crashes, hangs, leaks and sanitizer
// reports are the failures the fuzzer looks for.

#include <KEL/ContainerVerifier.h>
#include <KEL/KELLogger.h>
#include <KEL/ReadKEL2File.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"

namespace {

const std::string& ScratchPath() {
    static const std::string path = "/tmp/kel-reader-fuzz-" + std::to_string(getpid()) + ".kel";
    return path;
}

bool WriteScratch(const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen(ScratchPath().c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

// A container holding `payload` as its one atom record.
std::vector<std::uint8_t> SealAsAtomRecord(const std::uint8_t* data, std::size_t size, bool closed) {
    using namespace KEL::container;
    constexpr std::uint64_t kFileId = 0x5EED;
    const auto header = EncodeFileHeader({kFormatVersion, kLayoutRevision, kFileId, 0});
    std::vector<std::uint8_t> file(kFirstRecordOffset, 0);
    std::copy(header.begin(), header.end(), file.begin());
    std::vector<std::uint8_t> payload(AlignUp(size, kRecordAlignment), 0);
    std::copy(data, data + size, payload.begin());
    auto record = SealRecord(RecordKind::kAtom, payload, kFirstRecordOffset, kFileId);
    // The header's copy of the atom key must agree with the payload's.
    if (size >= kAtomMetaSize) {
        RecordHeader h;
        DecodeRecordHeader(record.data(), kFirstRecordOffset, h);
        h.key = {GetU16(data), GetU32(data + 4), static_cast<std::int64_t>(GetU64(data + 8))};
        EncodeRecordHeader(h, record.data());
    }
    file.insert(file.end(), record.begin(), record.end());
    if (closed && size >= kAtomMetaSize) {
        const IndexEntry entry{kFirstRecordOffset, static_cast<std::int64_t>(GetU64(data + 8)), GetU32(data + 4),
                               GetU16(data)};
        const auto tail = EncodeIndexAndFooter({entry}, file.size(), kFileId);
        file.insert(file.end(), tail.begin(), tail.end());
    }
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KEL::SetKELLoggerInstance(nullptr);  // keep the output to findings
    std::atexit([] { ::unlink(ScratchPath().c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::uint8_t mode = data[0];
    bool written = false;
    if ((mode & 1) == 0) {
        written = WriteScratch(data + 1, size - 1);
    } else {
        const auto file = SealAsAtomRecord(data + 1, size - 1, (mode & 2) != 0);
        written = WriteScratch(file.data(), file.size());
    }
    if (!written) {
        return 0;
    }
    KEL::ReadKEL2File reader(ScratchPath().c_str());
    const KEL::KelErrorCode code = reader.Initialize();
    if (code == KEL::KEL_OK) {
        for (int s = 0; s < reader.GetNumStreams(); ++s) {
            const std::uint16_t stream = reader.GetStreamId(s);
            for (std::uint32_t frame : reader.GetFrameNumbers(stream)) {
                if (auto atom = reader.GetFrameAtom(stream, frame)) {
                    if (atom->GetStreamId() != stream || atom->GetFrameNr() != frame) {
                        __builtin_trap();
                    }
                    (void)atom->PayloadSize();
                }
            }
            (void)reader.GetFirstFrameAtom(stream);
        }
        // A description reads the record's header and layer tables only; an
        // atom that reads whole has a description that says so.
        for (std::uint64_t i = 0; i < reader.GetNumAtoms(); ++i) {
            const KEL::AtomDescription described = reader.DescribeAtomAt(i);
            const auto atom = reader.GetAtomAt(i);
            if (atom && (described.damaged || described.layers.size() != atom->GetNumDataLayers())) {
                __builtin_trap();
            }
        }
    }
    const KEL::ContainerVerification v = KEL::VerifyContainer(ScratchPath());
    if (v.openResult != code) {
        std::fprintf(stderr, "reader says %u, verifier says %u (%s)\n", code, v.openResult, v.openError.c_str());
        __builtin_trap();
    }
    return 0;
}
