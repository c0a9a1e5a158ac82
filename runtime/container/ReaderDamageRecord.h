#pragma once

#include <KEL/ReadKEL2File.h>

namespace KEL::container {

// Adds to what TakeReaderDamage returns (once per file and offset until it
// is taken). Thread-safe.
void RecordReaderDamage(ReaderDamage damage);

}  // namespace KEL::container
