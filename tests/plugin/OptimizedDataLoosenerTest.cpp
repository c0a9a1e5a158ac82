#include <gtest/gtest.h>

#include "optimization/OptimizedDataLoosener.h"
#include "support/TestSupport.h"

// What loosening does to atoms is checked together with the optimizer, on
// generated streams (DataOptimizerTest.cpp).

namespace {

TEST(OptimizedDataLoosener, EmptyAtomIsIgnored) {
    const Kel2File::OptimizedDataLoosener loosener(kel_test::MakeFirstAtom(1, 2), nullptr);
    EXPECT_NO_THROW(loosener.LoosenOptimizedDataToAtom(nullptr));
}

}  // namespace
