#include "container/AtomRecord.h"

#include <KEL/DataLayerRegistry.h>
#include <KEL/LayerCodec.h>

#include <cstring>
#include <limits>

#include "container/ContainerFormat.h"

namespace KEL::container {

namespace {

constexpr std::array<std::uint8_t, kBlobAlignment> kZeros{};

struct EncodedLayer {
    const DataLayer* layer = nullptr;
    std::vector<std::uint8_t> fields;
    std::vector<KelCommon::SharedBuffer> blobs;
};

}  // namespace

KelErrorCode EncodeAtomRecord(const Atom& atom, std::uint64_t recordOffset, std::uint64_t fileId,
                              EncodedAtomRecord& out, std::string& error) {
    const AtomKey key{atom.GetStreamId(), atom.GetFrameNr(), atom.GetTimeStamp()};
    out.key = key;
    out.layers = atom.GetAllDataLayers();
    const auto& layers = out.layers;
    if (layers.size() > std::numeric_limits<std::uint32_t>::max()) {
        error = "too many layers";
        return KEL_ERR_INVALID;
    }
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
        EncodedLayer e{layer.get(), encoder.Fields(), encoder.Blobs()};
        if (e.fields.size() > std::numeric_limits<std::uint32_t>::max() ||
            e.blobs.size() > std::numeric_limits<std::uint32_t>::max()) {
            error = "layer " + layer->TypeName() + " is too large to store";
            return KEL_ERR_INVALID;
        }
        headSize += kLayerDescriptorSize + AlignUp(e.fields.size(), kRecordAlignment) + kBlobRefSize * e.blobs.size();
        encoded.push_back(std::move(e));
    }

    const std::uint64_t payloadStart = recordOffset + kRecordHeaderSize;
    out.head.assign(headSize, 0);
    out.blobs.clear();
    out.iov.clear();
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
        const KelCommon::SharedBuffer* blob;
    };
    std::vector<Placement> placements;
    std::uint64_t cursor = recordOffset + headSize;
    std::uint8_t* p = meta + kAtomMetaSize;
    for (const auto& e : encoded) {
        const auto& purpose = e.layer->GetPurposeGuid().Bytes();
        const auto& type = e.layer->GetTypeGuid().Bytes();
        std::memcpy(p, type.data(), type.size());
        std::memcpy(p + 16, purpose.data(), purpose.size());
        PutU16(p + 32, e.layer->GetVersion());
        PutU32(p + 36, static_cast<std::uint32_t>(e.blobs.size()));
        PutU32(p + 40, static_cast<std::uint32_t>(e.fields.size()));
        p += kLayerDescriptorSize;
        if (!e.fields.empty()) {
            std::memcpy(p, e.fields.data(), e.fields.size());
        }
        p += AlignUp(e.fields.size(), kRecordAlignment);
        for (const auto& blob : e.blobs) {
            const std::uint64_t start = AlignUp(cursor, kBlobAlignment);
            PutU64(p, start - payloadStart);
            PutU64(p + 8, blob.size());
            p += kBlobRefSize;
            placements.push_back({start - cursor, &blob});
            cursor = start + blob.size();
            out.blobs.push_back(blob);
        }
    }
    const std::uint64_t end = AlignUp(cursor, kRecordAlignment);

    out.iov.push_back({out.head.data(), out.head.size()});
    PayloadHasher hasher(payloadStart);
    hasher.Update(out.head.data() + kRecordHeaderSize, out.head.size() - kRecordHeaderSize);
    auto* zeros = const_cast<std::uint8_t*>(kZeros.data());
    for (const auto& placement : placements) {
        if (placement.padding != 0) {
            out.iov.push_back({zeros, placement.padding});
            hasher.Update(zeros, placement.padding);
        }
        if (!placement.blob->empty()) {
            out.iov.push_back({const_cast<std::uint8_t*>(placement.blob->data()), placement.blob->size()});
            hasher.Update(placement.blob->data(), placement.blob->size());
        }
    }
    if (end != cursor) {
        out.iov.push_back({zeros, end - cursor});
        hasher.Update(zeros, end - cursor);
    }

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

std::shared_ptr<Atom> DecodeAtomRecord(const std::shared_ptr<const void>& owner, const std::uint8_t* payload,
                                       std::uint64_t payloadSize, std::string& reason) {
    if (payloadSize < kAtomMetaSize) {
        reason = "atom record too short";
        return nullptr;
    }
    const std::uint32_t numLayers = GetU32(payload + 20);
    if (numLayers > (payloadSize - kAtomMetaSize) / kLayerDescriptorSize) {
        reason = "layer count exceeds the record";
        return nullptr;
    }
    auto atom =
        std::make_shared<Atom>(GetU16(payload), GetU32(payload + 4), static_cast<std::int64_t>(GetU64(payload + 8)));
    atom->SetId(GetU32(payload + 16));

    const auto& registry = DataLayerRegistry::Instance();
    std::uint64_t pos = kAtomMetaSize;
    for (std::uint32_t i = 0; i < numLayers; ++i) {
        if (payloadSize - pos < kLayerDescriptorSize) {
            reason = "layer descriptor exceeds the record";
            return nullptr;
        }
        const std::uint8_t* d = payload + pos;
        std::array<std::uint8_t, KelCommon::Guid::kSize> type{};
        std::array<std::uint8_t, KelCommon::Guid::kSize> purpose{};
        std::memcpy(type.data(), d, type.size());
        std::memcpy(purpose.data(), d + 16, purpose.size());
        const std::uint16_t version = GetU16(d + 32);
        const std::uint32_t numBlobs = GetU32(d + 36);
        const std::uint32_t fieldsSize = GetU32(d + 40);
        pos += kLayerDescriptorSize;
        const std::uint64_t fieldsSpan = AlignUp(fieldsSize, kRecordAlignment);
        if (payloadSize - pos < fieldsSpan) {
            reason = "layer fields exceed the record";
            return nullptr;
        }
        const std::uint8_t* fields = payload + pos;
        pos += fieldsSpan;
        if (numBlobs > (payloadSize - pos) / kBlobRefSize) {
            reason = "blob table exceeds the record";
            return nullptr;
        }
        std::vector<KelCommon::SharedBuffer> blobs;
        blobs.reserve(numBlobs);
        for (std::uint32_t b = 0; b < numBlobs; ++b) {
            const std::uint64_t offset = GetU64(payload + pos);
            const std::uint64_t size = GetU64(payload + pos + 8);
            pos += kBlobRefSize;
            if (offset > payloadSize || size > payloadSize - offset) {
                reason = "blob exceeds the record";
                return nullptr;
            }
            blobs.push_back(size == 0 ? KelCommon::SharedBuffer{}
                                      : KelCommon::SharedBuffer::Alias(owner, payload + offset, size));
        }
        auto layer = registry.Decode(KelCommon::Guid(type), KelCommon::Guid(purpose), version, fields, fieldsSize,
                                     std::move(blobs));
        if (!layer) {
            reason = "layer " + std::to_string(i) + " of type " + KelCommon::Guid(type).ToString().str() +
                     " does not decode";
            return nullptr;
        }
        atom->AddDataLayer(layer, true);
    }
    return atom;
}

LayoutStatus ListAtomLayers(const std::uint8_t* payload, std::uint64_t available, std::uint64_t payloadSize,
                            AtomKey& key, std::vector<LayerListing>& layers, std::uint64_t& needed,
                            std::string& reason) {
    layers.clear();
    // Each step first makes sure that the next `n` bytes from `pos` lie in
    // the payload, then that they were read.
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
    key = {GetU16(payload), GetU32(payload + 4), static_cast<std::int64_t>(GetU64(payload + 8))};
    const std::uint32_t numLayers = GetU32(payload + 20);
    if (numLayers > (payloadSize - kAtomMetaSize) / kLayerDescriptorSize) {
        reason = "layer count exceeds the record";
        return LayoutStatus::kMalformed;
    }
    pos = kAtomMetaSize;
    for (std::uint32_t i = 0; i < numLayers; ++i) {
        if (const auto status = reach(kLayerDescriptorSize, "layer descriptor exceeds the record");
            status != LayoutStatus::kListed) {
            return status;
        }
        const std::uint8_t* d = payload + pos;
        LayerListing layer;
        std::array<std::uint8_t, KelCommon::Guid::kSize> guid{};
        std::memcpy(guid.data(), d, guid.size());
        layer.typeGuid = KelCommon::Guid(guid);
        std::memcpy(guid.data(), d + 16, guid.size());
        layer.purposeGuid = KelCommon::Guid(guid);
        layer.version = GetU16(d + 32);
        const std::uint32_t numBlobs = GetU32(d + 36);
        const std::uint32_t fieldsSize = GetU32(d + 40);
        pos += kLayerDescriptorSize;
        if (AlignUp(fieldsSize, kRecordAlignment) > payloadSize - pos) {
            reason = "layer fields exceed the record";
            return LayoutStatus::kMalformed;
        }
        pos += AlignUp(fieldsSize, kRecordAlignment);
        if (numBlobs > (payloadSize - pos) / kBlobRefSize) {
            reason = "blob table exceeds the record";
            return LayoutStatus::kMalformed;
        }
        if (const auto status = reach(std::uint64_t{numBlobs} * kBlobRefSize, "blob table exceeds the record");
            status != LayoutStatus::kListed) {
            return status;
        }
        for (std::uint32_t b = 0; b < numBlobs; ++b) {
            const std::uint64_t offset = GetU64(payload + pos);
            const std::uint64_t size = GetU64(payload + pos + 8);
            pos += kBlobRefSize;
            if (offset > payloadSize || size > payloadSize - offset) {
                reason = "blob exceeds the record";
                return LayoutStatus::kMalformed;
            }
            layer.blobBytes += size;
        }
        layers.push_back(std::move(layer));
    }
    return LayoutStatus::kListed;
}

}  // namespace KEL::container
