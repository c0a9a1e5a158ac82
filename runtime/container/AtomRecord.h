#pragma once

#include <KEL/Atom.h>
#include <KEL/Compression.h>
#include <KEL/KelErrorCode.h>
#include <KEL/ReadKEL2File.h>
#include <KelCommon/SharedBuffer.h>
#include <sys/uio.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "container/ContainerFormat.h"

namespace KEL::container {

// One atom laid out as a record, ready for a gathered write: `iov` points into
// `head` (record header, atom fields, layer descriptors) and into the layers'
// own payload buffers, which `blobs` keeps alive. Nothing is copied but the
// small fields.
struct EncodedAtomRecord {
    // The atom's stream, frame number and time stamp, read from it once:
    // the record's header, its payload and the index must all say the same,
    // even if another thread changes the atom meanwhile.
    AtomKey key;
    // The layers as they were encoded.
    std::vector<Atom::LayerPtr> layers;
    std::vector<std::uint8_t> head;
    std::vector<KelCommon::SharedBuffer> blobs;
    // The compressed pieces of blobs, which `iov` points into.
    std::vector<std::vector<std::uint8_t>> pieces;
    std::vector<iovec> iov;
    std::uint64_t totalSize = 0;
    std::uint64_t blobBytes = 0;        // the blobs' own sizes
    std::uint64_t storedBlobBytes = 0;  // what they take in the record
};

// Encodes `atom` as a record of the file `fileId` to be written at file
// offset `recordOffset` (blob alignment depends on it). With compression the
// layers use coded blob tables and every blob large enough is compressed,
// its pieces in parallel on the process's WorkerPool; one that does not
// shrink is stored as it is. Returns 0, or KEL_ERR_INVALID with `error` set
// for an atom that cannot be stored (an empty layer, fields over 4 GiB).
KelErrorCode EncodeAtomRecord(const Atom& atom, std::uint64_t recordOffset, std::uint64_t fileId,
                              const CompressionSetting& compression, EncodedAtomRecord& out, std::string& error);

// Rebuilds the atom stored in a record payload that lies in memory owned by
// `owner`. Blobs stored as they are become views of that memory and keep it
// alive; compressed blobs are decoded (their pieces in parallel) into one
// block of the process's BufferPool, checked against the sizes their table
// and their pieces declare before anything is allocated. Returns empty, with
// `reason` set, when the payload is malformed, a blob does not decode, is
// stored with a codec or filter this reader does not know, or a known layer
// type does not decode; unknown layer types come back as DataTypeOpaque.
// Never reads outside the payload.
std::shared_ptr<Atom> DecodeAtomRecord(const std::shared_ptr<const void>& owner, const std::uint8_t* payload,
                                       std::uint64_t payloadSize, std::string& reason);

// The layers and blob sizes that the start of an atom record's payload
// lists. `available` bytes of the `payloadSize` bytes are in memory. Returns
// false when the tables are malformed, or when they reach past `available`
// (then `needed` tells how many bytes they take, when known).
bool ParseLayerStorage(const std::uint8_t* payload, std::uint64_t available, std::uint64_t payloadSize,
                       std::vector<LayerStorage>& out, std::uint64_t& needed);

}  // namespace KEL::container
