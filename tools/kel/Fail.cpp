#include <iostream>

#include "Command.h"

namespace KelTool {

int Fail(const std::string& message) {
    std::cerr << "kel: error: " << message << "\n";
    return kExitFailure;
}

}  // namespace KelTool
