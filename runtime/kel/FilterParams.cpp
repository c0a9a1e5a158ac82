#include <KEL/Filter.h>
#include <KEL/FilterParams.h>
#include <KEL/KELLogger.h>
#include <KelCommon/VarManager.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <exception>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace KEL {

namespace {

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

void SetError(std::string* error, const std::string& paramName, const std::string& reason) {
    if (error != nullptr) {
        *error = "parameter " + Quote(paramName) + ": " + reason;
    }
}

// Parses the whole of `text` as a decimal integer of type T. On failure
// `reason` says why. Leading '+' and surrounding spaces are not accepted.
template <typename T>
bool ParseDecimal(const std::string& text, T minimum, T maximum, T* out, std::string* reason) {
    const char* first = text.data();
    const char* last = text.data() + text.size();
    T value{};
    const auto [ptr, ec] = std::from_chars(first, last, value, 10);
    if (text.empty() || ec == std::errc::invalid_argument || ptr != last) {
        *reason =
            Quote(text) + (std::is_signed_v<T> ? " is not a decimal integer" : " is not an unsigned decimal integer");
        return false;
    }
    if (ec == std::errc::result_out_of_range || value < minimum || value > maximum) {
        *reason = Quote(text) + " is out of range [" + std::to_string(minimum) + ", " + std::to_string(maximum) + "]";
        return false;
    }
    *out = value;
    return true;
}

std::string Lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Expands variables, makes the path absolute against the current working
// directory and removes "." and ".." components without touching the disk.
std::filesystem::path ExpandPath(const std::string& stored) {
    if (stored.empty()) {
        return {};
    }
    std::filesystem::path path(KelCommon::VarManager::getInstance().translateFromVars(stored.c_str()).str());
    if (path.is_relative()) {
        std::error_code ec;
        const auto cwd = std::filesystem::current_path(ec);
        if (!ec) {
            path = cwd / path;
        }
    }
    return path.lexically_normal();
}

}  // namespace

// FilterParam

const char* FilterParam::GetTypeName() const noexcept {
    switch (type_) {
        case FilterParamType::Bool:
            return "bool";
        case FilterParamType::UInt32:
            return "uint32";
        case FilterParamType::Int64:
            return "int64";
        case FilterParamType::String:
            return "string";
        case FilterParamType::Callback:
            return "callback";
        case FilterParamType::ReadFilePath:
            return "read-file";
        case FilterParamType::WriteFilePath:
            return "write-file";
        case FilterParamType::DirPath:
            return "dir";
    }
    return "unknown";
}

bool FilterParam::SetValueFromString(const std::string& text, std::string* error) {
    if ((flags_ & PARAM_FLAG_STATUS) != 0) {
        SetError(error, name_, "is a status value set by the filter and cannot be set");
        return false;
    }
    return ParseAndSet(text, error);
}

void FilterParam::SetOwner(Filter* owner) {
    std::unique_lock lock(ownerMutex_);
    if (owner_ == owner) {
        return;
    }
    owner_ = owner;
    const std::thread::id self = std::this_thread::get_id();
    callbacksDone_.wait(lock, [&] {
        return std::all_of(callbacksInFlight_.begin(), callbacksInFlight_.end(),
                           [&](const std::thread::id& id) { return id == self; });
    });
}

Filter* FilterParam::GetOwner() const {
    std::lock_guard lock(ownerMutex_);
    return owner_;
}

void FilterParam::NotifyChanged() {
    Filter* owner = nullptr;
    {
        std::lock_guard lock(ownerMutex_);
        owner = owner_;
        if (owner == nullptr) {
            return;
        }
        callbacksInFlight_.push_back(std::this_thread::get_id());
    }
    // Whatever way the callback ends, a thread detaching the owner may go on.
    struct Leave {
        FilterParam* param;
        ~Leave() {
            std::lock_guard lock(param->ownerMutex_);
            auto& inFlight = param->callbacksInFlight_;
            inFlight.erase(std::find(inFlight.begin(), inFlight.end(), std::this_thread::get_id()));
            param->callbacksDone_.notify_all();
        }
    } leave{this};
    // The owner's callback runs on the changing thread, which may be a
    // user's or a tool's; an exception must not unwind through their SetValue.
    try {
        owner->cbiParameterValueChanged(weak_from_this().lock(), name_.c_str());
    } catch (const std::exception& e) {
        if (auto log = GetKELLoggerInstance().lock()) {
            log->LogMessage(2, owner->GetInstanceName().c_str(), "change of parameter \"%s\" threw: %s", name_.c_str(),
                            e.what());
        }
    } catch (...) {
        if (auto log = GetKELLoggerInstance().lock()) {
            log->LogMessage(2, owner->GetInstanceName().c_str(), "change of parameter \"%s\" threw", name_.c_str());
        }
    }
}

// FilterParamBool

FilterParamBool::FilterParamBool(const char* name, std::uint32_t flags, bool defaultValue)
    : FilterParam(name != nullptr ? name : "", flags, FilterParamType::Bool),
      value_(defaultValue),
      default_(defaultValue) {}

void FilterParamBool::SetValue(bool value) {
    if (value_.exchange(value) != value) {
        NotifyChanged();
    }
}

std::string FilterParamBool::GetValueAsString() const { return GetValue() ? "true" : "false"; }

std::string FilterParamBool::DescribeDomain() const {
    return std::string("true/false, default ") + (default_ ? "true" : "false");
}

bool FilterParamBool::ParseAndSet(const std::string& text, std::string* error) {
    const std::string word = Lowercase(text);
    if (word == "true" || word == "1" || word == "yes" || word == "on") {
        SetValue(true);
        return true;
    }
    if (word == "false" || word == "0" || word == "no" || word == "off") {
        SetValue(false);
        return true;
    }
    SetError(error, GetName(), Quote(text) + " is not a boolean (true/false, 1/0, yes/no, on/off)");
    return false;
}

// FilterParamUInt32

FilterParamUInt32::FilterParamUInt32(const char* name, std::uint32_t flags, std::uint32_t defaultValue,
                                     std::uint32_t minimum, std::uint32_t maximum)
    : FilterParam(name != nullptr ? name : "", flags, FilterParamType::UInt32),
      value_(defaultValue),
      default_(defaultValue),
      min_(minimum),
      max_(maximum) {}

bool FilterParamUInt32::SetValue(std::uint32_t value) {
    if (value < min_ || value > max_) {
        return false;
    }
    if (value_.exchange(value) != value) {
        NotifyChanged();
    }
    return true;
}

std::string FilterParamUInt32::GetValueAsString() const { return std::to_string(GetValue()); }

std::string FilterParamUInt32::DescribeDomain() const {
    // Built by appending: GCC 12 at -O3 misreports `"[" + std::to_string(...)` as overlapping copies.
    std::string text("[");
    text.append(std::to_string(min_)).append(", ").append(std::to_string(max_)).append("], default ");
    return text.append(std::to_string(default_));
}

bool FilterParamUInt32::ParseAndSet(const std::string& text, std::string* error) {
    std::uint32_t value = 0;
    std::string reason;
    if (!ParseDecimal<std::uint32_t>(text, min_, max_, &value, &reason)) {
        SetError(error, GetName(), reason);
        return false;
    }
    return SetValue(value);
}

// FilterParamInt64

FilterParamInt64::FilterParamInt64(const char* name, std::uint32_t flags, std::int64_t defaultValue,
                                   std::int64_t minimum, std::int64_t maximum)
    : FilterParam(name != nullptr ? name : "", flags, FilterParamType::Int64),
      value_(defaultValue),
      default_(defaultValue),
      min_(minimum),
      max_(maximum) {}

bool FilterParamInt64::SetValue(std::int64_t value) {
    if (value < min_ || value > max_) {
        return false;
    }
    if (value_.exchange(value) != value) {
        NotifyChanged();
    }
    return true;
}

std::string FilterParamInt64::GetValueAsString() const { return std::to_string(GetValue()); }

std::string FilterParamInt64::DescribeDomain() const {
    // Built by appending: GCC 12 at -O3 misreports `"[" + std::to_string(...)` as overlapping copies.
    std::string text("[");
    text.append(std::to_string(min_)).append(", ").append(std::to_string(max_)).append("], default ");
    return text.append(std::to_string(default_));
}

bool FilterParamInt64::ParseAndSet(const std::string& text, std::string* error) {
    std::int64_t value = 0;
    std::string reason;
    if (!ParseDecimal<std::int64_t>(text, min_, max_, &value, &reason)) {
        SetError(error, GetName(), reason);
        return false;
    }
    return SetValue(value);
}

// FilterParamString

FilterParamString::FilterParamString(const char* name, std::uint32_t flags, const char* defaultValue)
    : FilterParamString(name, flags, defaultValue, FilterParamType::String) {}

FilterParamString::FilterParamString(const char* name, std::uint32_t flags, const char* defaultValue,
                                     FilterParamType type)
    : FilterParam(name != nullptr ? name : "", flags, type),
      value_(defaultValue != nullptr ? defaultValue : ""),
      default_(value_) {}

KelCommon::String FilterParamString::GetValue() const {
    std::lock_guard lock(mutex_);
    return value_;
}

void FilterParamString::SetValue(const std::string& value) {
    {
        std::lock_guard lock(mutex_);
        if (value_ == value) {
            return;
        }
        value_ = value;
    }
    NotifyChanged();
}

std::string FilterParamString::GetValueAsString() const { return GetValue().str(); }

std::string FilterParamString::DescribeDomain() const { return "text, default " + Quote(default_); }

bool FilterParamString::ParseAndSet(const std::string& text, std::string* /*error*/) {
    SetValue(text);
    return true;
}

// FilterParamCallback

FilterParamCallback::FilterParamCallback(const char* name, std::uint32_t flags)
    : FilterParam(name != nullptr ? name : "", flags, FilterParamType::Callback) {}

void FilterParamCallback::Press() {
    presses_.fetch_add(1);
    NotifyChanged();
}

std::string FilterParamCallback::GetValueAsString() const { return {}; }

std::string FilterParamCallback::DescribeDomain() const { return "button (any value presses it)"; }

bool FilterParamCallback::ParseAndSet(const std::string& /*text*/, std::string* /*error*/) {
    Press();
    return true;
}

// Paths

FilterParamFilePath::FilterParamFilePath(const char* name, std::uint32_t flags, const char* defaultValue,
                                         const char* extension, FilterParamType type)
    : FilterParamString(name, flags, defaultValue, type), extension_(extension != nullptr ? extension : "") {}

KelCommon::String FilterParamFilePath::GetAbsoluteFilePath() const { return ExpandPath(GetValue().str()).string(); }

std::string FilterParamFilePath::DescribeDomain() const {
    std::string text = "file path";
    if (!extension_.empty()) {
        text += " (*." + extension_ + ")";
    }
    // The base describes itself as "text, default ..."; keep its default part.
    const std::string base = FilterParamString::DescribeDomain();
    return text + base.substr(base.find(','));
}

FilterParamReadFilePath::FilterParamReadFilePath(const char* name, std::uint32_t flags, const char* defaultValue,
                                                 const char* extension)
    : FilterParamFilePath(name, flags, defaultValue, extension, FilterParamType::ReadFilePath) {}

FilterParamWriteFilePath::FilterParamWriteFilePath(const char* name, std::uint32_t flags, const char* defaultValue,
                                                   const char* extension)
    : FilterParamFilePath(name, flags, defaultValue, extension, FilterParamType::WriteFilePath) {}

FilterParamDirPath::FilterParamDirPath(const char* name, std::uint32_t flags, const char* defaultValue)
    : FilterParamString(name, flags, defaultValue, FilterParamType::DirPath) {}

KelCommon::String FilterParamDirPath::GetAbsoluteDirPath() const {
    std::string path = ExpandPath(GetValue().str()).string();
    // "/a/b/" and "/a/b" name the same directory; hand out the form without
    // the trailing separator so that callers can append "/name".
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

}  // namespace KEL
