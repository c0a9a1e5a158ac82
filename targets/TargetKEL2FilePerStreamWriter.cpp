#include "targets/TargetKEL2FilePerStreamWriter.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FilePerStreamWriter::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FilePerStreamWriter::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FilePerStreamWriter::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FilePerStreamWriter::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamWriterFilterCreator() {
    void* memory =
        Kel2File::TargetKEL2FilePerStreamWriter::operator new(sizeof(Kel2File::TargetKEL2FilePerStreamWriter));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FilePerStreamWriter));
    return new (memory) Kel2File::TargetKEL2FilePerStreamWriter();
}
