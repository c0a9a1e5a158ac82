#include "container/BlobCoding.h"

#include <zstd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace KEL::container {

namespace {

struct CCtxFree {
    void operator()(ZSTD_CCtx* c) const { ZSTD_freeCCtx(c); }
};
struct DCtxFree {
    void operator()(ZSTD_DCtx* d) const { ZSTD_freeDCtx(d); }
};

// One compression and one decompression context per thread, and the
// scratch the filters need: contexts are costly to make and hold no state
// between calls.
ZSTD_CCtx* ThreadCCtx() {
    thread_local std::unique_ptr<ZSTD_CCtx, CCtxFree> cctx(ZSTD_createCCtx());
    return cctx.get();
}
ZSTD_DCtx* ThreadDCtx() {
    thread_local std::unique_ptr<ZSTD_DCtx, DCtxFree> dctx(ZSTD_createDCtx());
    return dctx.get();
}
std::uint8_t* Scratch(std::size_t size) {
    thread_local std::vector<std::uint8_t> scratch;
    if (scratch.size() < size) {
        scratch.resize(size);
    }
    return scratch.data();
}

void Shuffle(const std::uint8_t* in, std::size_t size, unsigned es, std::uint8_t* out) {
    const std::size_t n = size / es;
    if (es == 4) {  // pixels and floats: one 32-bit load per element
        for (std::size_t i = 0; i < n; ++i) {
            std::uint32_t w = 0;
            std::memcpy(&w, in + i * 4, 4);
            out[i] = static_cast<std::uint8_t>(w);
            out[n + i] = static_cast<std::uint8_t>(w >> 8);
            out[2 * n + i] = static_cast<std::uint8_t>(w >> 16);
            out[3 * n + i] = static_cast<std::uint8_t>(w >> 24);
        }
        std::memcpy(out + n * 4, in + n * 4, size - n * 4);
        return;
    }
    for (unsigned b = 0; b < es; ++b) {
        std::uint8_t* plane = out + b * n;
        const std::uint8_t* src = in + b;
        for (std::size_t i = 0; i < n; ++i) {
            plane[i] = src[i * es];
        }
    }
    std::memcpy(out + n * es, in + n * es, size - n * es);
}

void Unshuffle(const std::uint8_t* in, std::size_t size, unsigned es, std::uint8_t* out) {
    const std::size_t n = size / es;
    if (es == 4) {  // one 32-bit store per element
        for (std::size_t i = 0; i < n; ++i) {
            const std::uint32_t w = std::uint32_t{in[i]} | std::uint32_t{in[n + i]} << 8 |
                                    std::uint32_t{in[2 * n + i]} << 16 | std::uint32_t{in[3 * n + i]} << 24;
            std::memcpy(out + i * 4, &w, 4);
        }
        std::memcpy(out + n * 4, in + n * 4, size - n * 4);
        return;
    }
    for (unsigned b = 0; b < es; ++b) {
        const std::uint8_t* plane = in + b * n;
        std::uint8_t* dst = out + b;
        for (std::size_t i = 0; i < n; ++i) {
            dst[i * es] = plane[i];
        }
    }
    std::memcpy(out + n * es, in + n * es, size - n * es);
}

template <class T>
void DeltaOf(std::uint8_t* data, std::size_t size) {
    const std::size_t n = size / sizeof(T);
    T previous = 0;
    for (std::size_t i = 0; i < n; ++i) {
        T value;
        std::memcpy(&value, data + i * sizeof(T), sizeof(T));
        const T delta = static_cast<T>(value - previous);
        std::memcpy(data + i * sizeof(T), &delta, sizeof(T));
        previous = value;
    }
}

template <class T>
void SumOf(std::uint8_t* data, std::size_t size) {
    const std::size_t n = size / sizeof(T);
    T running = 0;
    for (std::size_t i = 0; i < n; ++i) {
        T delta;
        std::memcpy(&delta, data + i * sizeof(T), sizeof(T));
        running = static_cast<T>(running + delta);
        std::memcpy(data + i * sizeof(T), &running, sizeof(T));
    }
}

// Byte-wise delta and running sum, 16 bytes at a time where SSE2 is there:
// the running sum of a vector is four shifted additions, plus the last byte
// of the vector before; a byte-serial loop is several times slower and was
// a third of the decoding time of a compressed image.
void ByteDelta(std::uint8_t* data, std::size_t size) {
    std::size_t i = 0;
    std::uint8_t last = 0;  // the original byte before data[i]
#if defined(__SSE2__)
    __m128i previous = _mm_setzero_si128();
    for (; i + 16 <= size; i += 16) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        const __m128i before = _mm_or_si128(_mm_slli_si128(x, 1), _mm_srli_si128(previous, 15));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(data + i), _mm_sub_epi8(x, before));
        previous = x;
    }
    last = static_cast<std::uint8_t>(_mm_cvtsi128_si32(_mm_srli_si128(previous, 15)));
#endif
    for (; i < size; ++i) {
        const std::uint8_t value = data[i];
        data[i] = static_cast<std::uint8_t>(value - last);
        last = value;
    }
}

#if defined(__SSE2__)
// The running byte sum of a vector, plus `carry` (the sum before it in every
// byte): four shifted additions.
__m128i PrefixSum(__m128i x, __m128i carry) {
    x = _mm_add_epi8(x, _mm_slli_si128(x, 1));
    x = _mm_add_epi8(x, _mm_slli_si128(x, 2));
    x = _mm_add_epi8(x, _mm_slli_si128(x, 4));
    x = _mm_add_epi8(x, _mm_slli_si128(x, 8));
    return _mm_add_epi8(x, carry);
}

// The last byte of a vector in all its bytes, without a round trip through
// memory (a store and a load of the byte stall on each other).
__m128i LastByteEverywhere(__m128i x) {
    return _mm_shuffle_epi32(_mm_shufflehi_epi16(_mm_unpackhi_epi8(x, x), 0xFF), 0xFF);
}
#endif

void ByteSum(std::uint8_t* data, std::size_t size) {
    std::size_t i = 0;
    std::uint8_t running = 0;
#if defined(__SSE2__)
    __m128i carry = _mm_setzero_si128();
    for (; i + 16 <= size; i += 16) {
        const __m128i x = PrefixSum(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i)), carry);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(data + i), x);
        carry = LastByteEverywhere(x);
    }
    running = static_cast<std::uint8_t>(_mm_cvtsi128_si32(carry));
#endif
    for (; i < size; ++i) {
        running = static_cast<std::uint8_t>(running + data[i]);
        data[i] = running;
    }
}

// The sum of `size` bytes, modulo 256.
std::uint8_t ByteTotal(const std::uint8_t* data, std::size_t size) {
    std::size_t i = 0;
    std::uint64_t total = 0;
#if defined(__SSE2__)
    __m128i sums = _mm_setzero_si128();
    for (; i + 16 <= size; i += 16) {
        sums = _mm_add_epi64(
            sums, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i)), _mm_setzero_si128()));
    }
    total = static_cast<std::uint64_t>(_mm_cvtsi128_si64(sums)) +
            static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
#endif
    for (; i < size; ++i) {
        total += data[i];
    }
    return static_cast<std::uint8_t>(total);
}

// Undoes kShuffleDelta of 4-byte elements in one pass from `in` to `out`,
// the decoding of every compressed image and float array. The byte delta
// ran over the whole shuffled piece, so each plane's running sum starts
// where the planes before it ended: their byte totals, summed first (a fast
// pass), give each plane its start. Then 16 elements at a time: the four
// planes' running sums side by side, interleaved back into elements.
void UndoShuffleDelta4(const std::uint8_t* in, std::size_t size, std::uint8_t* out) {
    const std::size_t n = size / 4;
    std::array<std::uint8_t, 4> running{};
    for (std::size_t b = 1; b < 4; ++b) {
        running[b] = static_cast<std::uint8_t>(running[b - 1] + ByteTotal(in + (b - 1) * n, n));
    }
    std::size_t i = 0;
#if defined(__SSE2__)
    __m128i carry0 = _mm_set1_epi8(static_cast<char>(running[0]));
    __m128i carry1 = _mm_set1_epi8(static_cast<char>(running[1]));
    __m128i carry2 = _mm_set1_epi8(static_cast<char>(running[2]));
    __m128i carry3 = _mm_set1_epi8(static_cast<char>(running[3]));
    const auto sum = [&](std::size_t b, __m128i& carry) {
        const __m128i x = PrefixSum(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + b * n + i)), carry);
        carry = LastByteEverywhere(x);
        return x;
    };
    for (; i + 16 <= n; i += 16) {
        const __m128i plane0 = sum(0, carry0);
        const __m128i plane1 = sum(1, carry1);
        const __m128i plane2 = sum(2, carry2);
        const __m128i plane3 = sum(3, carry3);
        const __m128i low01 = _mm_unpacklo_epi8(plane0, plane1);
        const __m128i high01 = _mm_unpackhi_epi8(plane0, plane1);
        const __m128i low23 = _mm_unpacklo_epi8(plane2, plane3);
        const __m128i high23 = _mm_unpackhi_epi8(plane2, plane3);
        auto* to = reinterpret_cast<__m128i*>(out + 4 * i);
        _mm_storeu_si128(to, _mm_unpacklo_epi16(low01, low23));
        _mm_storeu_si128(to + 1, _mm_unpackhi_epi16(low01, low23));
        _mm_storeu_si128(to + 2, _mm_unpacklo_epi16(high01, high23));
        _mm_storeu_si128(to + 3, _mm_unpackhi_epi16(high01, high23));
    }
    running = {
        static_cast<std::uint8_t>(_mm_cvtsi128_si32(carry0)), static_cast<std::uint8_t>(_mm_cvtsi128_si32(carry1)),
        static_cast<std::uint8_t>(_mm_cvtsi128_si32(carry2)), static_cast<std::uint8_t>(_mm_cvtsi128_si32(carry3))};
#endif
    for (; i < n; ++i) {
        for (std::size_t b = 0; b < 4; ++b) {
            running[b] = static_cast<std::uint8_t>(running[b] + in[b * n + i]);
            out[4 * i + b] = running[b];
        }
    }
    // Bytes past the last whole element continue the sum after the planes.
    for (std::size_t k = 4 * n; k < size; ++k) {
        running[3] = static_cast<std::uint8_t>(running[3] + in[k]);
        out[k] = running[3];
    }
}

// Calls `f` with a value of the unsigned type of `es` bytes (2, 4 or 8).
template <class F>
void WithWidth(unsigned es, F&& f) {
    switch (es) {
        case 2:
            f(std::uint16_t{});
            break;
        case 4:
            f(std::uint32_t{});
            break;
        default:
            f(std::uint64_t{});
            break;
    }
}

void Delta(unsigned es, std::uint8_t* data, std::size_t size) {
    if (es == 1) {
        ByteDelta(data, size);
        return;
    }
    WithWidth(es, [&](auto width) { DeltaOf<decltype(width)>(data, size); });
}

void Sum(unsigned es, std::uint8_t* data, std::size_t size) {
    if (es == 1) {
        ByteSum(data, size);
        return;
    }
    WithWidth(es, [&](auto width) { SumOf<decltype(width)>(data, size); });
}

bool IsDeltaWidth(unsigned es) { return es == 1 || es == 2 || es == 4 || es == 8; }

}  // namespace

BlobCoding CodingFor(BlobKind kind, CompressionCodec codec) {
    BlobCoding coding;
    coding.codec = codec;
    coding.chunkSize = kCompressionChunkSize;
    switch (kind) {
        case BlobKind::kFloat32:
            coding.filter = BlobFilter::kShuffleDelta;
            coding.elementSize = 4;
            break;
        case BlobKind::kIndices32:
            coding.filter = BlobFilter::kDeltaShuffle;
            coding.elementSize = 4;
            break;
        case BlobKind::kPixelsRGBA8:
            coding.filter = BlobFilter::kShuffleDelta;
            coding.elementSize = 4;
            break;
        case BlobKind::kBytes:
            break;
    }
    return coding;
}

bool CodingSupported(const BlobCoding& coding, std::string& why) {
    if (coding.codec != CompressionCodec::kNone && coding.codec != CompressionCodec::kZstd) {
        why = "blob stored with codec " + std::to_string(static_cast<unsigned>(coding.codec)) +
              ", which this reader does not know (written by a newer host)";
        return false;
    }
    if (static_cast<unsigned>(coding.filter) > static_cast<unsigned>(BlobFilter::kShuffleDelta)) {
        why = "blob stored with filter " + std::to_string(static_cast<unsigned>(coding.filter)) +
              ", which this reader does not know (written by a newer host)";
        return false;
    }
    if (coding.codec == CompressionCodec::kNone) {
        return true;
    }
    if (coding.elementSize == 0 || coding.elementSize > 16 ||
        (coding.filter == BlobFilter::kDeltaShuffle && !IsDeltaWidth(coding.elementSize))) {
        why = "blob filter with element size " + std::to_string(coding.elementSize);
        return false;
    }
    if (coding.chunkSize == 0 || coding.chunkSize > (64U << 20) || coding.chunkSize % coding.elementSize != 0) {
        why = "blob pieces of " + std::to_string(coding.chunkSize) + " bytes";
        return false;
    }
    return true;
}

void ApplyFilter(BlobFilter filter, unsigned elementSize, const std::uint8_t* in, std::size_t size, std::uint8_t* out) {
    if (size == 0) {
        return;  // an empty buffer may have no address at all
    }
    switch (filter) {
        case BlobFilter::kNone:
            std::memcpy(out, in, size);
            break;
        case BlobFilter::kShuffle:
            Shuffle(in, size, elementSize, out);
            break;
        case BlobFilter::kDeltaShuffle: {
            std::uint8_t* tmp = Scratch(size);
            std::memcpy(tmp, in, size);
            Delta(elementSize, tmp, size);
            Shuffle(tmp, size, elementSize, out);
            break;
        }
        case BlobFilter::kShuffleDelta:
            Shuffle(in, size, elementSize, out);
            Delta(1, out, size);
            break;
    }
}

void UndoFilter(BlobFilter filter, unsigned elementSize, const std::uint8_t* in, std::size_t size, std::uint8_t* out) {
    if (size == 0) {
        return;  // an empty buffer may have no address at all
    }
    switch (filter) {
        case BlobFilter::kNone:
            std::memcpy(out, in, size);
            break;
        case BlobFilter::kShuffle:
            Unshuffle(in, size, elementSize, out);
            break;
        case BlobFilter::kDeltaShuffle:
            Unshuffle(in, size, elementSize, out);
            Sum(elementSize, out, size);
            break;
        case BlobFilter::kShuffleDelta: {
            if (elementSize == 4) {
                UndoShuffleDelta4(in, size, out);
                break;
            }
            std::uint8_t* tmp = Scratch(size);
            std::memcpy(tmp, in, size);
            Sum(1, tmp, size);
            Unshuffle(tmp, size, elementSize, out);
            break;
        }
    }
}

bool CompressPiece(const std::uint8_t* data, std::size_t size, const BlobCoding& coding, int level,
                   std::vector<std::uint8_t>& out, std::string& why) {
    const std::uint8_t* source = data;
    if (coding.filter != BlobFilter::kNone) {
        thread_local std::vector<std::uint8_t> buffer;
        if (buffer.size() < size) {
            buffer.resize(size);
        }
        ApplyFilter(coding.filter, coding.elementSize, data, size, buffer.data());
        source = buffer.data();
    }
    out.resize(ZSTD_compressBound(size));
    const std::size_t n = ZSTD_compressCCtx(ThreadCCtx(), out.data(), out.size(), source, size, level);
    if (ZSTD_isError(n) != 0U) {
        why = std::string("zstd: ") + ZSTD_getErrorName(n);
        return false;
    }
    out.resize(n);
    return true;
}

bool FindPieces(const std::uint8_t* stored, std::size_t storedSize, std::uint64_t originalSize,
                const BlobCoding& coding, std::vector<StoredPiece>& pieces, std::string& why) {
    pieces.clear();
    const std::uint64_t expected = (originalSize + coding.chunkSize - 1) / coding.chunkSize;
    std::size_t pos = 0;
    for (std::uint64_t i = 0; i < expected; ++i) {
        if (pos >= storedSize) {
            why = "compressed blob holds " + std::to_string(i) + " of its " + std::to_string(expected) + " pieces";
            return false;
        }
        const std::size_t frame = ZSTD_findFrameCompressedSize(stored + pos, storedSize - pos);
        if (ZSTD_isError(frame) != 0U) {
            why = "compressed blob piece " + std::to_string(i) + ": " + ZSTD_getErrorName(frame);
            return false;
        }
        const std::uint64_t want = std::min<std::uint64_t>(coding.chunkSize, originalSize - i * coding.chunkSize);
        if (ZSTD_getFrameContentSize(stored + pos, frame) != want) {
            why = "compressed blob piece " + std::to_string(i) + " does not declare its size of " +
                  std::to_string(want) + " bytes";
            return false;
        }
        pieces.push_back({pos, frame});
        pos += frame;
    }
    if (pos != storedSize) {
        why = "compressed blob has " + std::to_string(storedSize - pos) + " bytes after its last piece";
        return false;
    }
    return true;
}

bool DecompressPiece(const std::uint8_t* piece, std::size_t pieceSize, const BlobCoding& coding, std::uint8_t* out,
                     std::size_t size, std::string& why) {
    std::uint8_t* target = out;
    if (coding.filter != BlobFilter::kNone) {
        thread_local std::vector<std::uint8_t> buffer;
        if (buffer.size() < size) {
            buffer.resize(size);
        }
        target = buffer.data();
    }
    const std::size_t n = ZSTD_decompressDCtx(ThreadDCtx(), target, size, piece, pieceSize);
    if (ZSTD_isError(n) != 0U) {
        why = std::string("compressed blob piece does not decode: ") + ZSTD_getErrorName(n);
        return false;
    }
    if (n != size) {
        why = "compressed blob piece decodes to " + std::to_string(n) + " bytes instead of " + std::to_string(size);
        return false;
    }
    if (coding.filter != BlobFilter::kNone) {
        UndoFilter(coding.filter, coding.elementSize, target, size, out);
    }
    return true;
}

}  // namespace KEL::container
