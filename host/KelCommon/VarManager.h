#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/String.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace KelCommon {

// Process-wide variables used in paths and parameter values.
//
// Syntax understood by translateFromVars:
//   ${NAME}  the value of variable NAME; NAME is letters, digits and '_'.
//   $$       a literal '$'.
// Lookup order for NAME: variables set with setVar, then "ROOT" (the root
// value), then the process environment. An unknown variable, an unterminated
// "${" or an invalid name is left in the text exactly as written, so a typo
// is visible in the resulting path rather than silently removed.
//
// The root value is the base directory of default paths. It is the value of
// the environment variable KEL_ROOT when set and non-empty, otherwise the
// current working directory at the time of first use; setRootValue changes it.
//
// All members are safe to call from any thread.
class KEL_API VarManager {
public:
    static VarManager& getInstance();

    String getRootValue() const;
    void setRootValue(const String& root);

    void setVar(const std::string& name, const std::string& value);
    void unsetVar(const std::string& name);
    std::optional<std::string> getVar(const std::string& name) const;

    String translateFromVars(const char* text) const;

private:
    VarManager();
    mutable std::mutex mutex_;
    std::string root_;
    std::map<std::string, std::string> vars_;
};

}  // namespace KelCommon
