#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "container/ContainerFormat.h"
#include "container/ReadableFile.h"

namespace KEL::container {

// Which file a container is: its header, or, when the header is lost, the
// identity its records carry.
struct FileIdentity {
    FileHeaderStatus status = FileHeaderStatus::kNoMagic;
    std::string reason;  // why the header is not valid
    FileHeader header;   // valid header: as read; lost header: the identity found
    // The header was lost and the identity taken from the footer or, failing
    // that, from the records (the identity most of them carry).
    bool fromRecords = false;
    // The checkpoint slots (meaningful with a valid header).
    std::array<std::uint8_t, 2 * kCheckpointSlotSize> slots{};

    // An identity is known: from a valid header or from the records.
    bool Known() const { return header.fileId != 0; }
};

// Reads the file header of a file of `size` bytes. When it is damaged or
// missing, looks for the identity at the end (the footer of a closed file),
// then walks every record header of any identity and takes the identity of
// the most; a file where no record is found has no identity.
FileIdentity IdentifyFile(const ReadableFile& file, std::uint64_t size);

}  // namespace KEL::container
