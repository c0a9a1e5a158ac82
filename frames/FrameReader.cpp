#include "frames/FrameReader.h"

#include <KEL/PurposeGuids.h>

#include <algorithm>
#include <limits>
#include <map>
#include <unordered_map>

#include "optimization/OptimizedDataLoosener.h"

namespace KelFrames {

namespace {

std::string JoinIds(const std::vector<std::uint16_t>& ids) {
    std::string text;
    for (const std::uint16_t id : ids) {
        text += (text.empty() ? "" : ", ") + std::to_string(id);
    }
    return text.empty() ? "none" : text;
}

std::string Seconds(std::int64_t us) { return std::to_string(static_cast<double>(us) / 1e6) + " s"; }

}  // namespace

// One file and what the reader takes from it.
struct FileState {
    std::string path;
    std::unique_ptr<KEL::ReadKEL2File> reader;
    std::vector<std::uint16_t> streams;
    // Per stream: its stored frame numbers (ascending) and its loosener.
    std::unordered_map<std::uint16_t, std::vector<std::uint32_t>> numbers;
    std::unordered_map<std::uint16_t, std::shared_ptr<const Kel2File::OptimizedDataLoosener>> looseners;
};

struct Position {
    std::uint32_t file = 0;  // a sequence's file (side by side: 0)
    std::uint32_t frameNr = 0;
    std::int64_t time = 0;
};

namespace {

// Orders positions by (file, frame number), as ListPositions lists them.
bool PositionBefore(const Position& pos, const std::pair<std::uint32_t, std::uint32_t>& key) {
    return std::make_pair(pos.file, pos.frameNr) < key;
}

}  // namespace

struct FrameReader::Impl {
    Layout layout = Layout::kSequence;
    std::vector<FileState> files;
    std::vector<std::uint16_t> streamIds;
    std::unordered_map<std::uint16_t, std::size_t> fileOfStream;  // side by side
    std::vector<Position> positions;
    std::unordered_map<std::uint16_t, std::shared_ptr<KEL::DataTypeStreamInfo>> infos;
    std::vector<std::string> warnings;

    bool SelectStreams(const std::vector<std::uint16_t>& wanted, std::string* error);
    void ListPositions();
    void MakeLooseners();
};

bool FrameReader::Impl::SelectStreams(const std::vector<std::uint16_t>& wanted, std::string* error) {
    const auto selected = [&](std::uint16_t id) {
        return wanted.empty() || std::find(wanted.begin(), wanted.end(), id) != wanted.end();
    };
    for (std::size_t f = 0; f < files.size(); ++f) {
        FileState& file = files[f];
        std::vector<std::uint16_t> held;
        held.reserve(static_cast<std::size_t>(std::max(file.reader->GetNumStreams(), 0)));
        for (int i = 0; i < file.reader->GetNumStreams(); ++i) {
            held.push_back(file.reader->GetStreamId(i));
        }
        std::copy_if(held.begin(), held.end(), std::back_inserter(file.streams), selected);
        if (layout == Layout::kSequence) {
            if (f == 0) {
                streamIds = file.streams;
                continue;
            }
            std::vector<std::uint16_t> expected = streamIds;
            std::vector<std::uint16_t> got = file.streams;
            std::sort(expected.begin(), expected.end());
            std::sort(got.begin(), got.end());
            if (got != expected) {
                *error = "'" + file.path + "' holds streams " + JoinIds(held) + ", but the sequence's are " +
                         JoinIds(streamIds) + " (from '" + files.front().path + "')";
                return false;
            }
            continue;
        }
        for (const std::uint16_t id : file.streams) {
            const auto [at, added] = fileOfStream.try_emplace(id, f);
            if (!added) {
                *error = "stream " + std::to_string(id) + " is in both '" + files[at->second].path + "' and '" +
                         file.path + "'";
                return false;
            }
            streamIds.push_back(id);
        }
    }
    for (const std::uint16_t id : wanted) {
        if (std::find(streamIds.begin(), streamIds.end(), id) == streamIds.end()) {
            *error = "no file holds stream " + std::to_string(id);
            return false;
        }
    }
    if (streamIds.empty()) {
        *error = "'" + files.front().path + "' holds no stream";
        return false;
    }
    return true;
}

void FrameReader::Impl::ListPositions() {
    // Per file of a sequence (or once for files side by side): the union of
    // the streams' frame numbers, each with its earliest time stamp.
    std::map<std::uint32_t, std::int64_t> frames;
    const auto flush = [&](std::uint32_t file) {
        for (const auto& [nr, time] : frames) {
            positions.push_back({file, nr, time});
        }
        frames.clear();
    };
    for (std::size_t f = 0; f < files.size(); ++f) {
        FileState& file = files[f];
        for (const std::uint16_t id : file.streams) {
            auto numbers = file.reader->GetFrameNumbers(id);
            const auto stamps = file.reader->GetTimeStamps(id);
            for (std::size_t i = 0; i < numbers.size(); ++i) {
                const auto [at, added] = frames.try_emplace(numbers[i], stamps[i]);
                at->second = std::min(at->second, stamps[i]);
            }
            numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
            file.numbers[id] = std::move(numbers);
        }
        if (layout == Layout::kSequence) {
            const std::size_t before = positions.size();
            flush(static_cast<std::uint32_t>(f));
            if (before > 0 && positions.size() > before) {
                const auto last =
                    std::max_element(positions.begin(), positions.begin() + static_cast<long>(before),
                                     [](const Position& a, const Position& b) { return a.time < b.time; });
                const auto first =
                    std::min_element(positions.begin() + static_cast<long>(before), positions.end(),
                                     [](const Position& a, const Position& b) { return a.time < b.time; });
                if (first->time <= last->time) {
                    warnings.push_back("the time stamps of '" + file.path + "' (from " + Seconds(first->time) +
                                       ") overlap those before it (to " + Seconds(last->time) + ")");
                }
            }
        }
    }
    if (layout == Layout::kSideBySide) {
        flush(0);
    }
}

void FrameReader::Impl::MakeLooseners() {
    for (const std::uint16_t id : streamIds) {
        std::uint32_t count = 0;
        for (const FileState& file : files) {
            if (const auto it = file.numbers.find(id); it != file.numbers.end()) {
                count += static_cast<std::uint32_t>(it->second.size());
            }
        }
        std::shared_ptr<KEL::DataTypeStreamInfo> info;
        for (FileState& file : files) {
            if (file.numbers.count(id) == 0) {
                continue;
            }
            const auto first = file.reader->GetFirstFrameAtom(id);
            if (!info) {
                // The stream's own information (a copy: the count is the
                // reader's), or, when it has none, one that gives the count.
                const auto own = first ? KEL::LayerCast<KEL::DataTypeStreamInfo>(
                                             first->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false))
                                       : nullptr;
                info = own ? std::make_shared<KEL::DataTypeStreamInfo>(*own)
                           : std::make_shared<KEL::DataTypeStreamInfo>(0, 0.0, "", KEL::PurposeGuid_STATIC);
                info->SetNumFrames(count);
                infos[id] = info;
            }
            file.looseners[id] = std::make_shared<const Kel2File::OptimizedDataLoosener>(first, info);
        }
    }
}

FrameReader::FrameReader() : impl_(std::make_unique<Impl>()) {}

FrameReader::~FrameReader() = default;

std::unique_ptr<FrameReader> FrameReader::Open(const std::vector<std::string>& files, Layout layout,
                                               const std::vector<std::uint16_t>& streams, std::string* error) {
    std::unique_ptr<FrameReader> reader(new FrameReader());
    Impl& impl = *reader->impl_;
    impl.layout = layout;
    if (files.empty()) {
        *error = "no file to read";
        return nullptr;
    }
    for (const std::string& path : files) {
        FileState file;
        file.path = path;
        file.reader = std::make_unique<KEL::ReadKEL2File>(path.c_str());
        if (const KEL::KelErrorCode code = file.reader->Initialize(); code != KEL::KEL_OK) {
            *error = "cannot open '" + path + "': " +
                     (file.reader->GetLastError().empty() ? KEL::KelErrorCodeName(code) : file.reader->GetLastError());
            return nullptr;
        }
        impl.files.push_back(std::move(file));
    }
    if (!impl.SelectStreams(streams, error)) {
        return nullptr;
    }
    impl.ListPositions();
    impl.MakeLooseners();
    return reader;
}

const std::vector<std::uint16_t>& FrameReader::StreamIds() const noexcept { return impl_->streamIds; }

std::uint32_t FrameReader::NumFrames() const noexcept {
    return static_cast<std::uint32_t>(
        std::min<std::size_t>(impl_->positions.size(), std::numeric_limits<std::uint32_t>::max()));
}

std::vector<KEL::AtomPtr> FrameReader::Frame(std::uint32_t i, FrameGap* gap) {
    FrameGap ignored = FrameGap::kNone;
    FrameGap& why = gap != nullptr ? *gap : ignored;
    std::vector<KEL::AtomPtr> atoms;
    for (const std::uint16_t id : impl_->streamIds) {
        KEL::AtomPtr atom = StreamAtom(i, id, &why);
        if (!atom) {
            return {};
        }
        atoms.push_back(std::move(atom));
    }
    why = atoms.empty() ? FrameGap::kMissing : FrameGap::kNone;
    return atoms;
}

KEL::AtomPtr FrameReader::StreamAtom(std::uint32_t i, std::uint16_t stream, FrameGap* gap) {
    FrameGap ignored = FrameGap::kNone;
    FrameGap& why = gap != nullptr ? *gap : ignored;
    why = FrameGap::kMissing;
    if (i >= impl_->positions.size()) {
        return nullptr;
    }
    const Position& at = impl_->positions[i];
    std::size_t index = at.file;
    if (impl_->layout == Layout::kSideBySide) {
        const auto it = impl_->fileOfStream.find(stream);
        if (it == impl_->fileOfStream.end()) {
            return nullptr;
        }
        index = it->second;
    }
    FileState& file = impl_->files[index];
    const auto numbers = file.numbers.find(stream);
    if (numbers == file.numbers.end() ||
        !std::binary_search(numbers->second.begin(), numbers->second.end(), at.frameNr)) {
        return nullptr;
    }
    KEL::AtomPtr atom = file.reader->GetFrameAtom(stream, at.frameNr);
    if (!atom) {
        why = FrameGap::kDamaged;
        return nullptr;
    }
    file.looseners.at(stream)->LoosenOptimizedDataToAtom(atom);
    why = FrameGap::kNone;
    return atom;
}

std::int64_t FrameReader::TimeOf(std::uint32_t i) const {
    return i < impl_->positions.size() ? impl_->positions[i].time : std::numeric_limits<std::int64_t>::min();
}

std::uint32_t FrameReader::FrameNumberOf(std::uint32_t i) const {
    return i < impl_->positions.size() ? impl_->positions[i].frameNr : 0;
}

std::vector<std::uint32_t> FrameReader::PositionsOf(std::uint16_t stream) const {
    // Positions are ordered by (file, frame number); side by side every
    // position has file 0.
    const auto& p = impl_->positions;
    std::vector<std::uint32_t> found;
    for (std::size_t f = 0; f < impl_->files.size(); ++f) {
        const auto numbers = impl_->files[f].numbers.find(stream);
        if (numbers == impl_->files[f].numbers.end()) {
            continue;
        }
        const std::uint32_t file = impl_->layout == Layout::kSequence ? static_cast<std::uint32_t>(f) : 0;
        for (const std::uint32_t nr : numbers->second) {
            const auto at = std::lower_bound(p.begin(), p.end(), std::make_pair(file, nr), PositionBefore);
            found.push_back(static_cast<std::uint32_t>(at - p.begin()));
        }
    }
    return found;
}

std::vector<std::int64_t> FrameReader::TimeStampsOf(std::uint16_t stream) const {
    std::vector<std::int64_t> stamps;
    for (const FileState& file : impl_->files) {
        if (file.numbers.count(stream) != 0) {
            const auto own = file.reader->GetTimeStamps(stream);
            stamps.insert(stamps.end(), own.begin(), own.end());
        }
    }
    return stamps;
}

std::uint32_t FrameReader::PositionOf(const std::string& path, std::uint32_t frameNr) const {
    const auto& p = impl_->positions;
    for (std::size_t f = 0; f < impl_->files.size(); ++f) {
        if (impl_->files[f].path != path) {
            continue;
        }
        const std::uint32_t file = impl_->layout == Layout::kSequence ? static_cast<std::uint32_t>(f) : 0;
        const auto at = std::lower_bound(p.begin(), p.end(), std::make_pair(file, frameNr), PositionBefore);
        return at != p.end() && at->file == file && at->frameNr == frameNr ? static_cast<std::uint32_t>(at - p.begin())
                                                                           : NumFrames();
    }
    return NumFrames();
}

std::uint32_t FrameReader::PositionAt(std::int64_t time) const {
    const auto& p = impl_->positions;
    const auto found = std::find_if(p.begin(), p.end(), [&](const Position& pos) { return pos.time >= time; });
    return static_cast<std::uint32_t>(found - p.begin());
}

std::shared_ptr<KEL::DataTypeStreamInfo> FrameReader::StreamInfo(std::uint16_t stream) const {
    const auto it = impl_->infos.find(stream);
    return it == impl_->infos.end() ? nullptr : it->second;
}

const std::vector<std::string>& FrameReader::Warnings() const noexcept { return impl_->warnings; }

std::vector<KEL::ReaderDamage> FrameReader::Damage() const {
    std::vector<KEL::ReaderDamage> all;
    for (const FileState& file : impl_->files) {
        const auto damage = file.reader->GetDamage();
        all.insert(all.end(), damage.begin(), damage.end());
    }
    return all;
}

}  // namespace KelFrames
