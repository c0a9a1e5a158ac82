// A minimal plugin: a target that counts the atoms and frames reaching it.

#include <KEL/FilterFactory.h>
#include <KEL/KELLogger.h>
#include <KEL/KelVersion.h>
#include <KEL/PluginInfo.h>
#include <KEL/Target.h>

#include <cstdint>

namespace {

const KelCommon::Guid& FrameCounterGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("5C0A7E11-2F4B-4D6E-9A1C-3B8D0E2F4A61");
    return guid;
}

class FrameCounter : public KEL::Target {
public:
    FrameCounter() : KEL::Target(true) {}

    KelCommon::Guid TypeGuid() const override { return FrameCounterGuid(); }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return {"FrameCounter", KEL::FILTER_CATEGORY_TARGET}; }

    KEL::KelErrorCode onInitializeParams(KEL::Filter* /*filter*/) override {
        if (!atoms_) {
            atoms_ = std::make_shared<KEL::FilterParamInt64>("Atoms", KEL::PARAM_FLAG_STATUS, 0, 0, INT64_MAX);
            frames_ = std::make_shared<KEL::FilterParamInt64>("Frames", KEL::PARAM_FLAG_STATUS, 0, 0, INT64_MAX);
        }
        addParam(atoms_, true);
        addParam(frames_, true);
        return KEL::KEL_OK;
    }
    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> /*atom*/) override {
        atoms_->SetValue(atoms_->GetValue() + 1);
        return KEL::KEL_OK;
    }
    KEL::KelErrorCode onPostUpdate() override {
        frames_->SetValue(frames_->GetValue() + 1);
        return KEL::KEL_OK;
    }
    KEL::KelErrorCode onStop() override {
        if (auto log = KEL::GetKELLoggerInstance().lock()) {
            log->LogMessage(4, "FrameCounter", "%lld frame(s), %lld atom(s)",
                            static_cast<long long>(frames_->GetValue()), static_cast<long long>(atoms_->GetValue()));
        }
        return KEL::KEL_OK;
    }

private:
    std::shared_ptr<KEL::FilterParamInt64> atoms_;
    std::shared_ptr<KEL::FilterParamInt64> frames_;
};

KEL::Filter* CreateFrameCounter() { return new FrameCounter(); }

[[maybe_unused]] const int registration = KEL::FilterFactory::RegisterFilterClass(
    FrameCounterGuid(), {"FrameCounter", KEL::FILTER_CATEGORY_TARGET}, &CreateFrameCounter);

}  // namespace

extern "C" {
__attribute__((visibility("default")))
KEL::PluginInfo kel_plugin{"FrameCounter", "1.0.0", KEL::KEL_COMPILE_VERSION, KEL_VERSION_TAG};
}
