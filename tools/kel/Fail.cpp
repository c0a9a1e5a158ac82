#include <KEL/ContainerSummary.h>

#include <iostream>

#include "Command.h"

namespace KelTool {

int Fail(const std::string& message) {
    std::cerr << "kel: error: " << message << "\n";
    return kExitFailure;
}

std::string CannotOpen(const std::string& path, const KEL::ReadKEL2File& reader, KEL::KelErrorCode code) {
    return "cannot open '" + path + "': " + KEL::OpenFailureReason(reader, code);
}

}  // namespace KelTool
