#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/String.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace KEL {

class Filter;

// Parameter flags (a bit set).
enum FilterParamFlags : std::uint32_t {
    // 0: a live parameter; the filter follows changes while it plays.
    PARAM_FLAG_LIVE = 0,
    // Read when the filter initialises; a change takes effect at the next
    // initialisation.
    PARAM_FLAG_INIT_ONLY = 1,
    // Not shown in listings by default.
    PARAM_FLAG_HIDDEN = 2,
    // A status value that the filter itself sets; users cannot set it
    // (SetValueFromString refuses), the filter uses SetValue.
    PARAM_FLAG_STATUS = 4,
};

enum class FilterParamType { Bool, UInt32, Int64, String, Callback, ReadFilePath, WriteFilePath, DirPath };

// A named, typed value of a filter.
//
// Values are readable and settable from any thread. A change of value (or a
// press of a callback parameter) calls the owning filter's
// cbiParameterValueChanged(param, name) on the thread that made the change,
// after the new value is stored; setting a value equal to the current one
// notifies nobody. The owner is the filter the parameter was added to with
// addParam(param, true). Detaching the owner (SetOwner(nullptr), which a
// filter does for all its parameters when it is destroyed) waits until the
// callbacks already under way on other threads have returned, so a parameter
// set on one thread while another destroys the filter either reaches the
// whole filter or nobody.
class KEL_API FilterParam : public std::enable_shared_from_this<FilterParam> {
public:
    virtual ~FilterParam() = default;
    FilterParam(const FilterParam&) = delete;
    FilterParam& operator=(const FilterParam&) = delete;

    const std::string& GetName() const noexcept { return name_; }
    std::uint32_t GetFlags() const noexcept { return flags_; }
    FilterParamType GetType() const noexcept { return type_; }
    // "bool", "uint32", "int64", "string", "callback", "read-file", "write-file", "dir".
    const char* GetTypeName() const noexcept;

    virtual std::string GetValueAsString() const = 0;
    // A one-line description of the default and range, for listings.
    virtual std::string DescribeDomain() const = 0;
    // Parses `text` and sets the value (for a callback: presses it). Returns
    // false with a message in `error` when the text is not a valid value, is
    // out of range, or the parameter is a status value.
    bool SetValueFromString(const std::string& text, std::string* error);

    // Host side: which filter hears about changes. Setting nullptr (or
    // another owner) returns once no other thread is inside a callback to
    // the previous owner; a callback that detaches its own parameter does not
    // wait for itself.
    void SetOwner(Filter* owner);
    Filter* GetOwner() const;

protected:
    FilterParam(std::string name, std::uint32_t flags, FilterParamType type)
        : name_(std::move(name)), flags_(flags), type_(type) {}
    virtual bool ParseAndSet(const std::string& text, std::string* error) = 0;
    void NotifyChanged();

private:
    std::string name_;
    std::uint32_t flags_;
    FilterParamType type_;
    // The owner and the threads inside a callback to it, under ownerMutex_.
    mutable std::mutex ownerMutex_;
    std::condition_variable callbacksDone_;
    Filter* owner_ = nullptr;
    std::vector<std::thread::id> callbacksInFlight_;
};

class KEL_API FilterParamBool : public FilterParam {
public:
    FilterParamBool(const char* name, std::uint32_t flags, bool defaultValue);
    bool GetValue() const noexcept { return value_.load(); }
    void SetValue(bool value);
    bool GetDefault() const noexcept { return default_; }
    std::string GetValueAsString() const override;
    std::string DescribeDomain() const override;

protected:
    bool ParseAndSet(const std::string& text, std::string* error) override;

private:
    std::atomic<bool> value_;
    bool default_;
};

class KEL_API FilterParamUInt32 : public FilterParam {
public:
    FilterParamUInt32(const char* name, std::uint32_t flags, std::uint32_t defaultValue, std::uint32_t minimum,
                      std::uint32_t maximum);
    std::uint32_t GetValue() const noexcept { return value_.load(); }
    // Returns false and leaves the value unchanged when `value` is outside
    // [minimum, maximum].
    bool SetValue(std::uint32_t value);
    std::uint32_t GetMinimum() const noexcept { return min_; }
    std::uint32_t GetMaximum() const noexcept { return max_; }
    std::string GetValueAsString() const override;
    std::string DescribeDomain() const override;

protected:
    bool ParseAndSet(const std::string& text, std::string* error) override;

private:
    std::atomic<std::uint32_t> value_;
    std::uint32_t default_;
    std::uint32_t min_;
    std::uint32_t max_;
};

class KEL_API FilterParamInt64 : public FilterParam {
public:
    FilterParamInt64(const char* name, std::uint32_t flags, std::int64_t defaultValue, std::int64_t minimum,
                     std::int64_t maximum);
    std::int64_t GetValue() const noexcept { return value_.load(); }
    // Returns false and leaves the value unchanged when out of range.
    bool SetValue(std::int64_t value);
    std::int64_t GetMinimum() const noexcept { return min_; }
    std::int64_t GetMaximum() const noexcept { return max_; }
    std::string GetValueAsString() const override;
    std::string DescribeDomain() const override;

protected:
    bool ParseAndSet(const std::string& text, std::string* error) override;

private:
    std::atomic<std::int64_t> value_;
    std::int64_t default_;
    std::int64_t min_;
    std::int64_t max_;
};

class KEL_API FilterParamString : public FilterParam {
public:
    // A null default counts as "".
    FilterParamString(const char* name, std::uint32_t flags, const char* defaultValue);
    KelCommon::String GetValue() const;
    void SetValue(const std::string& value);
    std::string GetValueAsString() const override;
    std::string DescribeDomain() const override;

protected:
    FilterParamString(const char* name, std::uint32_t flags, const char* defaultValue, FilterParamType type);
    bool ParseAndSet(const std::string& text, std::string* error) override;

private:
    mutable std::mutex mutex_;
    std::string value_;
    std::string default_;
};

// A button: it has no value; Press() (or SetValueFromString with any text)
// notifies the owner every time.
class KEL_API FilterParamCallback : public FilterParam {
public:
    FilterParamCallback(const char* name, std::uint32_t flags);
    void Press();
    std::uint64_t GetPressCount() const noexcept { return presses_.load(); }
    std::string GetValueAsString() const override;
    std::string DescribeDomain() const override;

protected:
    bool ParseAndSet(const std::string& text, std::string* error) override;

private:
    std::atomic<std::uint64_t> presses_{0};
};

// A path value. Variables are expanded (VarManager syntax) and a relative
// path is taken against the current working directory when the absolute
// path is asked for; the stored text is kept as the user gave it.
class KEL_API FilterParamFilePath : public FilterParamString {
public:
    const std::string& GetExtension() const noexcept { return extension_; }
    // The expanded, absolute, lexically normalised path ("" when empty).
    KelCommon::String GetAbsoluteFilePath() const;
    std::string DescribeDomain() const override;

protected:
    FilterParamFilePath(const char* name, std::uint32_t flags, const char* defaultValue, const char* extension,
                        FilterParamType type);

private:
    std::string extension_;
};

class KEL_API FilterParamReadFilePath : public FilterParamFilePath {
public:
    FilterParamReadFilePath(const char* name, std::uint32_t flags, const char* defaultValue, const char* extension);
};

class KEL_API FilterParamWriteFilePath : public FilterParamFilePath {
public:
    FilterParamWriteFilePath(const char* name, std::uint32_t flags, const char* defaultValue, const char* extension);
};

class KEL_API FilterParamDirPath : public FilterParamString {
public:
    FilterParamDirPath(const char* name, std::uint32_t flags, const char* defaultValue);
    // The expanded, absolute, lexically normalised directory path.
    KelCommon::String GetAbsoluteDirPath() const;
};

}  // namespace KEL
