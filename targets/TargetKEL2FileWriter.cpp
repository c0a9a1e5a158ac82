#include "targets/TargetKEL2FileWriter.h"

#include <cstring>
#include <new>

namespace Kel2File {

void* TargetKEL2FileWriter::operator new(std::size_t size) { return ::operator new(size); }

void* TargetKEL2FileWriter::operator new(std::size_t /*size*/, void* where) noexcept { return where; }

void TargetKEL2FileWriter::operator delete(void* memory) noexcept { ::operator delete(memory); }

void TargetKEL2FileWriter::operator delete(void* memory, void* where) noexcept {}

}  // namespace Kel2File

extern "C" KEL_API KEL::Filter* TargetKEL2FileWriterFilterCreator() {
    void* memory = Kel2File::TargetKEL2FileWriter::operator new(sizeof(Kel2File::TargetKEL2FileWriter));
    std::memset(memory, 0, sizeof(Kel2File::TargetKEL2FileWriter));
    return new (memory) Kel2File::TargetKEL2FileWriter();
}
