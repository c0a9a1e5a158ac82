#include <KEL/ContainerVerifier.h>

#include <map>
#include <new>
#include <set>

#include "container/AtomRecord.h"
#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/MappedFile.h"
#include "container/RecordScanner.h"

namespace KEL {

using namespace container;

namespace {

struct ScannedAtom {
    AtomKey key;
    bool keyValid = false;
    bool payloadValid = false;
};

void Verify(const std::string& path, ContainerVerification& v) {
    KelErrorCode code = KEL_OK;
    std::string reason;
    const auto file = MappedFile::Open(path, code, reason);
    if (!file) {
        v.openResult = code;
        v.openError = reason;
        return;
    }
    const std::uint8_t* data = file->Data();
    v.fileSize = file->Size();
    code = CheckFileHeader(data, v.fileSize, v.formatVersion, reason);
    if (code != KEL_OK) {
        v.openResult = code;
        v.openError = reason;
        v.problems.push_back({0, std::min<std::uint64_t>(v.fileSize, kFileHeaderSize), reason});
        return;
    }

    std::map<std::uint64_t, ScannedAtom> atoms;
    ScanVisitor visitor;
    visitor.onRecord = [&](std::uint64_t offset, const RecordHeader& header, bool payloadValid) {
        if (!payloadValid) {
            ++v.damagedRecords;
            v.damagedBytes += header.TotalSize();
            v.problems.push_back({offset, header.TotalSize(), "record payload checksum mismatch"});
        }
        if (header.kind != RecordKind::kAtom) {
            return;
        }
        ScannedAtom atom;
        atom.payloadValid = payloadValid;
        atom.keyValid = PeekAtomKey(data + offset + kRecordHeaderSize, header.payloadSize, atom.key);
        if (payloadValid && !atom.keyValid) {
            ++v.damagedRecords;
            v.damagedBytes += header.TotalSize();
            v.problems.push_back({offset, header.TotalSize(), "atom record too short"});
        }
        atoms.emplace(offset, atom);
        ++v.atomRecords;
    };
    visitor.onDamage = [&](std::uint64_t offset, std::uint64_t length) {
        ++v.damagedRecords;
        v.damagedBytes += length;
        v.problems.push_back({offset, length, "damaged bytes: no intact record header"});
    };
    visitor.onTail = [&](std::uint64_t offset, std::uint64_t length) {
        v.truncatedTailBytes = length;
        v.problems.push_back({offset, length, "incomplete record at the end of the file"});
    };
    ScanRecords(data, v.fileSize, visitor);

    std::vector<IndexEntry> entries;
    IndexLocation location;
    const IndexStatus status = ReadIndex(data, v.fileSize, entries, location, reason);
    v.indexPresent = status != IndexStatus::kAbsent;
    std::set<std::uint16_t> streams;
    if (status == IndexStatus::kValid) {
        // What a reader using the index returns: the listed records that are intact.
        bool agrees = true;
        std::uint64_t listedBeforeIndex = 0;
        for (const auto& e : entries) {
            const auto it = atoms.find(e.offset);
            if (it == atoms.end() || !it->second.keyValid || it->second.key.streamId != e.streamId ||
                it->second.key.frameNr != e.frameNr) {
                agrees = false;
                v.problems.push_back({e.offset, 0,
                                      "index entry for stream " + std::to_string(e.streamId) + " frame " +
                                          std::to_string(e.frameNr) + " does not point to that atom record"});
                continue;
            }
            ++listedBeforeIndex;
            if (it->second.payloadValid) {
                ++v.recoverableAtoms;
                streams.insert(e.streamId);
            }
        }
        std::uint64_t atomsBeforeIndex = 0;
        for (const auto& [offset, atom] : atoms) {
            atomsBeforeIndex += offset < location.indexOffset ? 1 : 0;
        }
        if (atomsBeforeIndex != listedBeforeIndex) {
            agrees = false;
            v.problems.push_back({location.indexOffset, 0,
                                  "index lists " + std::to_string(listedBeforeIndex) + " of " +
                                      std::to_string(atomsBeforeIndex) + " atom records"});
        }
        v.indexValid = agrees;
    } else {
        if (status == IndexStatus::kDamaged) {
            v.problems.push_back({location.footerOffset, 0, "index unusable: " + reason});
        } else {
            v.problems.push_back({v.fileSize, 0, "no index: the file was not closed"});
        }
        for (const auto& [offset, atom] : atoms) {
            if (atom.payloadValid && atom.keyValid) {
                ++v.recoverableAtoms;
                streams.insert(atom.key.streamId);
            }
        }
    }
    v.streams = streams.size();
}

}  // namespace

ContainerVerification VerifyContainer(const std::string& path) {
    ContainerVerification v;
    try {
        Verify(path, v);
    } catch (const std::bad_alloc&) {
        v.openResult = KEL_ERR_IO;
        v.openError = "out of memory";
    } catch (const std::exception& e) {
        v.openResult = KEL_ERR_IO;
        v.openError = e.what();
    }
    return v;
}

}  // namespace KEL
