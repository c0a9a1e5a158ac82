#pragma once

#include <cstdint>
#include <map>

#include "writers/WriterBase.h"

namespace Kel2File {

// What the two per-stream strategies share: one serializer per stream, opened
// when the stream's first atom is written (named by PerStreamFilePath) and
// closed all together.
//
// Threads: the map is used only on the writing side and by the target's
// start, stop and change-applying calls, never concurrently.
class PerStreamWriterBase : public WriterBase {
protected:
    PerStreamWriterBase();
    ~PerStreamWriterBase() override;

    // Writes the atom into its stream's file, opening the file first if needed.
    KEL::KelErrorCode SerializeAtom(std::shared_ptr<KEL::Atom> atom) override;
    SerializerPtr GetOrCreateSerializerForStream(std::uint16_t streamId);
    // Closes every stream's file in ascending stream order (each with its log
    // line), then clears the per-stream numbering.
    void DestroySerializers();

    std::map<std::uint16_t, SerializerPtr> serializersPerStream;
};

}  // namespace Kel2File
