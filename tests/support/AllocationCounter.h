#pragma once
// Counts heap allocations made by threads that asked to be watched (the render
// thread of a test or benchmark). Catches operator new everywhere, and malloc,
// calloc and realloc in builds without a sanitizer (the sanitizers own malloc).

#include <cstdint>

namespace sonto::test {

// While a thread is watched, every allocation it makes is counted.
void watchAllocationsOnThisThread(bool watch);
uint64_t watchedAllocations();
void resetWatchedAllocations();
// True when malloc and friends are counted too, not only operator new.
bool countsMalloc();

// Watches the calling thread for its lifetime.
class ScopedAllocationWatch {
 public:
  ScopedAllocationWatch() { watchAllocationsOnThisThread(true); }
  ~ScopedAllocationWatch() { watchAllocationsOnThisThread(false); }
  ScopedAllocationWatch(const ScopedAllocationWatch&) = delete;
  ScopedAllocationWatch& operator=(const ScopedAllocationWatch&) = delete;
};

}  // namespace sonto::test
