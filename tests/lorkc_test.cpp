// Tests of the key container and its iterators.
#include "loreg/lorkc.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/log_capture.h"
#include "support/test_allocator.h"

namespace {

using testsupport::LogCapture;
using testsupport::TestAllocator;

// A key with its own storage for path and value.
struct Key {
  std::string path;
  std::string value;
  uint32_t flags = 0;
  bool null_path = false;
  bool null_value = false;

  lorc_key_struct view() const {
    lorc_key_struct k;
    k.path = null_path ? nullptr : path.c_str();
    k.flags = flags;
    k.value = null_value ? nullptr : value.data();
    k.value_len = static_cast<uint32_t>(value.size());
    return k;
  }
};

Key K(const std::string &path, const std::string &value, uint32_t flags = 0) {
  Key k;
  k.path = path;
  k.value = value;
  k.flags = flags;
  return k;
}

using Entry = std::tuple<std::string, uint32_t, std::string>;  // path, flags, value

int insert(lorkc_container *c, const Key &key) {
  lorc_key_struct k = key.view();
  return lorkc_insert(c, &k);
}

int modify(lorkc_container *c, const Key &key) {
  lorc_key_struct k = key.view();
  return lorkc_modify(c, &k);
}

std::string value_of(const lorc_key_struct &k) {
  return std::string(static_cast<const char *>(k.value), k.value_len);
}

// All keys, in order, as the iterator shows them.
std::vector<Entry> contents(lorkc_container *c) {
  std::vector<Entry> out;
  lorkc_it it;
  for (int rc = lorkc_it_first(c, &it); rc == 1; rc = lorkc_it_next(&it)) {
    out.emplace_back(it.key.path, it.key.flags, value_of(it.key));
  }
  return out;
}

lorkc_stat_info stat_of(lorkc_container *c) {
  lorkc_stat_info st;
  EXPECT_EQ(lorkc_stat(c, &st), 0);
  return st;
}

// Every byte behind the records has to be zero, so that nothing stale can
// look like a record.
void expect_free_bytes_zero(lorkc_container *c) {
  lorkc_stat_info st = stat_of(c);
  for (uint32_t i = st.used; i < c->size; i++) {
    ASSERT_EQ(c->data[i], 0) << "byte " << i << " of " << c->size << " behind " << st.used;
  }
}

uint32_t word_at(const lorkc_container *c, uint32_t offset) {
  uint32_t w;
  std::memcpy(&w, c->data + offset, 4);
  return w;
}

std::string ptr_text(const void *p) {
  char buf[64];
  std::snprintf(buf, sizeof(buf), "%p", p);
  return buf;
}

class LorkcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    c = lorkc_create(256, nullptr);
    ASSERT_NE(c, nullptr);
  }
  void TearDown() override {
    if (c != nullptr) {
      expect_free_bytes_zero(c);
      EXPECT_EQ(lorkc_destroy(c), 0);
    }
  }
  void fill_abc() {
    ASSERT_EQ(insert(c, K("a", "1", 0x1)), 0);
    ASSERT_EQ(insert(c, K("b", "22", 0x2)), 0);
    ASSERT_EQ(insert(c, K("c", "333", 0x3)), 0);
  }
  lorkc_container *c = nullptr;
};

// ---- creation, destruction, allocation ----

TEST(LorkcCreate, CreatesZeroedBufferAndLogsSuccess) {
  LogCapture log;
  TestAllocator alloc;
  lorkc_container *c = lorkc_create(64, alloc.handle());
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->magic, 0x434B4F4Cu);
  EXPECT_EQ(std::memcmp(&c->magic, "LOKC", 4), 0);
  EXPECT_EQ(c->allocator, alloc.handle());
  EXPECT_EQ(c->size, 64u);
  ASSERT_NE(c->data, nullptr);
  for (uint32_t i = 0; i < 64; i++) EXPECT_EQ(c->data[i], 0) << i;
  EXPECT_EQ(alloc.live_blocks(), 2u);
  char expected[128];
  std::snprintf(expected, sizeof(expected), "lorkc_create(0x%08x) success, size=64, align=4\n",
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(c)));
  EXPECT_TRUE(log.has_line(expected)) << log.dump();
  EXPECT_EQ(lorkc_destroy(c), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorkcCreate, EachFailedAllocationGivesNullAndLeaksNothing) {
  TestAllocator alloc;
  int failures = 0;
  for (uint64_t n = 1;; n++) {
    LogCapture log;
    alloc.fail_at(n);
    lorkc_container *c = lorkc_create(64, alloc.handle());
    if (!alloc.failed()) {
      ASSERT_NE(c, nullptr);
      EXPECT_EQ(lorkc_destroy(c), 0);
      break;
    }
    failures++;
    EXPECT_EQ(c, nullptr) << "allocation " << n;
    EXPECT_EQ(alloc.live_blocks(), 0u) << "allocation " << n;
    if (n == 1) {
      char expected[128];
      std::snprintf(expected, sizeof(expected),
                    "lorkc_create() failed to alloc %lu bytes containter struct\n",
                    static_cast<unsigned long>(sizeof(lorkc_container)));
      EXPECT_TRUE(log.has_line(expected)) << log.dump();
    } else {
      EXPECT_TRUE(log.has_line("lorkc_create() failed to alloc 64 bytes initial data buffer\n"))
          << log.dump();
    }
  }
  EXPECT_EQ(failures, 2);  // the record and the buffer
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorkcCreate, SizeZeroMakesOneAllocationAndNoBuffer) {
  TestAllocator alloc;
  alloc.fail_at(1);
  EXPECT_EQ(lorkc_create(0, alloc.handle()), nullptr);
  EXPECT_EQ(alloc.live_blocks(), 0u);
  alloc.fail_at(2);
  lorkc_container *c = lorkc_create(0, alloc.handle());
  ASSERT_NE(c, nullptr);
  EXPECT_FALSE(alloc.failed());
  EXPECT_EQ(c->data, nullptr);
  EXPECT_EQ(c->size, 0u);
  EXPECT_EQ(alloc.live_blocks(), 1u);
  EXPECT_EQ(lorkc_destroy(c), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorkcCreate, SizeZeroContainerIsFullAndEmpty) {
  LogCapture log;
  lorkc_container *c = lorkc_create(0, LOREG_ALLOCATOR_DEFAULT);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(insert(c, K("a", "")), -12);
  EXPECT_TRUE(log.has_line("lorkc_insert() not enough space to add 20 bytes to existing key.\n"))
      << log.dump();
  lorkc_it it;
  std::memset(&it, 0x5A, sizeof(it));
  EXPECT_EQ(lorkc_it_first(c, &it), 0);
  EXPECT_EQ(it.key.path, nullptr);
  EXPECT_EQ(it.key.value, nullptr);
  EXPECT_EQ(it.key.flags, 0u);
  EXPECT_EQ(it.key.value_len, 0u);
  EXPECT_EQ(it.index, 0);
  EXPECT_EQ(lorkc_it_valid(&it), 0);
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_EQ(lorkc_it_find(c, &it, "a"), 0);
  EXPECT_EQ(lorkc_it_findidx(c, &it, 0), 0);
  Key k_key = K("a", "");
  lorc_key_struct k = k_key.view();
  EXPECT_EQ(lorkc_it_insert(&it, &k), -12);
  EXPECT_EQ(lorkc_remove(c, "a"), -2);
  EXPECT_EQ(lorkc_reset(c), 0);
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.size, 0u);
  EXPECT_EQ(st.used, 0u);
  EXPECT_EQ(st.count, 0u);
  EXPECT_EQ(st.allocator, LOREG_ALLOCATOR_DEFAULT);
  EXPECT_EQ(lorkc_destroy(c), 0);
}

// ---- handle and argument checks ----

TEST(LorkcChecks, NullContainerHandleIsRefusedEverywhere) {
  LogCapture log;
  const std::string nil = ptr_text(nullptr);
  Key k_key = K("a", "1");
  lorc_key_struct k = k_key.view();
  lorkc_stat_info st;
  lorkc_it it;
  EXPECT_EQ(lorkc_destroy(nullptr), -22);
  EXPECT_EQ(lorkc_reset(nullptr), -22);
  EXPECT_EQ(lorkc_stat(nullptr, &st), -22);
  EXPECT_EQ(lorkc_insert(nullptr, &k), -22);
  EXPECT_EQ(lorkc_modify(nullptr, &k), -22);
  EXPECT_EQ(lorkc_remove(nullptr, "a"), -22);
  EXPECT_EQ(lorkc_it_first(nullptr, &it), -22);
  EXPECT_EQ(lorkc_it_findidx(nullptr, &it, 0), -22);
  EXPECT_EQ(lorkc_it_find(nullptr, &it, "a"), -22);
  for (const char *name :
       {"lorkc_destroy", "lorkc_reset", "lorkc_stat", "lorkc_insert", "lorkc_modify",
        "lorkc_remove", "lorkc_it_first", "lorkc_it_findidx", "lorkc_it_find"}) {
    EXPECT_TRUE(log.has_line(std::string(name) + "(" + nil + ") invalid container handle given.\n"))
        << name << "\n"
        << log.dump();
  }
}

TEST(LorkcChecks, WrongMagicIsRefused) {
  LogCapture log;
  lorkc_container fake;
  std::memset(&fake, 0, sizeof(fake));  // a destroyed container has magic 0
  Key k_key = K("a", "1");
  lorc_key_struct k = k_key.view();
  EXPECT_EQ(lorkc_insert(&fake, &k), -22);
  EXPECT_TRUE(
      log.has_line("lorkc_insert(" + ptr_text(&fake) + ") invalid container handle given.\n"))
      << log.dump();
  fake.magic = 0x4C4F5253u;  // some other record's magic
  EXPECT_EQ(lorkc_reset(&fake), -22);
  EXPECT_EQ(lorkc_destroy(&fake), -22);
}

TEST(LorkcChecks, StatZeroesFirstAndRefusesNull) {
  LogCapture log;
  lorkc_stat_info st;
  std::memset(&st, 0xEE, sizeof(st));
  EXPECT_EQ(lorkc_stat(nullptr, &st), -22);
  EXPECT_EQ(st.allocator, nullptr);
  EXPECT_EQ(st.size, 0u);
  EXPECT_EQ(st.used, 0u);
  EXPECT_EQ(st.count, 0u);
  lorkc_container *c = lorkc_create(32, nullptr);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(lorkc_stat(c, nullptr), -22);
  EXPECT_TRUE(log.has_line("lorkc_stat(stat=NULL) can't write to NULL pointer.\n")) << log.dump();
  EXPECT_EQ(lorkc_destroy(c), 0);
}

TEST_F(LorkcTest, NullIteratorIsRefusedEverywhere) {
  LogCapture log;
  Key k_key = K("a", "1");
  lorc_key_struct k = k_key.view();
  EXPECT_EQ(lorkc_it_first(c, nullptr), -22);
  EXPECT_EQ(lorkc_it_next(nullptr), -22);
  EXPECT_EQ(lorkc_it_findidx(c, nullptr, 0), -22);
  EXPECT_EQ(lorkc_it_find(c, nullptr, "a"), -22);
  EXPECT_EQ(lorkc_it_valid(nullptr), 0);
  EXPECT_EQ(lorkc_it_chflags(nullptr, 1), -22);
  EXPECT_EQ(lorkc_it_modify(nullptr, &k), -22);
  EXPECT_EQ(lorkc_it_remove(nullptr), -22);
  EXPECT_EQ(lorkc_it_insert(nullptr, &k), -22);
  for (const char *name :
       {"lorkc_it_first", "lorkc_it_next", "lorkc_it_findidx", "lorkc_it_find", "lorkc_it_valid",
        "lorkc_it_chflags", "lorkc_it_modify", "lorkc_it_remove", "lorkc_it_insert"}) {
    EXPECT_TRUE(log.has_line(std::string(name) + "() iterator pointer is NULL.\n")) << name << "\n"
                                                                                    << log.dump();
  }
}

TEST_F(LorkcTest, IteratorWithInvalidContainerIsRefused) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_first(c, &it), 1);
  lorkc_container fake;
  std::memset(&fake, 0, sizeof(fake));
  it.container = &fake;
  LogCapture log;
  Key k_key = K("x", "1");
  lorc_key_struct k = k_key.view();
  EXPECT_EQ(lorkc_it_next(&it), -22);
  EXPECT_EQ(lorkc_it_valid(&it), 0);
  EXPECT_EQ(lorkc_it_chflags(&it, 1), -22);
  EXPECT_EQ(lorkc_it_modify(&it, &k), -22);
  EXPECT_EQ(lorkc_it_remove(&it), -22);
  EXPECT_EQ(lorkc_it_insert(&it, &k), -22);
  EXPECT_TRUE(
      log.has_line("lorkc_it_next(" + ptr_text(&fake) + ") invalid container handle given.\n"))
      << log.dump();
  EXPECT_TRUE(
      log.has_line("lorkc_it_valid(" + ptr_text(&fake) + ") invalid container handle given.\n"));
  it.container = nullptr;
  EXPECT_EQ(lorkc_it_next(&it), -22);
  EXPECT_TRUE(
      log.has_line("lorkc_it_next(" + ptr_text(nullptr) + ") invalid container handle given.\n"));
  EXPECT_EQ(contents(c).size(), 3u);
}

TEST_F(LorkcTest, NullKeyIsRefused) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_first(c, &it), 1);
  EXPECT_EQ(lorkc_insert(c, nullptr), -22);
  EXPECT_EQ(lorkc_modify(c, nullptr), -22);
  EXPECT_EQ(lorkc_it_modify(&it, nullptr), -22);
  EXPECT_EQ(lorkc_it_insert(&it, nullptr), -22);
  EXPECT_EQ(contents(c).size(), 3u);
}

// ---- record layout and sizes ----

TEST(LorkcPredict, Sizes) {
  EXPECT_EQ(lorkc_predict_size(nullptr), 0u);
  Key a = K("a", "");
  lorc_key_struct ka = a.view();
  EXPECT_EQ(lorkc_predict_size(&ka), 20u);
  Key null_both;
  null_both.null_path = true;
  null_both.null_value = true;
  null_both.value = "ignored";  // value_len 7 counts only with a value
  lorc_key_struct k = null_both.view();
  EXPECT_EQ(k.value_len, 7u);
  EXPECT_EQ(lorkc_predict_size(&k), 20u);  // 18 rounded up
  Key k_key11 = K("abc", "hello");
  k = k_key11.view();
  EXPECT_EQ(lorkc_predict_size(&k), 28u);  // 18 + 3 + 5 = 26
  Key k_key12 = K("ab", "");
  k = k_key12.view();
  EXPECT_EQ(lorkc_predict_size(&k), 20u);  // 20 exactly
  Key k_key13 = K("abc", "");
  k = k_key13.view();
  EXPECT_EQ(lorkc_predict_size(&k), 24u);  // 21
}

TEST_F(LorkcTest, KeyAWithoutValueTakesExactly20Bytes) {
  LogCapture log;
  Key a = K("a", "", 0x11223344);
  a.null_value = true;
  ASSERT_EQ(insert(c, a), 0);
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.used, 20u);
  EXPECT_EQ(st.count, 1u);
  EXPECT_EQ(st.size, 256u);
  EXPECT_EQ(st.allocator, nullptr);
  // magic "KEYH", flags, value offset 17 + 1, value length 0, "a", 0, 0
  EXPECT_EQ(std::memcmp(c->data, "KEYH", 4), 0);
  EXPECT_EQ(word_at(c, 0), 0x4859454Bu);
  EXPECT_EQ(word_at(c, 4), 0x11223344u);
  EXPECT_EQ(word_at(c, 8), 18u);
  EXPECT_EQ(word_at(c, 12), 0u);
  EXPECT_EQ(c->data[16], 'a');
  EXPECT_EQ(c->data[17], 0);
  EXPECT_EQ(c->data[18], 0);
  // The next record would start at 20.
  ASSERT_EQ(insert(c, K("b", "xy")), 0);
  EXPECT_EQ(word_at(c, 20), 0x4859454Bu);
  EXPECT_EQ(stat_of(c).used, 20u + 24u);
  EXPECT_TRUE(log.has_line("lorkc_insert(a) success, (grown by 20 to 20 bytes usage)\n"))
      << log.dump();
  EXPECT_TRUE(log.has_line("lorkc_insert(b) success, (grown by 24 to 44 bytes usage)\n"));
}

TEST_F(LorkcTest, RecordLayoutWithValue) {
  ASSERT_EQ(insert(c, K("/p/q", std::string("v\0w", 3), 7)), 0);
  EXPECT_EQ(word_at(c, 4), 7u);
  EXPECT_EQ(word_at(c, 8), 21u);  // 17 + 4
  EXPECT_EQ(word_at(c, 12), 3u);
  EXPECT_STREQ(reinterpret_cast<const char *>(c->data + 16), "/p/q");
  EXPECT_EQ(std::memcmp(c->data + 21, "v\0w\0", 4), 0);
  EXPECT_EQ(stat_of(c).used, 28u);  // 21 + 3 + 4 = 28
  auto all = contents(c);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0], Entry("/p/q", 7u, std::string("v\0w", 3)));
}

TEST_F(LorkcTest, NullPathAndNullValueAreStoredEmpty) {
  Key k = K("", "abc", 5);
  k.null_path = true;
  k.null_value = true;
  ASSERT_EQ(insert(c, k), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("", 5u, "")}));
  lorkc_it it;
  EXPECT_EQ(lorkc_it_find(c, &it, ""), 1);
  EXPECT_EQ(lorkc_it_find(c, &it, nullptr), 1);
  // A null path finds the same record again.
  ASSERT_EQ(insert(c, k), 0);
  EXPECT_EQ(stat_of(c).count, 1u);
  EXPECT_EQ(lorkc_remove(c, nullptr), 0);
  EXPECT_EQ(stat_of(c).count, 0u);
}

// ---- insert, modify, remove ----

TEST_F(LorkcTest, InsertingTheSamePathTwiceKeepsOneRecordWithTheSecondValue) {
  ASSERT_EQ(insert(c, K("/x", "first", 1)), 0);
  ASSERT_EQ(insert(c, K("/x", "second!", 2)), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("/x", 2u, "second!")}));
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.count, 1u);
  EXPECT_EQ(st.used, 28u);  // 18 + 2 + 7 = 27
}

TEST_F(LorkcTest, InsertAppendsInOrder) {
  fill_abc();
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 2u, "22"), Entry("c", 3u, "333")}));
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.count, 3u);
  EXPECT_EQ(st.used, 20u + 24u + 24u);
}

TEST_F(LorkcTest, LongerValueInTheMiddleKeepsOrderAndMovesTheRest) {
  fill_abc();
  LogCapture log;
  ASSERT_EQ(word_at(c, 44), 0x4859454Bu);  // c starts at 20 + 24
  ASSERT_EQ(modify(c, K("b", "a much longer value", 0x20)), 0);
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 0x20u, "a much longer value"),
                                Entry("c", 3u, "333")}));
  // b grew from 24 to 40 bytes, so c moved from 44 to 60.
  EXPECT_EQ(word_at(c, 60), 0x4859454Bu);
  EXPECT_STREQ(reinterpret_cast<const char *>(c->data + 76), "c");
  EXPECT_EQ(stat_of(c).used, 84u);
  EXPECT_TRUE(log.has_line("lorkc_modify(b) success, (grown by 16 to 84 bytes usage)\n"))
      << log.dump();
}

TEST_F(LorkcTest, SameSizeReplacementMovesNothing) {
  fill_abc();
  LogCapture log;
  ASSERT_EQ(modify(c, K("b", "xy", 9)), 0);  // 24 bytes, as "22" was
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 9u, "xy"), Entry("c", 3u, "333")}));
  EXPECT_EQ(stat_of(c).used, 68u);
  EXPECT_EQ(word_at(c, 44), 0x4859454Bu);
  EXPECT_TRUE(log.has_line("lorkc_modify(b) success, (usage level maintained)\n")) << log.dump();
}

TEST_F(LorkcTest, ShorterValueShrinksAndZeroesTheFreedBytes) {
  ASSERT_EQ(insert(c, K("a", "1")), 0);
  ASSERT_EQ(insert(c, K("b", "0123456789")), 0);  // 18 + 1 + 10 = 29 -> 32
  ASSERT_EQ(insert(c, K("c", "333")), 0);
  ASSERT_EQ(stat_of(c).used, 20u + 32u + 24u);
  LogCapture log;
  ASSERT_EQ(insert(c, K("b", "")), 0);
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("a", 0u, "1"), Entry("b", 0u, ""), Entry("c", 0u, "333")}));
  EXPECT_EQ(stat_of(c).used, 64u);
  EXPECT_TRUE(log.has_line("lorkc_insert(b) success, (usage shrinked by 12 bytes)\n"))
      << log.dump();
  expect_free_bytes_zero(c);
}

TEST_F(LorkcTest, ValuePointingIntoALaterRecordCopiesTheRightBytes) {
  ASSERT_EQ(insert(c, K("a", "1")), 0);
  ASSERT_EQ(insert(c, K("b", "22")), 0);
  ASSERT_EQ(insert(c, K("c", "a value from a later record")), 0);
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "c"), 1);
  // Growing: a's record grows, and the source moves with the tail.
  lorc_key_struct k = {"a", 4, it.key.value, it.key.value_len};
  ASSERT_EQ(lorkc_modify(c, &k), 0);
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("a", 4u, "a value from a later record"), Entry("b", 0u, "22"),
                                Entry("c", 0u, "a value from a later record")}));
  // Shrinking: a long value replaced by a short one that lies in c.
  ASSERT_EQ(insert(c, K("c", "xyz")), 0);
  ASSERT_EQ(lorkc_it_find(c, &it, "c"), 1);
  k = {"a", 5, it.key.value, it.key.value_len};
  ASSERT_EQ(lorkc_modify(c, &k), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 5u, "xyz"), Entry("b", 0u, "22"),
                                             Entry("c", 0u, "xyz")}));
  // The path may lie in a later record as well.
  ASSERT_EQ(insert(c, K("a/long/path", "v")), 0);
  ASSERT_EQ(lorkc_it_find(c, &it, "a/long/path"), 1);
  lorkc_it first;
  ASSERT_EQ(lorkc_it_first(c, &first), 1);
  k = {it.key.path, 6, "w", 1};
  ASSERT_EQ(lorkc_it_modify(&first, &k), 0);  // a becomes a second "a/long/path"
  auto all = contents(c);
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0], Entry("a/long/path", 6u, "w"));
  EXPECT_EQ(all[3], Entry("a/long/path", 0u, "v"));
}

TEST_F(LorkcTest, ModifyAndRemoveOfUnknownPathGiveENOENT) {
  fill_abc();
  LogCapture log;
  EXPECT_EQ(modify(c, K("zz", "1")), -2);
  EXPECT_TRUE(log.has_line("lorkc_modify() path 'zz' not found in container.\n")) << log.dump();
  EXPECT_EQ(lorkc_remove(c, "yy"), -2);
  EXPECT_TRUE(log.has_line("lorkc_remove() path 'yy' not found in container.\n")) << log.dump();
  EXPECT_EQ(contents(c).size(), 3u);
}

TEST_F(LorkcTest, RemoveTakesTheRecordOutAndZeroesTheEnd) {
  fill_abc();
  LogCapture log;
  EXPECT_EQ(lorkc_remove(c, "a"), 0);
  EXPECT_TRUE(log.has_line("lorkc_remove(<deleted>) success, (usage shrinked by 20 bytes)\n"))
      << log.dump();
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("b", 2u, "22"), Entry("c", 3u, "333")}));
  expect_free_bytes_zero(c);
  EXPECT_EQ(lorkc_remove(c, "c"), 0);
  EXPECT_EQ(lorkc_remove(c, "b"), 0);
  EXPECT_EQ(stat_of(c).count, 0u);
  for (uint32_t i = 0; i < c->size; i++) ASSERT_EQ(c->data[i], 0) << i;
}

TEST_F(LorkcTest, ResetEmptiesTheList) {
  fill_abc();
  ASSERT_EQ(stat_of(c).count, 3u);
  EXPECT_EQ(lorkc_reset(c), 0);
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.used, 0u);
  EXPECT_EQ(st.count, 0u);
  EXPECT_EQ(st.size, 256u);
  lorkc_it it;
  EXPECT_EQ(lorkc_it_first(c, &it), 0);
  for (uint32_t i = 0; i < c->size; i++) ASSERT_EQ(c->data[i], 0) << i;
}

// ---- a full buffer ----

// Fills a 60-byte buffer with three 20-byte keys: no word behind the last
// record is left to end the list.
class LorkcFullTest : public ::testing::Test {
 protected:
  void SetUp() override {
    c = lorkc_create(60, alloc.handle());  // exact-size blocks: ASan sees any overread
    ASSERT_NE(c, nullptr);
    ASSERT_EQ(insert(c, K("a", "1", 1)), 0);
    ASSERT_EQ(insert(c, K("b", "2", 2)), 0);
    ASSERT_EQ(insert(c, K("c", "3", 3)), 0);
    before.assign(c->data, c->data + c->size);
  }
  void TearDown() override {
    EXPECT_EQ(lorkc_destroy(c), 0);
    EXPECT_EQ(alloc.live_blocks(), 0u);
  }
  void expect_unchanged() { EXPECT_EQ(std::vector<uint8_t>(c->data, c->data + c->size), before); }
  TestAllocator alloc;
  lorkc_container *c = nullptr;
  std::vector<uint8_t> before;
};

TEST_F(LorkcFullTest, WalkStopsAtTheEndOfTheBuffer) {
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.used, 60u);
  EXPECT_EQ(st.count, 3u);
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 2u, "2"), Entry("c", 3u, "3")}));
  lorkc_it it;
  EXPECT_EQ(lorkc_it_find(c, &it, "nope"), 0);
  EXPECT_EQ(it.position, c->data + 60);
  EXPECT_EQ(it.index, 3);
  EXPECT_EQ(lorkc_it_valid(&it), 0);
  EXPECT_EQ(lorkc_it_findidx(c, &it, 3), 0);
  EXPECT_EQ(it.position, c->data + 60);
  ASSERT_EQ(lorkc_it_findidx(c, &it, 2), 1);
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_EQ(it.position, c->data + 60);
  EXPECT_EQ(lorkc_it_next(&it), 0);
  expect_unchanged();
}

TEST_F(LorkcFullTest, FailedGrowthLeavesTheBufferUnchanged) {
  LogCapture log;
  EXPECT_EQ(insert(c, K("d", "")), -12);
  EXPECT_TRUE(log.has_line("lorkc_insert() not enough space to add 20 bytes to existing key.\n"))
      << log.dump();
  expect_unchanged();
  EXPECT_EQ(modify(c, K("b", "longer")), -12);
  EXPECT_TRUE(log.has_line("lorkc_modify() not enough space to add 8 bytes to existing key.\n"))
      << log.dump();
  expect_unchanged();
  EXPECT_EQ(insert(c, K("a", "longer")), -12);
  expect_unchanged();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  Key k_key = K("bb", "22222");
  lorc_key_struct k = k_key.view();
  EXPECT_EQ(lorkc_it_modify(&it, &k), -12);
  EXPECT_EQ(lorkc_it_insert(&it, &k), -12);
  expect_unchanged();
  // The iterator still stands on b, unchanged.
  EXPECT_EQ(lorkc_it_valid(&it), 1);
  EXPECT_STREQ(it.key.path, "b");
  EXPECT_EQ(it.index, 1);
  // Same size still works in a full buffer; removal makes room.
  EXPECT_EQ(modify(c, K("b", "9", 9)), 0);
  EXPECT_EQ(lorkc_remove(c, "a"), 0);
  EXPECT_EQ(insert(c, K("d", "4")), 0);
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("b", 9u, "9"), Entry("c", 3u, "3"), Entry("d", 0u, "4")}));
}

TEST(LorkcSizes, BufferSizeNotAMultipleOfFour) {
  TestAllocator alloc;
  lorkc_container *c = lorkc_create(22, alloc.handle());
  ASSERT_NE(c, nullptr);
  ASSERT_EQ(insert(c, K("a", "")), 0);
  EXPECT_EQ(insert(c, K("b", "")), -12);
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.used, 20u);
  EXPECT_EQ(st.count, 1u);
  lorkc_it it;
  EXPECT_EQ(lorkc_it_first(c, &it), 1);
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_EQ(lorkc_destroy(c), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// ---- iterators ----

TEST_F(LorkcTest, IteratorWalksAllKeysAndStaysAtTheEnd) {
  fill_abc();
  LogCapture log;
  lorkc_it it;
  ASSERT_EQ(lorkc_it_first(c, &it), 1);
  EXPECT_EQ(it.container, c);
  EXPECT_EQ(it.index, 0);
  EXPECT_EQ(it.position, c->data);
  EXPECT_STREQ(it.key.path, "a");
  EXPECT_EQ(it.key.flags, 1u);
  EXPECT_EQ(value_of(it.key), "1");
  // The view points into the buffer.
  EXPECT_EQ(reinterpret_cast<const uint8_t *>(it.key.path), c->data + 16);
  EXPECT_EQ(static_cast<const uint8_t *>(it.key.value), c->data + 18);
  EXPECT_TRUE(log.has_line("lorkc_it_first() success, (a)\n")) << log.dump();
  ASSERT_EQ(lorkc_it_next(&it), 1);
  EXPECT_EQ(it.index, 1);
  EXPECT_EQ(it.position, c->data + 20);
  EXPECT_STREQ(it.key.path, "b");
  EXPECT_TRUE(log.has_line("lorkc_it_next() success, idx=1 (b)\n")) << log.dump();
  ASSERT_EQ(lorkc_it_next(&it), 1);
  EXPECT_EQ(it.index, 2);
  EXPECT_EQ(value_of(it.key), "333");
  EXPECT_EQ(lorkc_it_valid(&it), 1);
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_TRUE(log.has_line("lorkc_it_next() success, idx=3 (<end>)\n")) << log.dump();
  EXPECT_EQ(it.key.path, nullptr);
  EXPECT_EQ(it.key.value, nullptr);
  EXPECT_EQ(it.key.flags, 0u);
  EXPECT_EQ(it.key.value_len, 0u);
  EXPECT_EQ(lorkc_it_valid(&it), 0);
  lorkc_it at_end = it;
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_EQ(std::memcmp(&at_end, &it, sizeof(it)), 0);
}

TEST_F(LorkcTest, FirstOnAnEmptyListClearsTheView) {
  LogCapture log;
  lorkc_it it;
  std::memset(&it, 0x77, sizeof(it));
  EXPECT_EQ(lorkc_it_first(c, &it), 0);
  EXPECT_EQ(it.key.path, nullptr);
  EXPECT_EQ(it.key.value_len, 0u);
  EXPECT_EQ(it.index, 0);
  EXPECT_EQ(it.position, c->data);
  EXPECT_TRUE(log.has_line("lorkc_it_first() success, (<end>)\n")) << log.dump();
}

TEST_F(LorkcTest, FindidxPositionsByNumber) {
  fill_abc();
  LogCapture log;
  lorkc_it it;
  ASSERT_EQ(lorkc_it_findidx(c, &it, 2), 1);
  EXPECT_EQ(it.index, 2);
  EXPECT_STREQ(it.key.path, "c");
  EXPECT_TRUE(log.has_line("lorkc_it_findidx( index 2 ): found\n")) << log.dump();
  ASSERT_EQ(lorkc_it_findidx(c, &it, 0), 1);
  EXPECT_STREQ(it.key.path, "a");
  ASSERT_EQ(lorkc_it_findidx(c, &it, -5), 1);
  EXPECT_STREQ(it.key.path, "a");
  EXPECT_EQ(it.index, 0);
  EXPECT_EQ(lorkc_it_findidx(c, &it, 3), 0);
  EXPECT_TRUE(log.has_line("lorkc_it_findidx( index 3 ): not found\n")) << log.dump();
  EXPECT_EQ(it.key.path, nullptr);
  EXPECT_EQ(it.position, c->data + 68);  // the end of the list
  EXPECT_EQ(lorkc_it_valid(&it), 0);
}

TEST_F(LorkcTest, FindPositionsByPath) {
  fill_abc();
  LogCapture log;
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  EXPECT_EQ(it.index, 1);
  EXPECT_EQ(it.position, c->data + 20);
  EXPECT_EQ(value_of(it.key), "22");
  EXPECT_TRUE(log.has_line("lorkc_it_find(b): found at index 1\n")) << log.dump();
  EXPECT_EQ(lorkc_it_find(c, &it, "bb"), 0);
  EXPECT_TRUE(log.has_line("lorkc_it_find(bb): not found up to index 3\n")) << log.dump();
  EXPECT_EQ(it.key.path, nullptr);
  EXPECT_EQ(it.position, c->data + 68);
  EXPECT_EQ(it.index, 3);
}

TEST_F(LorkcTest, ChflagsChangesTheRecordButNotTheView) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  LogCapture log;
  ASSERT_EQ(lorkc_it_chflags(&it, 0xABC), 0);
  EXPECT_TRUE(log.has_line("lorkc_it_chflags() success, (old:0x00000002, new:0x00000abc)\n"))
      << log.dump();
  EXPECT_EQ(it.key.flags, 2u);        // the view still shows the old flags
  EXPECT_EQ(word_at(c, 24), 0xABCu);  // the record has the new ones
  ASSERT_EQ(lorkc_it_next(&it), 1);
  ASSERT_EQ(lorkc_it_findidx(c, &it, 1), 1);
  EXPECT_EQ(it.key.flags, 0xABCu);
}

TEST_F(LorkcTest, OperationsOnAnIteratorWithoutKeyGiveENOENT) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_findidx(c, &it, 9), 0);
  LogCapture log;
  Key k_key = K("x", "1");
  lorc_key_struct k = k_key.view();
  EXPECT_EQ(lorkc_it_chflags(&it, 1), -2);
  EXPECT_EQ(lorkc_it_modify(&it, &k), -2);
  EXPECT_EQ(lorkc_it_remove(&it), -2);
  for (const char *name : {"lorkc_it_chflags", "lorkc_it_modify", "lorkc_it_remove"}) {
    EXPECT_TRUE(log.has_line(std::string(name) + "() iterator does not reference a key.\n"))
        << name << "\n"
        << log.dump();
  }
  EXPECT_EQ(contents(c).size(), 3u);
}

TEST_F(LorkcTest, ItModifyKeepsTheIteratorOnTheRefreshedRecord) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  Key k_key = K("b", "a longer value for b", 0x40);
  lorc_key_struct k = k_key.view();
  ASSERT_EQ(lorkc_it_modify(&it, &k), 0);
  EXPECT_EQ(it.index, 1);
  EXPECT_EQ(it.position, c->data + 20);
  EXPECT_STREQ(it.key.path, "b");
  EXPECT_EQ(it.key.flags, 0x40u);
  EXPECT_EQ(value_of(it.key), "a longer value for b");
  ASSERT_EQ(lorkc_it_next(&it), 1);
  EXPECT_STREQ(it.key.path, "c");
  EXPECT_EQ(value_of(it.key), "333");
}

TEST_F(LorkcTest, ItModifyWithItsOwnView) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  // The view itself as the key, with new flags: same size, in place.
  it.key.flags = 0x99;
  ASSERT_EQ(lorkc_it_modify(&it, &it.key), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 0x99u, "22"),
                                             Entry("c", 3u, "333")}));
  // Own path, shorter own value.
  lorc_key_struct k = it.key;
  k.value_len = 1;
  ASSERT_EQ(lorkc_it_modify(&it, &k), 0);
  EXPECT_EQ(value_of(it.key), "2");
}

TEST_F(LorkcTest, ItModifyShorterPathWithOwnValue) {
  ASSERT_EQ(insert(c, K("a/very/long/path/name", "VALUE", 1)), 0);  // 18+21+5 = 44
  ASSERT_EQ(insert(c, K("next", "n", 2)), 0);
  lorkc_it it;
  ASSERT_EQ(lorkc_it_first(c, &it), 1);
  // The record shrinks by 20 bytes, while its new value is taken from its
  // own old value.
  lorc_key_struct k = {"p", 3, it.key.value, it.key.value_len};
  ASSERT_EQ(lorkc_it_modify(&it, &k), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("p", 3u, "VALUE"), Entry("next", 2u, "n")}));
  EXPECT_EQ(stat_of(c).used, 24u + 24u);
}

TEST_F(LorkcTest, ItModifyLongerPathWithOwnValue) {
  ASSERT_EQ(insert(c, K("a", "VALUE", 1)), 0);  // 18 + 1 + 5 = 24
  ASSERT_EQ(insert(c, K("next", "n", 2)), 0);
  lorkc_it it;
  ASSERT_EQ(lorkc_it_first(c, &it), 1);
  // The new path covers the old value, which has to be copied away first.
  lorc_key_struct k = {"abcdef", 3, it.key.value, it.key.value_len};
  ASSERT_EQ(lorkc_it_modify(&it, &k), 0);
  EXPECT_EQ(contents(c),
            (std::vector<Entry>{Entry("abcdef", 3u, "VALUE"), Entry("next", 2u, "n")}));
  EXPECT_EQ(stat_of(c).used, 32u + 24u);
}

TEST_F(LorkcTest, ItRemoveInTheMiddleStandsOnTheFollowingKey) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  LogCapture log;
  ASSERT_EQ(lorkc_it_remove(&it), 0);
  EXPECT_TRUE(log.has_line("lorkc_it_remove(<deleted>) success, (usage shrinked by 24 bytes)\n"))
      << log.dump();
  EXPECT_EQ(it.index, 1);
  EXPECT_EQ(lorkc_it_valid(&it), 1);
  EXPECT_STREQ(it.key.path, "c");
  EXPECT_EQ(value_of(it.key), "333");
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 1u, "1"), Entry("c", 3u, "333")}));
}

TEST_F(LorkcTest, ItRemoveOnTheLastKeyLeavesTheIteratorInvalid) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_findidx(c, &it, 2), 1);
  ASSERT_EQ(lorkc_it_remove(&it), 0);
  EXPECT_EQ(lorkc_it_valid(&it), 0);
  EXPECT_EQ(it.index, 2);
  EXPECT_EQ(it.key.path, nullptr);
  EXPECT_EQ(it.key.value, nullptr);
  EXPECT_EQ(it.position, c->data + 44);
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 2u, "22")}));
}

TEST_F(LorkcTest, RemovingAllByIterator) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_first(c, &it), 1);
  while (lorkc_it_valid(&it)) ASSERT_EQ(lorkc_it_remove(&it), 0);
  EXPECT_EQ(it.index, 0);
  EXPECT_EQ(stat_of(c).count, 0u);
}

TEST_F(LorkcTest, ItInsertGoesInFrontOfTheCurrentKey) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "b"), 1);
  Key k_key = K("new", "N", 0x7);
  lorc_key_struct k = k_key.view();
  ASSERT_EQ(lorkc_it_insert(&it, &k), 0);
  EXPECT_EQ(it.index, 1);
  EXPECT_STREQ(it.key.path, "new");
  EXPECT_EQ(it.key.flags, 7u);
  EXPECT_EQ(value_of(it.key), "N");
  ASSERT_EQ(lorkc_it_next(&it), 1);
  EXPECT_STREQ(it.key.path, "b");
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 1u, "1"), Entry("new", 7u, "N"),
                                             Entry("b", 2u, "22"), Entry("c", 3u, "333")}));
}

TEST_F(LorkcTest, ItInsertOfTheCurrentViewDuplicatesTheKey) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "c"), 1);
  // The key points into the record that moves away to make room.
  ASSERT_EQ(lorkc_it_insert(&it, &it.key), 0);
  EXPECT_EQ(it.index, 2);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 2u, "22"),
                                             Entry("c", 3u, "333"), Entry("c", 3u, "333")}));
  // The path is not checked: two records share it, the first is found.
  ASSERT_EQ(lorkc_it_find(c, &it, "c"), 1);
  EXPECT_EQ(it.index, 2);
}

TEST_F(LorkcTest, ItInsertWithoutPositionAppends) {
  fill_abc();
  lorkc_it it;
  ASSERT_EQ(lorkc_it_find(c, &it, "none"), 0);
  Key k_key = K("a", "again");
  lorc_key_struct k = k_key.view();
  ASSERT_EQ(lorkc_it_insert(&it, &k), 0);
  EXPECT_EQ(it.index, 3);
  EXPECT_EQ(lorkc_it_valid(&it), 1);
  EXPECT_STREQ(it.key.path, "a");
  EXPECT_EQ(value_of(it.key), "again");
  EXPECT_EQ(lorkc_it_next(&it), 0);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 1u, "1"), Entry("b", 2u, "22"),
                                             Entry("c", 3u, "333"), Entry("a", 0u, "again")}));
  // Into an empty container.
  ASSERT_EQ(lorkc_reset(c), 0);
  ASSERT_EQ(lorkc_it_first(c, &it), 0);
  ASSERT_EQ(lorkc_it_insert(&it, &k), 0);
  EXPECT_EQ(it.index, 0);
  EXPECT_EQ(it.position, c->data);
  EXPECT_EQ(contents(c), (std::vector<Entry>{Entry("a", 0u, "again")}));
}

TEST_F(LorkcTest, StatCountsRecordsAndBytes) {
  lorkc_stat_info st = stat_of(c);
  EXPECT_EQ(st.used, 0u);
  EXPECT_EQ(st.count, 0u);
  uint32_t predicted = 0;
  for (int i = 0; i < 6; i++) {
    Key k = K("/key/" + std::to_string(i), std::string(static_cast<size_t>(i) * 3, 'v'));
    lorc_key_struct v = k.view();
    predicted += lorkc_predict_size(&v);
    ASSERT_EQ(lorkc_insert(c, &v), 0);
  }
  st = stat_of(c);
  EXPECT_EQ(st.count, 6u);
  EXPECT_EQ(st.used, predicted);
}

TEST(LorkcSizes, SumOfPredictedSizesIsEnough) {
  std::vector<Key> keys;
  for (int i = 0; i < 10; i++) {
    keys.push_back(K(std::string(static_cast<size_t>(i), 'p'),
                     std::string(static_cast<size_t>(i * 7 % 5), 'v')));
  }
  uint32_t total = 0;
  for (const Key &k : keys) {
    lorc_key_struct v = k.view();
    total += lorkc_predict_size(&v);
  }
  lorkc_container *c = lorkc_create(total, nullptr);
  ASSERT_NE(c, nullptr);
  for (const Key &k : keys) ASSERT_EQ(insert(c, k), 0);
  EXPECT_EQ(stat_of(c).used, total);
  EXPECT_EQ(stat_of(c).count, 10u);
  EXPECT_EQ(insert(c, K("x", "")), -12);
  EXPECT_EQ(lorkc_destroy(c), 0);
}

}  // namespace
