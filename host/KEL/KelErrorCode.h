#pragma once

#include <cstdint>

namespace KEL {

// The host's 32-bit result code: 0 is success, anything else a failure.
using KelErrorCode = std::uint32_t;

enum KelErrorCodes : KelErrorCode {
    KEL_OK = 0,
    KEL_ERR_NOT_FOUND = 1,            // a file or directory does not exist
    KEL_ERR_ACCESS_DENIED = 2,        // exists but cannot be opened (permissions)
    KEL_ERR_IO = 3,                   // an input/output error from the system
    KEL_ERR_INVALID = 4,              // validation failure: bad value, bad state, bad data
    KEL_ERR_NOT_A_CONTAINER = 5,      // the file is not a KEL2 container
    KEL_ERR_UNSUPPORTED_VERSION = 6,  // a container of a format version this host cannot read
    KEL_ERR_CORRUPT = 7,              // a container damaged beyond recovery
    KEL_ERR_DISK_FULL = 8,            // no space left on the device
    KEL_ERR_FILE_TOO_LARGE = 9,       // the file size limit was reached
    KEL_ERR_NOT_OPEN = 10,            // a serializer whose file is not open (failed or closed)
    KEL_ERR_ALREADY_EXISTS = 11,      // refusing to replace an existing file
    KEL_ERR_EXCEPTION = 12,           // a filter threw an exception out of a hook
    KEL_ERR_PLUGIN = 13,              // a library could not be loaded as a plugin
    KEL_ERR_GRAPH = 14,               // the graph is not set up for the requested operation
    KEL_ERR_TIMEOUT = 15,             // a target was not done when the run's time-out passed
};

// Short English name of a code, for messages ("not found", "corrupt", ...).
const char* KelErrorCodeName(KelErrorCode code) noexcept;

}  // namespace KEL
