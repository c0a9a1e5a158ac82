#pragma once

#include <KEL/ContainerSummary.h>
#include <KEL/ContainerVerifier.h>
#include <KEL/ReadKEL2File.h>
#include <KelCommon/Export.h>

#include <nlohmann/json.hpp>
#include <string>

namespace KEL {

// The JSON forms of what the runtime knows about a file, as `kel info
// --json` and `kel verify --json` print them (keys in camelCase, in a fixed
// order). The Python module gives the same objects as dicts with the keys in
// snake_case.
KEL_API nlohmann::ordered_json ToJson(const ContainerDamageReport& damage);
KEL_API nlohmann::ordered_json ToJson(const ContainerSummary& summary);
KEL_API nlohmann::ordered_json ToJson(const ContainerVerification& verification, const std::string& path);

}  // namespace KEL
