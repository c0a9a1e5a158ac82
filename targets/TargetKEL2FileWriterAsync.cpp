#include "targets/TargetKEL2FileWriterAsync.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FileWriterAsync::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FileWriterAsync::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FileWriterAsync::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FileWriterAsync::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FileWriterAsyncFilterCreator() {
    void* memory = Kel2File::TargetKEL2FileWriterAsync::operator new(sizeof(Kel2File::TargetKEL2FileWriterAsync));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FileWriterAsync));
    return new (memory) Kel2File::TargetKEL2FileWriterAsync();
}
