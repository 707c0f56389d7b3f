// The fake platform's one use of allocation-failure injection, without the
// injection: interposing the allocator would take the heap away from ASan.
#include "support/alloc_fail.h"

namespace allocfail {
Suspend::Suspend() {}
Suspend::~Suspend() {}
} // namespace allocfail
