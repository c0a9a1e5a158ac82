#pragma once

#include <KelCommon/Export.h>

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace KelCommon {

// The host's string type. A thin value wrapper over std::string so that host
// signatures stay stable; it converts implicitly from C strings and
// std::string and back to std::string.
class KEL_API String {
public:
    String() = default;
    String(const char* text) : value_(text != nullptr ? text : "") {}  // NOLINT(google-explicit-constructor)
    String(std::string text) : value_(std::move(text)) {}              // NOLINT(google-explicit-constructor)
    String(std::string_view text) : value_(text) {}                    // NOLINT(google-explicit-constructor)

    const char* c_str() const noexcept { return value_.c_str(); }
    const std::string& str() const noexcept { return value_; }
    operator const std::string&() const noexcept { return value_; }  // NOLINT(google-explicit-constructor)
    std::size_t size() const noexcept { return value_.size(); }
    bool empty() const noexcept { return value_.empty(); }

    friend bool operator==(const String& a, const String& b) noexcept { return a.value_ == b.value_; }
    friend bool operator==(const String& a, const char* b) noexcept { return a.value_ == (b != nullptr ? b : ""); }
    friend auto operator<=>(const String& a, const String& b) noexcept { return a.value_ <=> b.value_; }
    friend std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.value_; }

private:
    std::string value_;
};

}  // namespace KelCommon

template <>
struct std::hash<KelCommon::String> {
    std::size_t operator()(const KelCommon::String& s) const noexcept { return std::hash<std::string>{}(s.str()); }
};
