#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/Logger.h>

#include <memory>

namespace KEL {

// The process's logger. Filters take a shared handle per message
// (`if (auto log = GetKELLoggerInstance().lock()) log->LogMessage(...)`), so a
// host that removes the logger silences them without dangling pointers.
KEL_API std::weak_ptr<KelCommon::Logger> GetKELLoggerInstance();
// Replaces the process's logger; nullptr removes it.
KEL_API void SetKELLoggerInstance(std::shared_ptr<KelCommon::Logger> logger);

}  // namespace KEL
