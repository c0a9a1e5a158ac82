#pragma once

#include <KelCommon/String.h>

#include <cstddef>
#include <cstdint>

namespace KEL {

// The container's magic text and header length, and the magic of the KEL
// network stream. Units that include this header hold their own copies.
static const KelCommon::String KEL2HeaderString("KEL_Osprey");
static const std::size_t KEL2HeaderSize = KEL2HeaderString.size() + 5;
static const KelCommon::String ZMQHeaderString("KELzmq");

// Container format versions.
enum KELFormatVersion : std::uint16_t {
    KEL_FORMAT_VERSION_2000 = 2000,
    CURRENT_VERSION = KEL_FORMAT_VERSION_2000,
};

}  // namespace KEL
