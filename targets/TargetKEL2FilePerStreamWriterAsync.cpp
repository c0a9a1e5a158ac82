#include "targets/TargetKEL2FilePerStreamWriterAsync.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FilePerStreamWriterAsync::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FilePerStreamWriterAsync::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FilePerStreamWriterAsync::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FilePerStreamWriterAsync::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamWriterAsyncFilterCreator() {
    void* memory = Kel2File::TargetKEL2FilePerStreamWriterAsync::operator new(
        sizeof(Kel2File::TargetKEL2FilePerStreamWriterAsync));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FilePerStreamWriterAsync));
    return new (memory) Kel2File::TargetKEL2FilePerStreamWriterAsync();
}
