#pragma once

// Symbol visibility for the two host libraries. Both are built with default
// visibility today; the macro marks the public surface so that a later switch
// to -fvisibility=hidden only needs this file.
#define KEL_API __attribute__((visibility("default")))
