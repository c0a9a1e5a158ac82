#include "view/ViewTake.h"

#include <KEL/ContainerJson.h>
#include <KEL/ContainerSummary.h>
#include <KEL/Timeline.h>

#include <map>

namespace KelView {

namespace {

using Json = nlohmann::ordered_json;

}  // namespace

ViewTake::ViewTake(std::uint32_t number, TakeFile file) : number_(number), file_(std::move(file)) {
    reader_ = KelFrames::FrameReader::Open({file_.path}, KelFrames::Layout::kSequence, {}, &error_);
}

ViewTake::~ViewTake() = default;

bool ViewTake::HasStream(std::uint16_t stream) const {
    if (!reader_) {
        return false;
    }
    const auto& ids = reader_->StreamIds();
    return std::find(ids.begin(), ids.end(), stream) != ids.end();
}

Json ViewTake::Listing() const {
    Json j{{"take", number_}, {"name", file_.name}, {"frames", NumFrames()}};
    Json streams = Json::array();
    if (reader_) {
        for (const std::uint16_t id : reader_->StreamIds()) {
            const auto info = reader_->StreamInfo(id);
            streams.push_back({{"id", id},
                               {"name", info ? info->GetName() : ""},
                               {"frameRate", info ? info->GetFrameRate() : 0.0},
                               {"atoms", info ? info->GetNumFrames() : 0}});
        }
    }
    j["streams"] = std::move(streams);
    j["error"] = reader_ ? Json(nullptr) : Json(error_);
    return j;
}

Json ViewTake::Index() {
    const std::lock_guard lock(mutex_);
    Json j{{"take", number_}, {"frames", NumFrames()}};
    if (!reader_) {
        j["error"] = error_;
        return j;
    }
    const std::uint32_t frames = reader_->NumFrames();
    Json numbers = Json::array();
    Json stamps = Json::array();
    for (std::uint32_t i = 0; i < frames; ++i) {
        numbers.push_back(reader_->FrameNumberOf(i));
        stamps.push_back(reader_->TimeOf(i));
    }
    j["frameNumbers"] = std::move(numbers);
    j["timeStamps"] = std::move(stamps);

    // The atoms the reader found damaged so far (while opening, or while
    // answering earlier requests), by stream.
    std::map<std::uint16_t, std::vector<std::uint32_t>> damaged;
    std::uint64_t regions = 0;
    for (const KEL::ReaderDamage& d : reader_->Damage()) {
        if (!d.atomKnown) {
            ++regions;
            continue;
        }
        const std::uint32_t at = reader_->PositionOf(d.path, d.frameNr);
        if (at < frames) {
            damaged[d.streamId].push_back(at);
        }
    }
    Json streams = Json::array();
    for (const std::uint16_t id : reader_->StreamIds()) {
        const auto info = reader_->StreamInfo(id);
        std::vector<std::int64_t> own = reader_->TimeStampsOf(id);
        const KEL::TimelineAnalysis timeline = KEL::AnalyzeTimeline(own);
        Json gaps = Json::array();
        for (const KEL::TimelineGap& gap : timeline.gaps) {
            gaps.push_back({{"from", gap.from}, {"to", gap.to}, {"missing", gap.missing}});
        }
        std::vector<std::uint32_t>& bad = damaged[id];
        std::sort(bad.begin(), bad.end());
        bad.erase(std::unique(bad.begin(), bad.end()), bad.end());
        streams.push_back({{"id", id},
                           {"name", info ? info->GetName() : ""},
                           {"positions", reader_->PositionsOf(id)},
                           {"timeStamps", std::move(own)},
                           {"interval", timeline.interval},
                           {"gaps", std::move(gaps)},
                           {"dropped", timeline.dropped},
                           {"damaged", bad}});
    }
    j["streams"] = std::move(streams);
    j["damagedRegions"] = regions;
    return j;
}

Json ViewTake::Summary() {
    const std::lock_guard lock(summaryMutex_);
    if (!summary_) {
        summary_ = KEL::ToJson(KEL::SummarizeContainer(file_.path));
    }
    return *summary_;
}

std::optional<std::string> ViewTake::ReadAtom(std::uint16_t stream, std::uint32_t frame) {
    const AtomPlace place{number_, stream, frame};
    KEL::AtomPtr atom;
    KelFrames::FrameGap gap = KelFrames::FrameGap::kMissing;
    {
        const std::lock_guard lock(mutex_);
        if (!reader_) {
            return std::nullopt;
        }
        atom = reader_->StreamAtom(frame, stream, &gap);
        if (!atom && gap == KelFrames::FrameGap::kDamaged) {
            const std::uint32_t frameNr = reader_->FrameNumberOf(frame);
            std::string reason = "the atom does not read";
            for (const KEL::ReaderDamage& d : reader_->Damage()) {
                if (d.atomKnown && d.streamId == stream && d.frameNr == frameNr) {
                    reason = d.reason;
                }
            }
            return EncodeDamagedAtomMessage(place, frameNr, reader_->TimeOf(frame), reason);
        }
    }
    if (!atom) {
        return std::nullopt;
    }
    // The payloads are the atom's own (shared, immutable): copying them into
    // the message needs no lock.
    return EncodeAtomMessage(place, *atom);
}

}  // namespace KelView
