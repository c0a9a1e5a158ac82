#include <KEL/Filter.h>
#include <KEL/FilterFactory.h>
#include <KEL/Graph.h>
#include <KEL/KELLogger.h>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

namespace KEL {

Filter::Filter() = default;

Filter::~Filter() {
    // Parameters may outlive the filter (callers hold them by shared
    // ownership); they must not call back into a destroyed object.
    DetachParameters();
}

void Filter::DetachParameters() {
    // Detaching waits for callbacks under way, which may themselves look up
    // parameters: the list lock is not held while waiting.
    std::vector<std::shared_ptr<FilterParam>> params;
    {
        std::lock_guard lock(mutex_);
        params = params_;
    }
    for (const auto& param : params) {
        if (param->GetOwner() == this) {
            param->SetOwner(nullptr);
        }
    }
}

void Filter::cbiParameterValueChanged(std::shared_ptr<FilterParam> /*param*/, const char* /*name*/) {}

Filter* Filter::Instantiate() const { return FilterFactory::CreateFilter(TypeGuid()).release(); }

KelErrorCode Filter::Initialize(Filter* parent) {
    SetFilterState(FILTER_STATE_INITIALIZING);
    KelErrorCode code = KEL_OK;
    try {
        code = onInitialize(parent);
    } catch (const std::exception& e) {
        code = ReportError(KEL_ERR_EXCEPTION, (std::string("onInitialize threw: ") + e.what()).c_str());
    } catch (...) {
        code = ReportError(KEL_ERR_EXCEPTION, "onInitialize threw an unknown exception");
    }
    SetFilterState(code == KEL_OK ? FILTER_STATE_INITIALIZED : FILTER_STATE_FAILED);
    return code;
}

KelErrorCode Filter::Update() { return KEL_OK; }

bool Filter::IsDone() { return true; }

void Filter::ForceGraphStop() {
    if (Graph* graph = GetGraph()) {
        graph->RequestStop();
    }
}

std::shared_ptr<Profile> Filter::GetOutputProfile() { return std::make_shared<Profile>(); }

std::shared_ptr<Profile> Filter::GetAggregatedOutputProfile() { return GetOutputProfile(); }

std::uint32_t Filter::GetOutputNumStreams() { return 0; }

std::vector<std::uint32_t> Filter::GetStreamIds() { return {}; }

float Filter::GetProgressWeight() { return 1.0F; }

float Filter::GetProgress() { return 0.0F; }

KelCommon::String Filter::GetProgressInfo() { return {}; }

KelErrorCode Filter::onInitializeParams(Filter* /*filter*/) { return KEL_OK; }

KelErrorCode Filter::onInitialize(Filter* /*filter*/) { return KEL_OK; }

KelErrorCode Filter::onDeInitialize() { return KEL_OK; }

KelErrorCode Filter::onPlay() { return KEL_OK; }

KelErrorCode Filter::onPause() { return KEL_OK; }

KelErrorCode Filter::onStop() { return KEL_OK; }

void Filter::onInputConnection(std::weak_ptr<Connection> /*connection*/) {}

KelErrorCode Filter::ReportError(KelErrorCode code, const char* message) {
    const std::string text = message != nullptr ? message : "";
    {
        std::lock_guard lock(mutex_);
        lastErrorCode_ = code;
        lastErrorMessage_ = text;
    }
    if (auto log = GetKELLoggerInstance().lock()) {
        const std::string tag = !instanceName_.empty() ? instanceName_ : GetFilterClassInfo().GetName().str();
        log->LogMessage(2, tag.c_str(), "%s", text.c_str());
    }
    return code;
}

KelErrorCode Filter::GetLastErrorCode() const {
    std::lock_guard lock(mutex_);
    return lastErrorCode_;
}

std::string Filter::GetLastErrorMessage() const {
    std::lock_guard lock(mutex_);
    return lastErrorMessage_;
}

void Filter::addParam(std::shared_ptr<FilterParam> param, bool notifyOnChange) {
    if (!param) {
        return;
    }
    std::shared_ptr<FilterParam> replaced;
    {
        std::lock_guard lock(mutex_);
        auto sameName = std::find_if(params_.begin(), params_.end(),
                                     [&](const auto& p) { return p->GetName() == param->GetName(); });
        if (sameName == params_.end()) {
            params_.push_back(param);
        } else if (*sameName != param) {
            replaced = std::exchange(*sameName, param);
        }
    }
    if (replaced && replaced->GetOwner() == this) {
        replaced->SetOwner(nullptr);
    }
    if (notifyOnChange) {
        param->SetOwner(this);
    }
}

std::vector<std::shared_ptr<FilterParam>> Filter::GetParams() const {
    std::lock_guard lock(mutex_);
    return params_;
}

std::shared_ptr<FilterParam> Filter::FindParam(const std::string& name) const {
    std::lock_guard lock(mutex_);
    auto it = std::find_if(params_.begin(), params_.end(), [&](const auto& p) { return p->GetName() == name; });
    return it != params_.end() ? *it : nullptr;
}

}  // namespace KEL
