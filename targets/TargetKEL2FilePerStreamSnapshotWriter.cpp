#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FilePerStreamSnapshotWriter::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FilePerStreamSnapshotWriter::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FilePerStreamSnapshotWriter::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FilePerStreamSnapshotWriter::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamSnapshotWriterFilterCreator() {
    void* memory = Kel2File::TargetKEL2FilePerStreamSnapshotWriter::operator new(
        sizeof(Kel2File::TargetKEL2FilePerStreamSnapshotWriter));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FilePerStreamSnapshotWriter));
    return new (memory) Kel2File::TargetKEL2FilePerStreamSnapshotWriter();
}
