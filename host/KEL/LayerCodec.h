#pragma once

#include <KelCommon/Guid.h>
#include <KelCommon/SharedBuffer.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace KEL {

// What a blob holds, so that a serializer that compresses can prepare it
// for the codec (floats and pixels compress far better with their bytes
// regrouped). Only a hint for writing: a reader finds how each blob was
// stored in the file.
enum class BlobKind : std::uint8_t {
    kBytes,        // anything
    kFloat32,      // little-endian 32-bit floats (vertices, texture coordinates)
    kIndices32,    // 32-bit unsigned integers that mostly grow (triangle indices)
    kPixelsRGBA8,  // 8-bit RGBA pixels, row by row
};

// Encoding of a data layer's own content for the container file.
//
// A layer writes two things: a small "fields" block (numbers and strings,
// little-endian, explicit sizes) and a list of blobs (its large payloads:
// pixels, vertices, attachments). The serializer stores the blobs apart from
// the fields so that it can write them straight from the layer's buffers and
// the reader can hand them back as views of the mapped file, without copying.
class LayerEncoder {
public:
    void PutU8(std::uint8_t v) { fields_.push_back(v); }
    void PutU16(std::uint16_t v) { PutLE(v, 2); }
    void PutU32(std::uint32_t v) { PutLE(v, 4); }
    void PutU64(std::uint64_t v) { PutLE(v, 8); }
    void PutI64(std::int64_t v) { PutLE(static_cast<std::uint64_t>(v), 8); }
    void PutF32(float v) {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &v, 4);
        PutU32(bits);
    }
    void PutF64(double v) {
        std::uint64_t bits = 0;
        std::memcpy(&bits, &v, 8);
        PutU64(bits);
    }
    void PutString(std::string_view s) {
        PutU32(static_cast<std::uint32_t>(s.size()));
        fields_.insert(fields_.end(), s.begin(), s.end());
    }
    void PutGuid(const KelCommon::Guid& g) { fields_.insert(fields_.end(), g.Bytes().begin(), g.Bytes().end()); }
    // Appends a blob; the fields only record its index.
    void PutBlob(const KelCommon::SharedBuffer& blob, BlobKind kind = BlobKind::kBytes) {
        PutU32(static_cast<std::uint32_t>(blobs_.size()));
        blobs_.push_back(blob);
        kinds_.push_back(kind);
    }

    // For layers that carry content encoded elsewhere (unknown types kept
    // verbatim): raw field bytes, and blobs whose indices the raw fields
    // already hold.
    void PutRawFields(const std::vector<std::uint8_t>& bytes) {
        fields_.insert(fields_.end(), bytes.begin(), bytes.end());
    }
    void AddRawBlob(const KelCommon::SharedBuffer& blob) {
        blobs_.push_back(blob);
        kinds_.push_back(BlobKind::kBytes);
    }

    const std::vector<std::uint8_t>& Fields() const noexcept { return fields_; }
    const std::vector<KelCommon::SharedBuffer>& Blobs() const noexcept { return blobs_; }
    // One per blob.
    const std::vector<BlobKind>& BlobKinds() const noexcept { return kinds_; }

private:
    void PutLE(std::uint64_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            fields_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        }
    }
    std::vector<std::uint8_t> fields_;
    std::vector<KelCommon::SharedBuffer> blobs_;
    std::vector<BlobKind> kinds_;
};

// Reads what LayerEncoder wrote. Every read is bounds-checked: reading past
// the end, a string longer than what is left, or a blob index that does not
// exist sets the failure flag and yields zero or empty values, never an
// out-of-bounds access. Decoders check Ok() at the end.
class LayerDecoder {
public:
    LayerDecoder(const std::uint8_t* fields, std::size_t size, std::vector<KelCommon::SharedBuffer> blobs)
        : p_(fields), end_(fields + size), blobs_(std::move(blobs)) {}

    std::uint8_t GetU8() { return static_cast<std::uint8_t>(GetLE(1)); }
    std::uint16_t GetU16() { return static_cast<std::uint16_t>(GetLE(2)); }
    std::uint32_t GetU32() { return static_cast<std::uint32_t>(GetLE(4)); }
    std::uint64_t GetU64() { return GetLE(8); }
    std::int64_t GetI64() { return static_cast<std::int64_t>(GetLE(8)); }
    float GetF32() {
        const std::uint32_t bits = GetU32();
        float v = 0;
        std::memcpy(&v, &bits, 4);
        return v;
    }
    double GetF64() {
        const std::uint64_t bits = GetU64();
        double v = 0;
        std::memcpy(&v, &bits, 8);
        return v;
    }
    std::string GetString() {
        const std::uint32_t n = GetU32();
        if (!Need(n)) {
            return {};
        }
        std::string s(reinterpret_cast<const char*>(p_), n);
        p_ += n;
        return s;
    }
    KelCommon::Guid GetGuid() {
        std::array<std::uint8_t, KelCommon::Guid::kSize> b{};
        if (Need(b.size())) {
            std::memcpy(b.data(), p_, b.size());
            p_ += b.size();
        }
        return KelCommon::Guid(b);
    }
    KelCommon::SharedBuffer GetBlob() {
        const std::uint32_t index = GetU32();
        if (!ok_ || index >= blobs_.size()) {
            ok_ = false;
            return {};
        }
        return blobs_[index];
    }
    // Marks the content as malformed (for checks a decoder makes itself).
    void Fail() noexcept { ok_ = false; }
    bool Ok() const noexcept { return ok_; }
    std::size_t Remaining() const noexcept { return ok_ ? static_cast<std::size_t>(end_ - p_) : 0; }

private:
    bool Need(std::size_t n) {
        if (!ok_ || static_cast<std::size_t>(end_ - p_) < n) {
            ok_ = false;
            return false;
        }
        return true;
    }
    std::uint64_t GetLE(int bytes) {
        if (!Need(static_cast<std::size_t>(bytes))) {
            return 0;
        }
        std::uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) {
            v |= static_cast<std::uint64_t>(p_[i]) << (8 * i);
        }
        p_ += bytes;
        return v;
    }
    const std::uint8_t* p_;
    const std::uint8_t* end_;
    std::vector<KelCommon::SharedBuffer> blobs_;
    bool ok_ = true;
};

}  // namespace KEL
