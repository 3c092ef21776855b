// A loreg_allocator for tests: counts live blocks and bytes, and fails the
// N-th allocation on request (SQLite-style out-of-memory loops).
//
//   TestAllocator alloc;
//   for (int n = 1;; n++) {
//     alloc.fail_at(n);               // the n-th allocation from now fails
//     int rc = operation(alloc.handle());
//     if (!alloc.failed()) break;     // the operation reached no n-th allocation
//     ... assert rc == -12 and state unchanged ...
//   }
//   EXPECT_EQ(alloc.live_blocks(), 0);
//
// Thread-safe. The destructor does not free leaked blocks; tests assert
// live_blocks() themselves.
#ifndef TESTS_SUPPORT_TEST_ALLOCATOR_H
#define TESTS_SUPPORT_TEST_ALLOCATOR_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "loreg/loreg_alloc.h"

namespace testsupport {

class TestAllocator {
 public:
  TestAllocator();
  TestAllocator(const TestAllocator &) = delete;
  TestAllocator &operator=(const TestAllocator &) = delete;

  loreg_allocator *handle() { return &m_allocator; }

  // Fails the n-th allocation counted from now (1 = the next one); 0 never.
  void fail_at(uint64_t n);
  // Fails every allocation from the n-th on (1 = the next one); 0 never.
  void fail_from(uint64_t n);
  // Stops failing.
  void disarm();
  // True once an armed failure has been handed out since the last arming.
  bool failed() const;

  size_t live_blocks() const;
  size_t live_bytes() const;
  uint64_t allocations() const;  // successful allocations in total
  uint64_t frees() const;

 private:
  static void *alloc_cb(void *context, size_t size, int zero);
  static void free_cb(void *context, void *block);

  loreg_allocator m_allocator;
  mutable std::mutex m_mutex;
  std::unordered_map<void *, size_t> m_blocks;
  uint64_t m_counter = 0;     // allocations attempted since arming
  uint64_t m_fail_at = 0;     // 0: not armed
  bool m_fail_after = false;  // fail every attempt from m_fail_at on
  bool m_failed = false;
  uint64_t m_allocations = 0;
  uint64_t m_frees = 0;
  size_t m_live_bytes = 0;
};

}  // namespace testsupport

#endif
