#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FilePerStreamSnapshotWriterAsync::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FilePerStreamSnapshotWriterAsync::operator new(std::size_t /*size*/, void* where) noexcept {
    return where;
}

void TargetKEL2FilePerStreamSnapshotWriterAsync::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FilePerStreamSnapshotWriterAsync::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator() {
    void* memory = Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync::operator new(
        sizeof(Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync));
    return new (memory) Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync();
}
