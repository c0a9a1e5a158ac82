#include "sources/SourceKEL2FileBase.h"

#include <KEL/KELLogger.h>
#include <KelCommon/VarManager.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <utility>

#include "utils/ParameterNames.h"
#include "utils/PluginLog.h"
#include "utils/Utils.h"

namespace Kel2File {

SourceKEL2FileBase::SourceKEL2FileBase() { looseners_.max_load_factor(1.0F); }

SourceKEL2FileBase::~SourceKEL2FileBase() = default;

std::shared_ptr<KEL::Profile> SourceKEL2FileBase::GetOutputProfile() {
    if (!profile_) {
        return nullptr;
    }
    return std::make_shared<KEL::Profile>(*profile_);
}

std::shared_ptr<KEL::Profile> SourceKEL2FileBase::GetAggregatedOutputProfile() { return GetOutputProfile(); }

std::uint32_t SourceKEL2FileBase::GetOutputNumStreams() { return static_cast<std::uint32_t>(streamIds_.size()); }

std::vector<std::uint32_t> SourceKEL2FileBase::GetStreamIds() { return {streamIds_.begin(), streamIds_.end()}; }

std::shared_ptr<KEL::DataTypeStreamInfo> SourceKEL2FileBase::GetStreamInfo() { return streamInfo_; }

KEL::KelErrorCode SourceKEL2FileBase::PushFrame(std::uint32_t fileFrameNr, const AtomFetcher& fetch,
                                                std::optional<std::uint32_t> outputFrameNr) {
    if (GetOutputNumStreams() == 0) {
        return 1;
    }
    // A frame is pushed whole or not at all: every atom is fetched and
    // checked before the first one is pushed.
    std::vector<std::shared_ptr<KEL::Atom>> atoms;
    atoms.reserve(streamIds_.size());
    for (const std::uint16_t streamId : streamIds_) {
        auto atom = fetch(streamId);
        if (!atom) {
            Log(kLogDetail, "Stream '%d' lacks an atom with frame number '%d'", streamId,
                static_cast<int>(fileFrameNr));
            return 1;
        }
        if (atom->GetStreamId() != streamId) {
            Log(kLogFailure, "Stream ID '%d' of atom returned for stream '%d' differs", atom->GetStreamId(), streamId);
            return 1;
        }
        if (outputFrameNr) {
            atom->SetFrameNr(*outputFrameNr);
        }
        atoms.push_back(std::move(atom));
    }
    for (auto& atom : atoms) {
        Utils::LoosenOptimizedData(atom, looseners_);
        pushToOutputQueue(std::move(atom));
    }
    return 0;
}

bool SourceKEL2FileBase::SetupOptimizedDataLoosener(const std::shared_ptr<KEL::ReadKEL2File>& reader,
                                                    std::uint16_t streamId) {
    auto firstAtom = reader->GetFirstFrameAtom(streamId);
    if (!firstAtom) {
        Log(kLogFailure, "There is no 'first' atom in the '%d' stream, can not setup optimized data loosener",
            streamId);
        return false;
    }
    looseners_[streamId] = std::make_shared<const OptimizedDataLoosener>(std::move(firstAtom), streamInfo_);
    return true;
}

void SourceKEL2FileBase::ClearOutput() {
    streamInfo_.reset();
    profile_.reset();
    streamIds_.clear();
    looseners_.clear();
}

KEL::KelErrorCode SourceKEL2FileBase::AddDirectoryParam(std::shared_ptr<KEL::FilterParamDirPath>& param) {
    if (!param) {
        const std::string defaultDir = KelCommon::VarManager::getInstance().getRootValue().str() + "/kel_files";
        param =
            std::make_shared<KEL::FilterParamDirPath>(kParamKelFilesDir, KEL::PARAM_FLAG_INIT_ONLY, defaultDir.c_str());
    }
    addParam(param, true);
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2FileBase::OpenKelFilesInDirectory(const std::string& directory, PathOrder order,
                                                              Readers& readers) {
    std::vector<std::string> paths = Utils::CollectPotentialKELFilesInDirectory(directory, false);
    if (paths.empty()) {
        Log(kLogFailure, "Directory '%s' does not contain a sequence of files", directory.c_str());
        return KEL::KEL_ERR_INVALID;
    }
    if (order == PathOrder::Sorted) {
        std::sort(paths.begin(), paths.end());
    }
    for (const std::string& path : paths) {
        auto reader = std::make_shared<KEL::ReadKEL2File>(path.c_str());
        if (const KEL::KelErrorCode code = reader->Initialize(); code != KEL::KEL_OK) {
            return code;
        }
        readers.push_back(std::move(reader));
    }
    return KEL::KEL_OK;
}

KEL::KelErrorCode SourceKEL2FileBase::OpenDirectoryReaders(
    std::shared_ptr<KEL::FilterParamDirPath>& param, std::string& directory, Readers& readers,
    const std::function<KEL::KelErrorCode(const std::string&, Readers&)>& collect) {
    if (!param) {
        AddDirectoryParam(param);
    }
    directory = param->GetAbsoluteDirPath();
    boost::system::error_code statusError;
    if (!boost::filesystem::is_directory(boost::filesystem::status(directory, statusError))) {
        return ReportError(KEL::KEL_ERR_NOT_FOUND, ("Directory '" + directory + "' does not exist").c_str());
    }
    if (const KEL::KelErrorCode code = collect(directory, readers); code != KEL::KEL_OK) {
        return ReportError(code, ("Failed to collect kel files from '" + directory + "' directory").c_str());
    }
    if (readers.empty()) {
        return ReportError(KEL::KEL_ERR_INVALID,
                           ("Directory '" + directory + "' does not contain any valid kel files").c_str());
    }
    return KEL::KEL_OK;
}

}  // namespace Kel2File
