#include <KEL/ContainerVerifier.h>

#include <algorithm>
#include <map>
#include <new>
#include <set>

#include "container/AtomRecord.h"
#include "container/BufferPool.h"
#include "container/ContainerFormat.h"
#include "container/FileIdentity.h"
#include "container/IndexReader.h"
#include "container/ReadableFile.h"
#include "container/RecordReader.h"
#include "container/RecordWalker.h"

namespace KEL {

using namespace container;

namespace {

struct WalkedAtom {
    AtomKey key;
    bool payloadValid = false;
};

// Decodes every intact atom record of a file whose layers may hold
// compressed blobs: their stored bytes passed the record's check, and now
// every piece must decode to the size its table and its frame declare. An
// atom that does not is damaged (as a reader would refuse it).
void DecodeCodedAtoms(const ReadableFile& file, ContainerVerification& v, std::map<std::uint64_t, WalkedAtom>& atoms) {
    BufferPool& pool = *BufferPool::Shared();
    for (auto& [offset, atom] : atoms) {
        if (!atom.payloadValid) {
            continue;
        }
        const LoadedRecord loaded = ReadAtomRecord(file, pool, v.fileId, {offset, 0, v.fileSize, false});
        std::string reason = loaded.error;
        if (reason.empty()) {
            DecodeAtomRecord(loaded.memory, loaded.payload, loaded.header.payloadSize, reason);
        }
        if (reason.empty()) {
            continue;
        }
        atom.payloadValid = false;
        ++v.damagedRecords;
        v.damagedBytes += loaded.header.TotalSize();
        v.problems.push_back({offset, loaded.header.TotalSize(),
                              "atom of stream " + std::to_string(atom.key.streamId) + " frame " +
                                  std::to_string(atom.key.frameNr) + ": " + reason});
    }
}

// Problems of index or checkpoint entries that do not point to the intact
// atom they name; returns how many entries do.
std::uint64_t CheckEntries(const std::vector<IndexEntry>& entries, const std::map<std::uint64_t, WalkedAtom>& atoms,
                           const char* listedBy, ContainerVerification& v, std::set<std::uint16_t>* streams) {
    std::uint64_t agreeing = 0;
    for (const auto& e : entries) {
        const auto it = atoms.find(e.offset);
        if (it == atoms.end() || it->second.key.streamId != e.streamId || it->second.key.frameNr != e.frameNr ||
            it->second.key.timeStamp != e.timeStamp) {
            v.problems.push_back({e.offset, 0,
                                  std::string(listedBy) + " entry for stream " + std::to_string(e.streamId) +
                                      " frame " + std::to_string(e.frameNr) + " does not point to that atom record"});
            continue;
        }
        ++agreeing;
        if (it->second.payloadValid && streams != nullptr) {
            ++v.recoverableAtoms;
            streams->insert(e.streamId);
        }
    }
    return agreeing;
}

// Per stream, in file order: frame numbers met before, and time stamps
// lower than the one before.
void WarnOfOrder(const std::map<std::uint64_t, WalkedAtom>& atoms, ContainerVerification& v) {
    constexpr std::size_t kPerStream = 5;
    struct StreamOrder {
        std::set<std::uint32_t> frames;
        std::int64_t lastStamp = 0;
        bool any = false;
        std::size_t warned = 0;
    };
    std::map<std::uint16_t, StreamOrder> streams;
    for (const auto& [offset, atom] : atoms) {
        StreamOrder& s = streams[atom.key.streamId];
        const std::string stream = "stream " + std::to_string(atom.key.streamId);
        if (!s.frames.insert(atom.key.frameNr).second && s.warned++ < kPerStream) {
            v.warnings.push_back({offset, 0,
                                  stream + " holds frame " + std::to_string(atom.key.frameNr) +
                                      " more than once (readers return the first)"});
        }
        if (s.any && atom.key.timeStamp < s.lastStamp && s.warned++ < kPerStream) {
            v.warnings.push_back({offset, 0,
                                  stream + ": time stamps go backwards at frame " + std::to_string(atom.key.frameNr) +
                                      " (" + std::to_string(atom.key.timeStamp) + " after " +
                                      std::to_string(s.lastStamp) + ")"});
        }
        s.lastStamp = atom.key.timeStamp;
        s.any = true;
    }
}

void Verify(const std::string& path, ContainerVerification& v) {
    KelErrorCode code = KEL_OK;
    std::string reason;
    const auto file = ReadableFile::Open(path, code, reason);
    if (!file) {
        v.openResult = code;
        v.openError = reason;
        return;
    }
    v.fileSize = file->CurrentSize();
    const FileIdentity identity = IdentifyFile(*file, v.fileSize);
    if (identity.status != FileHeaderStatus::kValid) {
        v.problems.push_back({0, std::min<std::uint64_t>(v.fileSize, kFileHeaderSize), identity.reason});
        if (identity.status == FileHeaderStatus::kUnsupported || !identity.Known()) {
            v.openResult = identity.status == FileHeaderStatus::kUnsupported ? KEL_ERR_UNSUPPORTED_VERSION
                           : identity.status == FileHeaderStatus::kNoMagic   ? KEL_ERR_NOT_A_CONTAINER
                                                                             : KEL_ERR_CORRUPT;
            v.openError = identity.reason;
            return;
        }
        v.headerDamaged = true;
    }
    v.formatVersion = kFormatVersion;
    v.fileId = identity.header.fileId;

    std::map<std::uint64_t, WalkedAtom> atoms;
    WalkVisitor visitor;
    visitor.onRecord = [&](std::uint64_t offset, const RecordHeader& header, bool payloadValid) {
        if (!payloadValid) {
            ++v.damagedRecords;
            v.damagedBytes += header.TotalSize();
            v.problems.push_back({offset, header.TotalSize(),
                                  header.kind == RecordKind::kAtom
                                      ? "atom of stream " + std::to_string(header.key.streamId) + " frame " +
                                            std::to_string(header.key.frameNr) + ": record payload checksum mismatch"
                                      : std::string("record payload checksum mismatch")});
        }
        if (header.kind == RecordKind::kAtom) {
            atoms.emplace(offset, WalkedAtom{header.key, payloadValid});
            ++v.atomRecords;
        }
    };
    visitor.onDamage = [&](std::uint64_t offset, std::uint64_t length, std::uint64_t foreign) {
        ++v.damagedRecords;
        v.damagedBytes += length;
        v.foreignRecords += foreign;
        v.problems.push_back({offset, length,
                              foreign == 0 ? std::string("damaged bytes: no intact record header")
                                           : "damaged bytes, among them " + std::to_string(foreign) +
                                                 " intact records of another file"});
    };
    visitor.onTail = [&](std::uint64_t offset, std::uint64_t length) {
        v.truncatedTailBytes = length;
        v.problems.push_back({offset, length, "incomplete record at the end of the file"});
    };
    WalkRecords(*file, {kFirstRecordOffset, v.fileSize, v.fileId, true}, visitor);
    if (identity.header.revision == kLayoutRevisionCoded || v.headerDamaged) {
        DecodeCodedAtoms(*file, v, atoms);
    }

    ClosedIndex index;
    const IndexStatus status = ReadIndex(*file, v.fileSize, v.fileId, index, reason);
    v.indexPresent = status != IndexStatus::kAbsent;
    std::set<std::uint16_t> streams;
    if (status == IndexStatus::kValid) {
        // What a reader using the index returns: the listed records that are intact.
        std::vector<IndexEntry> entries;
        entries.reserve(index.count);
        for (std::uint64_t i = 0; i < index.count; ++i) {
            entries.push_back(EntryAt(index.entries, i));
        }
        const std::uint64_t listed = CheckEntries(entries, atoms, "index", v, &streams);
        std::uint64_t atomsBeforeIndex = 0;
        for (const auto& [offset, atom] : atoms) {
            atomsBeforeIndex += offset < index.indexOffset ? 1 : 0;
        }
        v.indexValid = listed == entries.size() && listed == atomsBeforeIndex;
        if (listed != atomsBeforeIndex) {
            v.problems.push_back({index.indexOffset, 0,
                                  "index lists " + std::to_string(listed) + " of " + std::to_string(atomsBeforeIndex) +
                                      " atom records"});
        }
    } else {
        v.problems.push_back({v.fileSize, 0,
                              status == IndexStatus::kDamaged ? "index unusable: " + reason
                                                              : std::string("no index: the file was not closed")});
        for (const auto& [offset, atom] : atoms) {
            if (atom.payloadValid) {
                ++v.recoverableAtoms;
                streams.insert(atom.key.streamId);
            }
        }
    }
    // The checkpoints are a shortcut for readers of an unclosed file; what
    // they list must be true even when nobody needs them.
    // A slot is all zeros until the writer first uses it; any other bytes
    // must pass the slot's check, in use or not.
    for (std::size_t i = 0; i < kCheckpointSlotOffsets.size() && !v.headerDamaged; ++i) {
        const std::uint8_t* slot = identity.slots.data() + i * kCheckpointSlotSize;
        CheckpointSlot decoded;
        if (std::any_of(slot, slot + kCheckpointSlotSize, [](std::uint8_t b) { return b != 0; }) &&
            !DecodeCheckpointSlot(slot, v.fileId, decoded)) {
            ++v.damagedRecords;
            v.damagedBytes += kCheckpointSlotSize;
            v.problems.push_back({kCheckpointSlotOffsets[i], kCheckpointSlotSize,
                                  "checkpoint slot " + std::to_string(i) + " is damaged"});
        }
    }
    CheckpointChain chain;
    if (!v.headerDamaged && ReadCheckpoints(*file, v.fileSize, v.fileId, identity.slots.data(), chain, reason)) {
        CheckEntries(chain.entries, atoms, "checkpoint", v, nullptr);
    }
    v.streams = streams.size();
    WarnOfOrder(atoms, v);
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
