// Failing allocations on demand, for tests of the code-3 paths of classes that allocate with the
// non-throwing operator new.
//
// Linking this file replaces every form of the global operator new and delete (all on malloc and
// free, so that they pair under a sanitizer). A test that calls FailNthNothrowAllocation pulls it
// into its program; other programs linking the test library keep the standard allocator.
//
//   Testing::FailNthNothrowAllocation(2);   // the second nothrow allocation from now fails
//   Library library;                        // ... and its status says which part failed
//   Testing::FailNthNothrowAllocation(0);   // none fails
#pragma once

namespace Quarn::Testing {

// From now on, the n-th call of the non-throwing operator new (1 = the next) returns null; 0 lets
// every allocation succeed again. Throwing allocations never fail. Returns how many nothrow
// allocations the previous setting still had to go before its failure (above 0: it never came).
int FailNthNothrowAllocation(int n);

}  // namespace Quarn::Testing
