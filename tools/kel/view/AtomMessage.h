#pragma once

#include <KEL/Atom.h>

#include <cstdint>
#include <string>

namespace KelView {

// Where an atom message's atom sits in its take.
struct AtomPlace {
    std::uint32_t take = 0;
    std::uint16_t stream = 0;
    std::uint32_t frame = 0;  // the take's frame position
};

// The binary answer to /api/atom: a little-endian u32 length, a JSON header
// of that length, zero padding to a multiple of 16, then the blobs (pixels,
// vertices, indices, texture coordinates), each at a multiple of 16 from the
// start of the blob section, as the header's "offset" and "bytes" say. The
// payloads are copied once, into the message; the page views them in place.
std::string EncodeAtomMessage(const AtomPlace& place, const KEL::Atom& atom);

// The message of an atom that does not read: the header only, with
// "damaged": true and the reason.
std::string EncodeDamagedAtomMessage(const AtomPlace& place, std::uint32_t frameNumber, std::int64_t timeStamp,
                                     const std::string& reason);

}  // namespace KelView
