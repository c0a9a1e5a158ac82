#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "frames/FrameReader.h"
#include "view/AtomMessage.h"
#include "view/TakeCatalog.h"

namespace KelView {

// One take the server shows: its reader, opened once, and the JSON the page
// asks for, computed from the runtime on first use and kept. Safe to use from
// the server's threads at once (reads of one take take turns).
class ViewTake {
public:
    ViewTake(std::uint32_t number, TakeFile file);
    ~ViewTake();
    ViewTake(const ViewTake&) = delete;
    ViewTake& operator=(const ViewTake&) = delete;

    // For /api/takes: number, name, frame positions, streams (from the
    // index), or the error that kept the file from opening.
    nlohmann::ordered_json Listing() const;
    // For /api/index: the time line of every stream, with its gaps and the
    // positions of the atoms known to be damaged.
    nlohmann::ordered_json Index();
    // For /api/summary: the runtime's summary of the file (as `kel info
    // --json` prints it).
    nlohmann::ordered_json Summary();

    std::uint32_t Number() const noexcept { return number_; }
    bool Opened() const noexcept { return reader_ != nullptr; }
    bool HasStream(std::uint16_t stream) const;
    std::uint32_t NumFrames() const noexcept { return reader_ ? reader_->NumFrames() : 0; }

    // The atom message of `stream` at position `frame`; empty when the stream
    // holds no atom there. A damaged atom gives a message that says so.
    std::optional<std::string> ReadAtom(std::uint16_t stream, std::uint32_t frame);

private:
    std::uint32_t number_;
    TakeFile file_;
    std::string error_;
    mutable std::mutex mutex_;  // the reader reads one atom at a time
    std::unique_ptr<KelFrames::FrameReader> reader_;
    std::mutex summaryMutex_;  // one summary is computed, by the first request that asks
    std::optional<nlohmann::ordered_json> summary_;
};

}  // namespace KelView
