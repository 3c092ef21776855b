// The allocation hook of all lower layers.
#include <gtest/gtest.h>

#include "loreg/loreg_alloc.h"
#include "support/test_allocator.h"

namespace {

TEST(LoregAlloc, NullAndAllOnesUseTheCLibrary) {
  void *a = loreg_malloc(nullptr, 16);
  void *b = loreg_malloc(LOREG_ALLOCATOR_DEFAULT, 16);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  loreg_free(nullptr, a);
  loreg_free(LOREG_ALLOCATOR_DEFAULT, b);
}

TEST(LoregAlloc, CustomAllocatorGetsContextSizeAndZero) {
  testsupport::TestAllocator alloc;
  void *block = loreg_malloc(alloc.handle(), 40);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(alloc.live_blocks(), 1u);
  EXPECT_EQ(alloc.live_bytes(), 40u);
  loreg_free(alloc.handle(), block);
  EXPECT_EQ(alloc.live_blocks(), 0u);
  loreg_free(alloc.handle(), nullptr);
  EXPECT_EQ(alloc.frees(), 1u) << "a null block is not handed to the allocator";
}

TEST(LoregAlloc, TestAllocatorFailsTheNthAllocation) {
  testsupport::TestAllocator alloc;
  alloc.fail_at(2);
  void *first = loreg_malloc(alloc.handle(), 8);
  EXPECT_NE(first, nullptr);
  EXPECT_FALSE(alloc.failed());
  EXPECT_EQ(loreg_malloc(alloc.handle(), 8), nullptr);
  EXPECT_TRUE(alloc.failed());
  void *third = loreg_malloc(alloc.handle(), 8);
  EXPECT_NE(third, nullptr);
  loreg_free(alloc.handle(), first);
  loreg_free(alloc.handle(), third);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
