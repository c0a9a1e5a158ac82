#include <KelCommon/VarManager.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>

namespace KelCommon {

namespace {

std::string DefaultRoot() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the runtime never changes the environment, so reading it is safe
    if (const char* env = std::getenv("KEL_ROOT"); env != nullptr && *env != '\0') {
        return env;
    }
    std::error_code ec;
    auto cwd = std::filesystem::current_path(ec);
    return ec ? std::string(".") : cwd.string();
}

bool IsNameChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

}  // namespace

VarManager::VarManager() : root_(DefaultRoot()) {}

VarManager& VarManager::getInstance() {
    static VarManager instance;
    return instance;
}

String VarManager::getRootValue() const {
    std::lock_guard lock(mutex_);
    return String(root_);
}

void VarManager::setRootValue(const String& root) {
    std::lock_guard lock(mutex_);
    root_ = root.str();
}

void VarManager::setVar(const std::string& name, const std::string& value) {
    std::lock_guard lock(mutex_);
    vars_[name] = value;
}

void VarManager::unsetVar(const std::string& name) {
    std::lock_guard lock(mutex_);
    vars_.erase(name);
}

std::optional<std::string> VarManager::getVar(const std::string& name) const {
    std::lock_guard lock(mutex_);
    if (auto it = vars_.find(name); it != vars_.end()) {
        return it->second;
    }
    if (name == "ROOT") {
        return root_;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the runtime never changes the environment, so reading it is safe
    if (const char* env = std::getenv(name.c_str()); env != nullptr) {
        return std::string(env);
    }
    return std::nullopt;
}

String VarManager::translateFromVars(const char* text) const {
    if (text == nullptr) {
        return String();
    }
    const std::string in(text);
    std::string out;
    out.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '$' || i + 1 >= in.size()) {
            out += in[i];
            continue;
        }
        if (in[i + 1] == '$') {
            out += '$';
            ++i;
            continue;
        }
        if (in[i + 1] != '{') {
            out += in[i];
            continue;
        }
        const std::size_t close = in.find('}', i + 2);
        if (close == std::string::npos) {
            out += in.substr(i);
            break;
        }
        const std::string name = in.substr(i + 2, close - i - 2);
        bool valid = !name.empty();
        for (char c : name) {
            valid = valid && IsNameChar(c);
        }
        std::optional<std::string> value = valid ? getVar(name) : std::nullopt;
        if (value) {
            out += *value;
        } else {
            out += in.substr(i, close - i + 1);
        }
        i = close;
    }
    return String(std::move(out));
}

}  // namespace KelCommon
