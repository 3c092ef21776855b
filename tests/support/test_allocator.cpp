#include "support/test_allocator.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace testsupport {

TestAllocator::TestAllocator() {
  m_allocator.context = this;
  m_allocator.alloc = &TestAllocator::alloc_cb;
  m_allocator.free = &TestAllocator::free_cb;
}

void TestAllocator::fail_at(uint64_t n) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_counter = 0;
  m_fail_at = n;
  m_fail_after = false;
  m_failed = false;
}

void TestAllocator::fail_from(uint64_t n) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_counter = 0;
  m_fail_at = n;
  m_fail_after = true;
  m_failed = false;
}

void TestAllocator::disarm() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_fail_at = 0;
  m_fail_after = false;
}

bool TestAllocator::failed() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_failed;
}

size_t TestAllocator::live_blocks() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_blocks.size();
}

size_t TestAllocator::live_bytes() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_live_bytes;
}

uint64_t TestAllocator::allocations() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_allocations;
}

uint64_t TestAllocator::frees() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_frees;
}

void *TestAllocator::alloc_cb(void *context, size_t size, int zero) {
  auto *self = static_cast<TestAllocator *>(context);
  EXPECT_EQ(zero, 0) << "the third argument of alloc is always 0";
  std::lock_guard<std::mutex> lock(self->m_mutex);
  if (self->m_fail_at != 0) {
    self->m_counter++;
    bool fail = self->m_fail_after ? self->m_counter >= self->m_fail_at
                                   : self->m_counter == self->m_fail_at;
    if (fail) {
      self->m_failed = true;
      return nullptr;
    }
  }
  void *block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) return nullptr;
  self->m_blocks[block] = size;
  self->m_live_bytes += size;
  self->m_allocations++;
  return block;
}

void TestAllocator::free_cb(void *context, void *block) {
  auto *self = static_cast<TestAllocator *>(context);
  {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    auto it = self->m_blocks.find(block);
    if (it == self->m_blocks.end()) {
      ADD_FAILURE() << "free of a block this allocator did not hand out: " << block;
      return;
    }
    self->m_live_bytes -= it->second;
    self->m_blocks.erase(it);
    self->m_frees++;
  }
  std::free(block);
}

}  // namespace testsupport
