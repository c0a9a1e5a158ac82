#include "targets/TargetKEL2FileSnapshotWriter.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FileSnapshotWriter::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FileSnapshotWriter::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FileSnapshotWriter::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FileSnapshotWriter::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FileSnapshotWriterFilterCreator() {
    void* memory = Kel2File::TargetKEL2FileSnapshotWriter::operator new(sizeof(Kel2File::TargetKEL2FileSnapshotWriter));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FileSnapshotWriter));
    return new (memory) Kel2File::TargetKEL2FileSnapshotWriter();
}
