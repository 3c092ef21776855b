// Counts heap allocations of the whole program, on every thread, while a
// MallocCounter lives. For programs that must show that a path allocates
// nothing (a test, a benchmark).
//
// Include this header in exactly one source file of a program: it defines
// malloc, calloc, realloc and free, which forward to glibc's own entry
// points (__libc_malloc and friends), so that the calls of the program and
// of every shared library it loads are seen. Sanitizer builds replace the
// allocator themselves; there nothing is defined and
// testsupport::kMallocCounting is false.
#ifndef TESTS_SUPPORT_MALLOC_COUNTER_H
#define TESTS_SUPPORT_MALLOC_COUNTER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace testsupport {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMallocCounting = false;
#else
constexpr bool kMallocCounting = true;
#endif

namespace malloc_counter_detail {
inline std::atomic<bool> g_on{false};
inline std::atomic<uint64_t> g_allocs{0};
inline std::atomic<uint64_t> g_frees{0};

inline void note(std::atomic<uint64_t> &counter) {
  if (g_on.load(std::memory_order_relaxed)) counter.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace malloc_counter_detail

// Counts from construction to destruction (or stop()). Not nestable.
class MallocCounter {
 public:
  MallocCounter() {
    malloc_counter_detail::g_allocs = 0;
    malloc_counter_detail::g_frees = 0;
    malloc_counter_detail::g_on = true;
  }
  ~MallocCounter() { stop(); }
  MallocCounter(const MallocCounter &) = delete;
  MallocCounter &operator=(const MallocCounter &) = delete;

  void stop() { malloc_counter_detail::g_on = false; }
  // malloc, calloc and realloc calls.
  uint64_t allocs() const { return malloc_counter_detail::g_allocs.load(); }
  // free calls with a non-null block.
  uint64_t frees() const { return malloc_counter_detail::g_frees.load(); }
};

}  // namespace testsupport

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size) noexcept {
  testsupport::malloc_counter_detail::note(testsupport::malloc_counter_detail::g_allocs);
  return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) noexcept {
  testsupport::malloc_counter_detail::note(testsupport::malloc_counter_detail::g_allocs);
  return __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) noexcept {
  testsupport::malloc_counter_detail::note(testsupport::malloc_counter_detail::g_allocs);
  return __libc_realloc(block, size);
}
void free(void *block) noexcept {
  if (block != nullptr) {
    testsupport::malloc_counter_detail::note(testsupport::malloc_counter_detail::g_frees);
  }
  __libc_free(block);
}
}
#endif

#endif
