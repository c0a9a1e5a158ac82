#include "container/AtomRecord.h"

#include <KEL/DataLayerRegistry.h>
#include <KEL/LayerCodec.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "container/BlobCoding.h"
#include "container/BufferPool.h"
#include "container/ContainerFormat.h"
#include "container/WorkerPool.h"

namespace KEL::container {

namespace {

constexpr std::array<std::uint8_t, kBlobAlignment> kZeros{};

struct EncodedLayer {
    const DataLayer* layer = nullptr;
    std::vector<std::uint8_t> fields;
    std::vector<KelCommon::SharedBuffer> blobs;
    std::vector<BlobKind> kinds;
};

// A blob as it goes into the record: as it is, or as compressed pieces.
struct StoredBlob {
    const KelCommon::SharedBuffer* blob = nullptr;
    BlobCoding coding;  // codec kNone: stored as it is
    std::size_t firstPiece = 0;
    std::size_t numPieces = 0;
    std::uint64_t storedSize = 0;
};

struct PieceJob {
    std::size_t blob = 0;
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    bool ok = false;
};

// Compresses every blob of the atom worth compressing, all pieces at once
// on the worker pool, and keeps the result of each blob that shrank enough.
void CompressBlobs(const CompressionSetting& compression, std::vector<StoredBlob>& stored,
                   const std::vector<BlobKind>& kinds, EncodedAtomRecord& out) {
    std::vector<PieceJob> jobs;
    for (std::size_t b = 0; b < stored.size(); ++b) {
        StoredBlob& s = stored[b];
        const std::size_t size = s.blob->size();
        if (size < kMinCompressedBlobSize) {
            continue;
        }
        s.coding = CodingFor(kinds[b], compression.codec);
        s.firstPiece = jobs.size();
        for (std::size_t offset = 0; offset < size; offset += s.coding.chunkSize) {
            jobs.push_back(
                {b, s.blob->data() + offset, std::min<std::size_t>(s.coding.chunkSize, size - offset), false});
        }
        s.numPieces = jobs.size() - s.firstPiece;
    }
    std::vector<std::vector<std::uint8_t>> pieces(jobs.size());
    WorkerPool::Shared().ParallelFor(jobs.size(), [&](std::size_t i) {
        std::string why;
        const StoredBlob& s = stored[jobs[i].blob];
        jobs[i].ok = CompressPiece(jobs[i].data, jobs[i].size, s.coding, compression.level, pieces[i], why);
    });
    for (StoredBlob& s : stored) {
        if (s.numPieces == 0) {
            s.coding = BlobCoding{};
            continue;
        }
        std::uint64_t total = 0;
        bool ok = true;
        for (std::size_t i = s.firstPiece; i < s.firstPiece + s.numPieces; ++i) {
            ok = ok && jobs[i].ok;
            total += pieces[i].size();
        }
        if (!ok || total * 100 > s.blob->size() * kMaxStoredPercent) {
            s.coding = BlobCoding{};  // stored as it is: read without decoding
            s.numPieces = 0;
            continue;
        }
        s.storedSize = total;
        const std::size_t first = out.pieces.size();
        for (std::size_t i = s.firstPiece; i < s.firstPiece + s.numPieces; ++i) {
            out.pieces.push_back(std::move(pieces[i]));
        }
        s.firstPiece = first;
    }
}

// What the reader needs of a compressed blob until its pieces are decoded.
struct PendingBlob {
    std::size_t layer = 0;
    std::size_t index = 0;  // in the layer's blobs
    const std::uint8_t* stored = nullptr;
    std::uint64_t storedSize = 0;
    std::uint64_t originalSize = 0;
    BlobCoding coding;
    std::vector<StoredPiece> pieces;
    std::uint64_t outputOffset = 0;  // in the block that receives every decoded blob
};

struct ParsedLayer {
    std::array<std::uint8_t, KelCommon::Guid::kSize> type{};
    std::array<std::uint8_t, KelCommon::Guid::kSize> purpose{};
    std::uint16_t version = 0;
    const std::uint8_t* fields = nullptr;
    std::uint32_t fieldsSize = 0;
    std::vector<KelCommon::SharedBuffer> blobs;
};

// Decodes every compressed blob into one pooled block and puts the views of
// it into their layers.
bool InflateBlobs(std::vector<PendingBlob>& pending, std::vector<ParsedLayer>& layers, std::string& reason) {
    std::uint64_t total = 0;
    for (PendingBlob& p : pending) {
        if (!FindPieces(p.stored, p.storedSize, p.originalSize, p.coding, p.pieces, reason)) {
            return false;
        }
        p.outputOffset = total;
        total += AlignUp(p.originalSize, kBlobAlignment);
    }
    std::shared_ptr<std::uint8_t> block;
    try {
        block = BufferPool::Shared()->Get(static_cast<std::size_t>(total));
    } catch (const std::bad_alloc&) {
        reason = "cannot allocate " + std::to_string(total) + " bytes for its decompressed blobs";
        return false;
    }
    struct Job {
        const PendingBlob* blob;
        std::size_t piece;
    };
    std::vector<Job> jobs;
    for (const PendingBlob& p : pending) {
        for (std::size_t i = 0; i < p.pieces.size(); ++i) {
            jobs.push_back({&p, i});
        }
    }
    std::vector<std::string> failures(jobs.size());
    WorkerPool::Shared().ParallelFor(jobs.size(), [&](std::size_t j) {
        const PendingBlob& p = *jobs[j].blob;
        const StoredPiece& piece = p.pieces[jobs[j].piece];
        const std::uint64_t start = static_cast<std::uint64_t>(jobs[j].piece) * p.coding.chunkSize;
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(p.coding.chunkSize, p.originalSize - start));
        DecompressPiece(p.stored + piece.offset, piece.size, p.coding, block.get() + p.outputOffset + start, size,
                        failures[j]);
    });
    for (const std::string& failure : failures) {
        if (!failure.empty()) {
            reason = failure;
            return false;
        }
    }
    for (const PendingBlob& p : pending) {
        layers[p.layer].blobs[p.index] = KelCommon::SharedBuffer::Alias(block, block.get() + p.outputOffset,
                                                                        static_cast<std::size_t>(p.originalSize));
    }
    return true;
}

}  // namespace

KelErrorCode EncodeAtomRecord(const Atom& atom, std::uint64_t recordOffset, std::uint64_t fileId,
                              const CompressionSetting& compression, EncodedAtomRecord& out, std::string& error) {
    const AtomKey key{atom.GetStreamId(), atom.GetFrameNr(), atom.GetTimeStamp()};
    out.key = key;
    out.layers = atom.GetAllDataLayers();
    const auto& layers = out.layers;
    if (layers.size() > std::numeric_limits<std::uint32_t>::max()) {
        error = "too many layers";
        return KEL_ERR_INVALID;
    }
    const bool coded = compression.Enabled();
    const std::size_t refSize = coded ? kCodedBlobRefSize : kBlobRefSize;
    std::vector<EncodedLayer> encoded;
    encoded.reserve(layers.size());
    std::uint64_t headSize = kRecordHeaderSize + kAtomMetaSize;
    for (const auto& layer : layers) {
        if (!layer) {
            error = "the atom holds an empty layer";
            return KEL_ERR_INVALID;
        }
        LayerEncoder encoder;
        layer->EncodeFields(encoder);
        EncodedLayer e{layer.get(), encoder.Fields(), encoder.Blobs(), encoder.BlobKinds()};
        if (e.fields.size() > std::numeric_limits<std::uint32_t>::max() ||
            e.blobs.size() > std::numeric_limits<std::uint32_t>::max()) {
            error = "layer " + layer->TypeName() + " is too large to store";
            return KEL_ERR_INVALID;
        }
        headSize += kLayerDescriptorSize + AlignUp(e.fields.size(), kRecordAlignment) + refSize * e.blobs.size();
        encoded.push_back(std::move(e));
    }

    out.head.assign(headSize, 0);
    out.blobs.clear();
    out.pieces.clear();
    out.iov.clear();
    out.blobBytes = 0;
    out.storedBlobBytes = 0;
    std::vector<StoredBlob> stored;
    std::vector<BlobKind> kinds;
    for (const auto& e : encoded) {
        for (std::size_t b = 0; b < e.blobs.size(); ++b) {
            StoredBlob blob;
            blob.blob = &e.blobs[b];
            stored.push_back(blob);
            kinds.push_back(b < e.kinds.size() ? e.kinds[b] : BlobKind::kBytes);
        }
    }
    if (coded) {
        CompressBlobs(compression, stored, kinds, out);
    }

    const std::uint64_t payloadStart = recordOffset + kRecordHeaderSize;
    std::uint8_t* h = out.head.data();
    std::uint8_t* meta = h + kRecordHeaderSize;
    PutU16(meta, key.streamId);
    PutU32(meta + 4, key.frameNr);
    PutU64(meta + 8, static_cast<std::uint64_t>(key.timeStamp));
    PutU32(meta + 16, atom.GetId());
    PutU32(meta + 20, static_cast<std::uint32_t>(encoded.size()));

    // Blob placement: each blob at the next aligned file offset after the
    // previous one, starting after the head.
    struct Placement {
        std::uint64_t padding;
        const StoredBlob* blob;
    };
    std::vector<Placement> placements;
    std::uint64_t cursor = recordOffset + headSize;
    std::uint8_t* p = meta + kAtomMetaSize;
    std::size_t next = 0;
    for (const auto& e : encoded) {
        const auto& purpose = e.layer->GetPurposeGuid().Bytes();
        const auto& type = e.layer->GetTypeGuid().Bytes();
        std::memcpy(p, type.data(), type.size());
        std::memcpy(p + 16, purpose.data(), purpose.size());
        PutU16(p + 32, e.layer->GetVersion());
        PutU32(p + 36, static_cast<std::uint32_t>(e.blobs.size()));
        PutU32(p + 40, static_cast<std::uint32_t>(e.fields.size()));
        PutU32(p + 44, coded ? kBlobTableCoded : kBlobTablePlain);
        p += kLayerDescriptorSize;
        if (!e.fields.empty()) {
            std::memcpy(p, e.fields.data(), e.fields.size());
        }
        p += AlignUp(e.fields.size(), kRecordAlignment);
        for (std::size_t b = 0; b < e.blobs.size(); ++b, ++next) {
            const StoredBlob& s = stored[next];
            const std::uint64_t size = s.blob->size();
            const std::uint64_t storedSize = s.numPieces != 0 ? s.storedSize : size;
            const std::uint64_t start = AlignUp(cursor, kBlobAlignment);
            PutU64(p, start - payloadStart);
            PutU64(p + 8, storedSize);
            if (coded) {
                PutU64(p + 16, size);
                p[24] = static_cast<std::uint8_t>(s.coding.codec);
                p[25] = static_cast<std::uint8_t>(s.coding.filter);
                p[26] = s.coding.elementSize;
                PutU32(p + 28, s.coding.chunkSize);
            }
            p += refSize;
            placements.push_back({start - cursor, &s});
            cursor = start + storedSize;
            out.blobs.push_back(*s.blob);
            out.blobBytes += size;
            out.storedBlobBytes += storedSize;
        }
    }
    const std::uint64_t end = AlignUp(cursor, kRecordAlignment);

    out.iov.push_back({out.head.data(), out.head.size()});
    PayloadHasher hasher(payloadStart);
    hasher.Update(out.head.data() + kRecordHeaderSize, out.head.size() - kRecordHeaderSize);
    auto* zeros = const_cast<std::uint8_t*>(kZeros.data());
    auto add = [&](const std::uint8_t* data, std::size_t size) {
        if (size != 0) {
            out.iov.push_back({const_cast<std::uint8_t*>(data), size});
            hasher.Update(data, size);
        }
    };
    for (const auto& placement : placements) {
        add(zeros, placement.padding);
        const StoredBlob& s = *placement.blob;
        if (s.numPieces == 0) {
            add(s.blob->data(), s.blob->size());
        } else {
            for (std::size_t i = s.firstPiece; i < s.firstPiece + s.numPieces; ++i) {
                add(out.pieces[i].data(), out.pieces[i].size());
            }
        }
    }
    add(zeros, end - cursor);

    RecordHeader header;
    header.kind = RecordKind::kAtom;
    header.fileId = fileId;
    header.key = key;
    header.offset = recordOffset;
    header.payloadSize = end - payloadStart;
    header.payloadChecksum = hasher.Digest();
    EncodeRecordHeader(header, h);
    out.totalSize = end - recordOffset;
    return KEL_OK;
}

namespace {

// One blob as its layer's table lists it.
struct TableBlob {
    std::uint64_t offset = 0;  // from the payload start
    std::uint64_t storedSize = 0;
    std::uint64_t originalSize = 0;
    BlobCoding coding;  // codec kNone: stored as it is
};

// One layer as its descriptor and blob table list it.
struct TableLayer {
    std::array<std::uint8_t, KelCommon::Guid::kSize> type{};
    std::array<std::uint8_t, KelCommon::Guid::kSize> purpose{};
    std::uint16_t version = 0;
    std::uint64_t fieldsOffset = 0;  // from the payload start
    std::uint32_t fieldsSize = 0;
    std::vector<TableBlob> blobs;
};

// The one parser of an atom payload's layer descriptors and blob tables,
// for the reader (the whole payload at hand) and for listings (its first
// `available` bytes). Each step first makes sure that the next bytes lie in
// the payload, then that they were read; it never reads past `available`.
LayoutStatus ParseTables(const std::uint8_t* payload, std::uint64_t available, std::uint64_t payloadSize,
                         std::vector<TableLayer>& layers, std::uint64_t& needed, std::string& reason) {
    layers.clear();
    std::uint64_t pos = 0;
    const auto reach = [&](std::uint64_t n, const char* what) {
        if (n > payloadSize - pos) {
            reason = what;
            return LayoutStatus::kMalformed;
        }
        if (pos + n > available) {
            needed = pos + n;
            return LayoutStatus::kNeedMore;
        }
        return LayoutStatus::kListed;
    };
    if (const auto status = reach(kAtomMetaSize, "atom record too short"); status != LayoutStatus::kListed) {
        return status;
    }
    const std::uint32_t numLayers = GetU32(payload + 20);
    if (numLayers > (payloadSize - kAtomMetaSize) / kLayerDescriptorSize) {
        reason = "layer count exceeds the record";
        return LayoutStatus::kMalformed;
    }
    pos = kAtomMetaSize;
    layers.reserve(numLayers);
    for (std::uint32_t i = 0; i < numLayers; ++i) {
        if (const auto status = reach(kLayerDescriptorSize, "layer descriptor exceeds the record");
            status != LayoutStatus::kListed) {
            return status;
        }
        const std::uint8_t* d = payload + pos;
        TableLayer layer;
        std::memcpy(layer.type.data(), d, layer.type.size());
        std::memcpy(layer.purpose.data(), d + 16, layer.purpose.size());
        layer.version = GetU16(d + 32);
        const std::uint32_t numBlobs = GetU32(d + 36);
        layer.fieldsSize = GetU32(d + 40);
        const std::uint32_t form = GetU32(d + 44);
        if (form != kBlobTablePlain && form != kBlobTableCoded) {
            reason = "layer " + std::to_string(i) + " has a blob table of form " + std::to_string(form) +
                     ", which this reader does not know (written by a newer host)";
            return LayoutStatus::kMalformed;
        }
        const std::size_t refSize = form == kBlobTableCoded ? kCodedBlobRefSize : kBlobRefSize;
        pos += kLayerDescriptorSize;
        if (AlignUp(layer.fieldsSize, kRecordAlignment) > payloadSize - pos) {
            reason = "layer fields exceed the record";
            return LayoutStatus::kMalformed;
        }
        layer.fieldsOffset = pos;
        pos += AlignUp(layer.fieldsSize, kRecordAlignment);
        if (numBlobs > (payloadSize - pos) / refSize) {
            reason = "blob table exceeds the record";
            return LayoutStatus::kMalformed;
        }
        if (const auto status = reach(std::uint64_t{numBlobs} * refSize, "blob table exceeds the record");
            status != LayoutStatus::kListed) {
            return status;
        }
        layer.blobs.reserve(numBlobs);
        for (std::uint32_t b = 0; b < numBlobs; ++b, pos += refSize) {
            const std::uint8_t* ref = payload + pos;
            TableBlob blob;
            blob.offset = GetU64(ref);
            blob.storedSize = GetU64(ref + 8);
            blob.originalSize = blob.storedSize;
            if (blob.offset > payloadSize || blob.storedSize > payloadSize - blob.offset) {
                reason = "blob exceeds the record";
                return LayoutStatus::kMalformed;
            }
            if (form == kBlobTableCoded) {
                // A coding this reader cannot decode makes the atom unreadable.
                blob.originalSize = GetU64(ref + 16);
                blob.coding.codec = static_cast<CompressionCodec>(ref[24]);
                blob.coding.filter = static_cast<BlobFilter>(ref[25]);
                blob.coding.elementSize = ref[26];
                blob.coding.chunkSize = GetU32(ref + 28);
                if (!CodingSupported(blob.coding, reason)) {
                    return LayoutStatus::kMalformed;
                }
                if (blob.coding.codec == CompressionCodec::kNone && blob.originalSize != blob.storedSize) {
                    reason = "blob stored as it is with two different sizes";
                    return LayoutStatus::kMalformed;
                }
            }
            layer.blobs.push_back(blob);
        }
        layers.push_back(std::move(layer));
    }
    return LayoutStatus::kListed;
}

}  // namespace

LayoutStatus ListAtomLayers(const std::uint8_t* payload, std::uint64_t available, std::uint64_t payloadSize,
                            AtomKey& key, std::vector<LayerListing>& layers, std::uint64_t& needed,
                            std::string& reason) {
    layers.clear();
    std::vector<TableLayer> tables;
    if (const auto status = ParseTables(payload, available, payloadSize, tables, needed, reason);
        status != LayoutStatus::kListed) {
        return status;
    }
    key = {GetU16(payload), GetU32(payload + 4), static_cast<std::int64_t>(GetU64(payload + 8))};
    for (const TableLayer& table : tables) {
        LayerListing layer;
        layer.typeGuid = KelCommon::Guid(table.type);
        layer.purposeGuid = KelCommon::Guid(table.purpose);
        layer.version = table.version;
        for (const TableBlob& blob : table.blobs) {
            layer.blobBytes += blob.originalSize;
            layer.storedBlobBytes += blob.storedSize;
        }
        layers.push_back(std::move(layer));
    }
    return LayoutStatus::kListed;
}

std::shared_ptr<Atom> DecodeAtomRecord(const std::shared_ptr<const void>& owner, const std::uint8_t* payload,
                                       std::uint64_t payloadSize, std::string& reason) {
    std::vector<TableLayer> tables;
    std::uint64_t needed = 0;
    if (ParseTables(payload, payloadSize, payloadSize, tables, needed, reason) != LayoutStatus::kListed) {
        return nullptr;
    }
    std::vector<ParsedLayer> layers(tables.size());
    std::vector<PendingBlob> pending;
    for (std::size_t i = 0; i < tables.size(); ++i) {
        ParsedLayer& layer = layers[i];
        layer.type = tables[i].type;
        layer.purpose = tables[i].purpose;
        layer.version = tables[i].version;
        layer.fields = payload + tables[i].fieldsOffset;
        layer.fieldsSize = tables[i].fieldsSize;
        for (const TableBlob& blob : tables[i].blobs) {
            if (blob.coding.codec != CompressionCodec::kNone) {
                PendingBlob p;
                p.layer = i;
                p.index = layer.blobs.size();
                p.stored = payload + blob.offset;
                p.storedSize = blob.storedSize;
                p.originalSize = blob.originalSize;
                p.coding = blob.coding;
                pending.push_back(std::move(p));
                layer.blobs.emplace_back();
                continue;
            }
            layer.blobs.push_back(blob.storedSize == 0
                                      ? KelCommon::SharedBuffer{}
                                      : KelCommon::SharedBuffer::Alias(owner, payload + blob.offset, blob.storedSize));
        }
    }
    if (!pending.empty() && !InflateBlobs(pending, layers, reason)) {
        return nullptr;
    }

    auto atom =
        std::make_shared<Atom>(GetU16(payload), GetU32(payload + 4), static_cast<std::int64_t>(GetU64(payload + 8)));
    atom->SetId(GetU32(payload + 16));
    const auto& registry = DataLayerRegistry::Instance();
    for (std::size_t i = 0; i < layers.size(); ++i) {
        ParsedLayer& parsed = layers[i];
        auto layer = registry.Decode(KelCommon::Guid(parsed.type), KelCommon::Guid(parsed.purpose), parsed.version,
                                     parsed.fields, parsed.fieldsSize, std::move(parsed.blobs));
        if (!layer) {
            reason = "layer " + std::to_string(i) + " of type " + KelCommon::Guid(parsed.type).ToString().str() +
                     " does not decode";
            return nullptr;
        }
        atom->AddDataLayer(layer, true);
    }
    return atom;
}

}  // namespace KEL::container
