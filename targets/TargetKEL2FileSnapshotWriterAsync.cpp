#include "targets/TargetKEL2FileSnapshotWriterAsync.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FileSnapshotWriterAsync::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FileSnapshotWriterAsync::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FileSnapshotWriterAsync::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FileSnapshotWriterAsync::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FileSnapshotWriterAsyncFilterCreator() {
    void* memory =
        Kel2File::TargetKEL2FileSnapshotWriterAsync::operator new(sizeof(Kel2File::TargetKEL2FileSnapshotWriterAsync));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FileSnapshotWriterAsync));
    return new (memory) Kel2File::TargetKEL2FileSnapshotWriterAsync();
}
