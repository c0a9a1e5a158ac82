#pragma once

#include <KEL/Atom.h>
#include <KEL/FilterParams.h>
#include <KEL/KelErrorCode.h>
#include <KEL/SerializeToKel.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kel2File {

// The shared part of the four writing strategies: the output path, the XML
// and thumbnail switches, per-stream frame numbering, the opening and closing
// of container files (one host serializer per file) and the per-atom write
// sequence.
//
// A target filter embeds exactly one strategy (as a base class) and drives it
// in this order: InitializeWriterParams once when it creates its parameters;
// direct assignment of currentFilePath, writeXml and
// thumbnailCreationCurrentlyEnabled at initialisation; at play
// SetCurrentFilePath(path, true), SetThumbnailCreationCurrentlyEnabled and
// OnPlay; per atom ProcessingAllowed and, when true, WriteAtom; on a parameter
// change HandleParamValueChanged; between frames WriterParamChangesAvailable
// and, to apply, SetCurrentFilePath(path, false),
// SetThumbnailCreationCurrentlyEnabled and ApplyWriterParamChanges; at stop
// OnStop.
//
// Threads: WriteAtom and everything it calls run on one thread at a time (the
// graph thread or the target's writing thread). HandleParamValueChanged may
// arrive on any thread; strategies that react to it keep what it touches
// atomic. Everything else is called by the target under its own coordination;
// the base takes no lock.
//
// Every file a strategy writes numbers each stream 0, 1, 2, ... and holds the
// stream's first atom complete; later atoms are stripped of stream-level
// layers (DataOptimizer).
class WriterBase {
public:
    using SerializerPtr = std::shared_ptr<KEL::SerializeToKel>;

    WriterBase();
    WriterBase(const WriterBase&) = delete;
    WriterBase& operator=(const WriterBase&) = delete;
    // Releases the members; a serializer still held is closed by its release
    // without a log line.
    virtual ~WriterBase();

    // The strategy's own filter parameters, created on the first call; later
    // calls return the same objects.
    virtual std::vector<std::shared_ptr<KEL::FilterParam>> InitializeWriterParams();
    virtual void OnPlay(std::uint32_t numStreams);
    virtual void OnStop();
    // True when parameters changed that must be applied between frames.
    virtual bool WriterParamChangesAvailable() const;
    virtual void ApplyWriterParamChanges();
    // A parameter changed; may be called on any thread.
    virtual void HandleParamValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name);
    // Whether atoms are to be written now.
    virtual bool ProcessingAllowed() const = 0;

    // Stores `path`; unless `suppressNotification`, tells the strategy
    // (OnFilePathChanged), which closes its files and continues under the new
    // name. A path equal to the current one changes nothing.
    void SetCurrentFilePath(const std::string& path, bool suppressNotification);
    void SetThumbnailCreationCurrentlyEnabled(bool enabled);

    // Writes one atom: numbers it with its stream's next output frame number
    // (the caller's atom gets that number too), adds a thumbnail to a stream's
    // first atom when enabled or strips stream-level layers from later ones,
    // and serializes it. With `atomIsOwned` false a private copy is written
    // and the caller's atom keeps its layers; with true the given atom itself
    // is changed and written. Returns 0, or the serializer's code, in which
    // case the stream's numbering does not advance. A null atom gives
    // KEL_ERR_INVALID.
    KEL::KelErrorCode WriteAtom(std::shared_ptr<KEL::Atom> atom, bool atomIsOwned);

protected:
    virtual void OnFilePathChanged() = 0;
    virtual void OnAfterAtomWritten();
    virtual KEL::KelErrorCode SerializeAtom(std::shared_ptr<KEL::Atom> atom) = 0;

    // Opens one output file: `path` with its extension replaced by ".kel",
    // plus "+xml" when writeXml is set (the serializer then writes an XML
    // companion). Logs "WriterBase::Start writing '%s'" at level 4. Failing
    // to open is the serializer's affair (its atoms then fail).
    SerializerPtr CreateSerializerInstance(const std::string& path) const;
    // Logs "WriterBase::Stop writing '%s'" at level 4 for a non-empty
    // pointer, then empties it; the last release closes the file.
    void DestroySerializerInstance(SerializerPtr& serializer) const;
    // The serializer's result for the atom; KEL_ERR_NOT_OPEN for an empty
    // pointer.
    KEL::KelErrorCode SerializeAtomUsingSerializer(const SerializerPtr& serializer,
                                                   const std::shared_ptr<KEL::Atom>& atom);
    // Restarts the numbering of every stream at 0.
    void ClearCachedPerStreamData();

public:
    // Set by the owning target (directly at initialisation, through the
    // setters and OnPlay afterwards).
    std::uint32_t numStreams = 0;
    std::string currentFilePath;
    bool writeXml = false;
    bool thumbnailCreationCurrentlyEnabled = false;

protected:
    // Output frame number of each stream's next atom; absent means 0.
    std::map<std::uint16_t, std::uint32_t> nextFrameNrPerStream;
};

}  // namespace Kel2File
