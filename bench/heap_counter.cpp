#include "heap_counter.h"

#include <atomic>
#include <new>

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};
std::atomic<long> g_bytes{0};
std::atomic<long> g_from_range{0};
const char* g_range_begin = nullptr;
const char* g_range_end = nullptr;

void count(size_t bytes, const void* caller) {
  if (!g_counting.load(std::memory_order_relaxed)) return;
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  g_bytes.fetch_add(static_cast<long>(bytes), std::memory_order_relaxed);
  const char* at = static_cast<const char*>(caller);
  if (at >= g_range_begin && at < g_range_end) g_from_range.fetch_add(1, std::memory_order_relaxed);
}

#define COUNT(bytes) count(bytes, __builtin_return_address(0))

// Inlined into operator new, so that the caller seen is new's caller.
inline __attribute__((always_inline)) void* new_block(size_t n) {
  COUNT(n);
  void* p = __libc_malloc(n == 0 ? 1 : n);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

namespace heap_counter {

void watch_callers(const void* begin, const void* end) {
  g_range_begin = static_cast<const char*>(begin);
  g_range_end = static_cast<const char*>(end);
}

void start() {
  g_allocations = 0;
  g_bytes = 0;
  g_from_range = 0;
  g_counting = true;
}

Tally stop() {
  g_counting = false;
  return Tally{g_allocations.load(), g_bytes.load(), g_from_range.load()};
}

}  // namespace heap_counter

extern "C" void* malloc(size_t n) {
  COUNT(n);
  return __libc_malloc(n);
}
extern "C" void* calloc(size_t a, size_t b) {
  COUNT(a * b);
  return __libc_calloc(a, b);
}
extern "C" void* realloc(void* p, size_t n) {
  COUNT(n);
  return __libc_realloc(p, n);
}
extern "C" void free(void* p) { __libc_free(p); }
void* operator new(size_t n) { return new_block(n); }
void* operator new[](size_t n) { return new_block(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  COUNT(n);
  return __libc_malloc(n == 0 ? 1 : n);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  COUNT(n);
  return __libc_malloc(n == 0 ? 1 : n);
}
void operator delete(void* p) noexcept { __libc_free(p); }
void operator delete[](void* p) noexcept { __libc_free(p); }
void operator delete(void* p, size_t) noexcept { __libc_free(p); }
void operator delete[](void* p, size_t) noexcept { __libc_free(p); }
