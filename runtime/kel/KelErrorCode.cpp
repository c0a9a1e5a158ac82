#include <KEL/KelErrorCode.h>

namespace KEL {

const char* KelErrorCodeName(KelErrorCode code) noexcept {
    switch (code) {
        case KEL_OK:
            return "ok";
        case KEL_ERR_NOT_FOUND:
            return "not found";
        case KEL_ERR_ACCESS_DENIED:
            return "access denied";
        case KEL_ERR_IO:
            return "input/output error";
        case KEL_ERR_INVALID:
            return "invalid";
        case KEL_ERR_NOT_A_CONTAINER:
            return "not a container";
        case KEL_ERR_UNSUPPORTED_VERSION:
            return "unsupported version";
        case KEL_ERR_CORRUPT:
            return "damaged beyond recovery";
        case KEL_ERR_DISK_FULL:
            return "disk full";
        case KEL_ERR_FILE_TOO_LARGE:
            return "file too large";
        case KEL_ERR_NOT_OPEN:
            return "not open";
        case KEL_ERR_ALREADY_EXISTS:
            return "already exists";
        case KEL_ERR_EXCEPTION:
            return "exception";
        case KEL_ERR_PLUGIN:
            return "plugin error";
        case KEL_ERR_GRAPH:
            return "graph error";
        case KEL_ERR_TIMEOUT:
            return "timed out";
        default:
            return "error";
    }
}

}  // namespace KEL
