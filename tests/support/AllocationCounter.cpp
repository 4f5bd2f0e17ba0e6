#include "support/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SONTO_SANITIZED 1
#else
#define SONTO_SANITIZED 0
#endif

namespace {
thread_local bool tWatched = false;
std::atomic<uint64_t> gCount{0};

inline void note() {
  if (tWatched) gCount.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

namespace sonto::test {
void watchAllocationsOnThisThread(bool watch) { tWatched = watch; }
uint64_t watchedAllocations() { return gCount.load(); }
void resetWatchedAllocations() { gCount.store(0); }
bool countsMalloc() { return !SONTO_SANITIZED; }
}  // namespace sonto::test

#if !SONTO_SANITIZED
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t n) {
  note();
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t s) {
  note();
  return __libc_calloc(n, s);
}
void* realloc(void* p, size_t n) {
  note();
  return __libc_realloc(p, n);
}
}
#endif

void* operator new(size_t n) {
  note();
  void* p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t n) {
  note();
  void* p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  note();
  return std::malloc(n ? n : 1);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  note();
  return std::malloc(n ? n : 1);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
