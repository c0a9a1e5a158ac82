#include "writers/PerStreamWriterBase.h"

#include "writers/PerStreamFilePath.h"

namespace Kel2File {

PerStreamWriterBase::PerStreamWriterBase() = default;

PerStreamWriterBase::~PerStreamWriterBase() = default;

KEL::KelErrorCode PerStreamWriterBase::SerializeAtom(std::shared_ptr<KEL::Atom> atom) {
    return SerializeAtomUsingSerializer(GetOrCreateSerializerForStream(atom->GetStreamId()), atom);
}

WriterBase::SerializerPtr PerStreamWriterBase::GetOrCreateSerializerForStream(std::uint16_t streamId) {
    auto it = serializersPerStream.find(streamId);
    if (it != serializersPerStream.end()) {
        return it->second;
    }
    SerializerPtr serializer = CreateSerializerInstance(PerStreamFilePath(currentFilePath, streamId));
    serializersPerStream.emplace(streamId, serializer);
    return serializer;
}

void PerStreamWriterBase::DestroySerializers() {
    for (auto& entry : serializersPerStream) {
        DestroySerializerInstance(entry.second);
    }
    serializersPerStream.clear();
    ClearCachedPerStreamData();
}

}  // namespace Kel2File
