#pragma once

#include <KEL/Filter.h>
#include <KEL/FilterParams.h>
#include <KEL/KelErrorCode.h>
#include <KEL/Target.h>
#include <KelCommon/VarManager.h>

#include <cstdint>
#include <memory>
#include <string>

#include "utils/ParameterNames.h"

namespace Kel2File {

// The host target filter around a writing strategy `W` (a WriterBase
// subclass): the filter is its writer. It owns the parameters every target
// shares ("KEL File Path", "Write XML", "Create thumbnail for first frame"),
// appends the strategy's own, hands the strategy its path and switches, and
// starts and stops it with the graph. The data path (onProcessFrame) is left
// to TargetKEL2FileSyncWriter and TargetKEL2FileAsyncWriter.
//
// Threads: every hook runs on the graph thread; cbiParameterValueChanged runs
// on the thread that changed a parameter and reaches the strategy only while
// the filter plays (state 5). "Write XML" is read at initialisation only.
template <class W>
class TargetKEL2FileWriterBase : public KEL::Target, public W {
public:
    TargetKEL2FileWriterBase() : KEL::Target(true), W() {}
    // Parameter callbacks reach the strategy, which is destroyed before the
    // Filter base: detach them (waiting for any in flight) first.
    ~TargetKEL2FileWriterBase() override { this->DetachParameters(); }

    void cbiParameterValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name) override {
        KEL::Filter::cbiParameterValueChanged(param, name);
        if (GetFilterState() == KEL::FILTER_STATE_PLAYING) {
            W::HandleParamValueChanged(param, name);
        }
    }

    // Creates the parameters once and adds them (again) on every call.
    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override {
        const KEL::KelErrorCode result = KEL::Target::onInitializeParams(filter);
        if (result != 0) {
            return result;
        }
        const std::string defaultPath = KelCommon::VarManager::getInstance().getRootValue().str() + "/record.kel";
        if (!filePathParam) {
            filePathParam = std::make_shared<KEL::FilterParamWriteFilePath>(kParamKelFilePath, KEL::PARAM_FLAG_LIVE,
                                                                            defaultPath.c_str(), "kel");
        }
        addParam(filePathParam, true);
        if (!writeXmlParam) {
            writeXmlParam = std::make_shared<KEL::FilterParamBool>(kParamWriteXml, KEL::PARAM_FLAG_INIT_ONLY, true);
        }
        addParam(writeXmlParam, true);
        if (!createThumbnailParam) {
            createThumbnailParam =
                std::make_shared<KEL::FilterParamBool>(kParamCreateThumbnail, KEL::PARAM_FLAG_LIVE, false);
        }
        addParam(createThumbnailParam, true);
        for (const auto& param : W::InitializeWriterParams()) {
            addParam(param, true);
        }
        return 0;
    }

    // Copies the parameter values into the strategy without notifying it.
    KEL::KelErrorCode onInitialize(KEL::Filter* filter) override {
        const KEL::KelErrorCode result = KEL::Target::onInitialize(filter);
        if (result != 0) {
            return result;
        }
        if (!filePathParam) {
            return ReportError(KEL::KEL_ERR_INVALID, "The filter's parameters have not been created");
        }
        this->currentFilePath = AbsoluteFilePath();
        this->writeXml = writeXmlParam->GetValue();
        this->thumbnailCreationCurrentlyEnabled = createThumbnailParam->GetValue();
        return 0;
    }

    // Starts the strategy, only from the initialised state (not on resume).
    KEL::KelErrorCode onPlay() override {
        if (GetFilterState() != KEL::FILTER_STATE_INITIALIZED || !filePathParam) {
            return 0;
        }
        W::SetCurrentFilePath(AbsoluteFilePath(), true);
        W::SetThumbnailCreationCurrentlyEnabled(createThumbnailParam->GetValue());
        W::OnPlay(static_cast<std::uint32_t>(GetInputNumStreams()));
        return 0;
    }

    KEL::KelErrorCode onStop() override {
        W::OnStop();
        return 0;
    }

    // Hands the current path, thumbnail switch and pending strategy changes
    // to the strategy. The caller makes sure no atom is being written.
    void ApplyParamChanges() {
        if (!filePathParam) {
            return;
        }
        W::SetCurrentFilePath(AbsoluteFilePath(), false);
        W::SetThumbnailCreationCurrentlyEnabled(createThumbnailParam->GetValue());
        W::ApplyWriterParamChanges();
    }

protected:
    std::string AbsoluteFilePath() const { return filePathParam->GetAbsoluteFilePath().str(); }

    std::shared_ptr<KEL::FilterParamWriteFilePath> filePathParam;
    std::shared_ptr<KEL::FilterParamBool> writeXmlParam;
    std::shared_ptr<KEL::FilterParamBool> createThumbnailParam;
};

}  // namespace Kel2File
