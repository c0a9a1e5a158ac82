#pragma once

// Frames of recorded takes as complete atoms, for hosts: the `kel`
// conversions and the Python module.
//
// The plugin's file sources give every stream the stream information of the
// first included stream (their rule, kept for graphs). A host that copies,
// splits, joins or analyses takes needs each stream as it was recorded, so
// this reader restores every stream from its own first atom: its stream
// information (with the number of frames the reader plays of it), camera
// parameters, recording and static information, binaries, crop and
// thumbnail, with the plugin's own OptimizedDataLoosener.

#include <KEL/Atom.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/ReadKEL2File.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KelFrames {

// How the files of a reader make one take.
enum class Layout {
    kSequence,    // one after another, each holding the same streams (one file is a sequence of one)
    kSideBySide,  // played together, each holding streams of its own
};

// What a reader lost in a frame it could not return.
enum class FrameGap {
    kNone,     // the frame was returned
    kMissing,  // a stream holds no atom for it
    kDamaged,  // an atom of it does not read (the readers recorded which)
};

// Reads frames by position: position i is the i-th distinct stored frame
// number, file after file for a sequence. A frame is returned whole (one atom
// per stream) or not at all, as the plugin's sources push them. One thread
// at a time.
class FrameReader {
public:
    // Opens `files` laid out as `layout`, keeping the streams `streams` (all
    // when empty). Fails (empty, with `error` naming the file and the
    // streams) when a file does not open, a sequence's files hold different
    // streams, two files side by side hold the same stream, or a stream is
    // not in any file.
    static std::unique_ptr<FrameReader> Open(const std::vector<std::string>& files, Layout layout,
                                             const std::vector<std::uint16_t>& streams, std::string* error);
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    // The streams of every frame, in the order of the first file that holds
    // them.
    const std::vector<std::uint16_t>& StreamIds() const noexcept;
    // Frame positions.
    std::uint32_t NumFrames() const noexcept;
    // The atoms of position `i`, one per stream in StreamIds() order, each
    // restored from its stream's first atom; empty when the frame cannot be
    // returned, and then `gap` says why.
    std::vector<KEL::AtomPtr> Frame(std::uint32_t i, FrameGap* gap = nullptr);
    // One stream's atom of position `i`, restored like Frame's; empty when
    // the stream holds no atom there (gap kMissing) or it does not read
    // (kDamaged).
    KEL::AtomPtr StreamAtom(std::uint32_t i, std::uint16_t stream, FrameGap* gap = nullptr);
    // The time stamp of position `i` (the earliest of its atoms, from the
    // index, without reading payloads).
    std::int64_t TimeOf(std::uint32_t i) const;
    // The stored frame number of position `i`.
    std::uint32_t FrameNumberOf(std::uint32_t i) const;
    // The positions at which `stream` holds an atom, ascending, and those
    // atoms' time stamps, from the index.
    std::vector<std::uint32_t> PositionsOf(std::uint16_t stream) const;
    std::vector<std::int64_t> TimeStampsOf(std::uint16_t stream) const;
    // The position of `stream`'s atom with stored frame number `frameNr` in
    // the file `path` (NumFrames() when there is none).
    std::uint32_t PositionOf(const std::string& path, std::uint32_t frameNr) const;
    // The first position whose time stamp is at or after `time` (NumFrames()
    // when none).
    std::uint32_t PositionAt(std::int64_t time) const;
    // The stream information restored into the stream's atoms.
    std::shared_ptr<KEL::DataTypeStreamInfo> StreamInfo(std::uint16_t stream) const;
    // Findings that do not stop reading: files of a sequence whose time
    // stamps overlap the previous file's.
    const std::vector<std::string>& Warnings() const noexcept;
    // Every damaged atom and region met so far, over all files.
    std::vector<KEL::ReaderDamage> Damage() const;

private:
    FrameReader();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace KelFrames
