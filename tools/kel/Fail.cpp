#include <iostream>

#include "Command.h"

namespace KelTool {

int Fail(const std::string& message) {
    std::cerr << "kel: error: " << message << "\n";
    return kExitFailure;
}

std::string OpenFailureReason(const KEL::ReadKEL2File& reader, KEL::KelErrorCode code) {
    return reader.GetLastError().empty() ? KEL::KelErrorCodeName(code) : reader.GetLastError();
}

std::string CannotOpen(const std::string& path, const KEL::ReadKEL2File& reader, KEL::KelErrorCode code) {
    return "cannot open '" + path + "': " + OpenFailureReason(reader, code);
}

}  // namespace KelTool
