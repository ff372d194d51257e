#pragma once

namespace ThreadHelper {

// For tests: as FailNextLocks, but the first attempts, that many, are left alone.
void FailLocksAfter(unsigned spared, unsigned count);

}  // namespace ThreadHelper
