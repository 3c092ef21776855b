// The length-counted string.
#include <gtest/gtest.h>

#include <cstring>

#include "loreg/lstr.h"

namespace {

lstr L(const char *text) {
  lstr l;
  lstr_cinit(&l, text);
  return l;
}

TEST(Lstr, InitTakesStrlen) {
  char text[] = "hello";
  lstr l;
  EXPECT_EQ(lstr_init(&l, text), 5u);
  EXPECT_EQ(l.ptr, text);
  EXPECT_EQ(l.len, 5u);
  EXPECT_EQ(lstr_cinit(&l, ""), 0u);
  EXPECT_EQ(l.len, 0u);
}

TEST(Lstr, CmpOfAPrefixSortsTheShorterFirst) {
  lstr ab = L("ab"), abc = L("abc");
  EXPECT_LT(lstr_cmp(&ab, &abc), 0);
  EXPECT_GT(lstr_cmp(&abc, &ab), 0);
  EXPECT_EQ(lstr_ncmp(&ab, &abc, 2), 0);
  EXPECT_EQ(lstr_cmp(&ab, &ab), 0);
}

TEST(Lstr, NcmpComparesBytesAsUnsigned) {
  lstr hi = L("\xff"), lo = L("\x01");
  EXPECT_GT(lstr_cmp(&hi, &lo), 0);
  lstr a = L("abd"), b = L("abc");
  EXPECT_EQ(lstr_ncmp(&a, &b, 3), 'd' - 'c');
  EXPECT_EQ(lstr_ncmp(&a, &b, 2), 0);
  // With n beyond both lengths the tie decides.
  lstr x = L("ab");
  EXPECT_EQ(lstr_ncmp(&x, &b, 10), -1);
  EXPECT_EQ(lstr_ncmp(&b, &x, 10), 1);
}

TEST(Lstr, NcmpWithZeroBytesInside) {
  char one[] = {'a', 0, 'b'}, two[] = {'a', 0, 'c'};
  lstr a{one, 3}, b{two, 3};
  EXPECT_LT(lstr_cmp(&a, &b), 0);
}

TEST(Lstr, ZtermWritesTheTerminator) {
  char buf[8] = {'a', 'b', 'c', 'X', 'X'};
  lstr l{buf, 3};
  EXPECT_EQ(lstr_zterm(&l), buf);
  EXPECT_STREQ(buf, "abc");
}

TEST(Lstr, CpyCopiesBytesWithoutTerminator) {
  char buf[8];
  std::memset(buf, 'X', sizeof buf);
  lstr dst{buf, 7};
  lstr src = L("hey");
  lstr_cpy(&dst, &src);
  EXPECT_EQ(dst.ptr, buf);
  EXPECT_EQ(dst.len, 3u);
  EXPECT_EQ(std::memcmp(buf, "heyX", 4), 0);
  lstr_cpy(&dst, nullptr);
  EXPECT_EQ(dst.len, 0u);
}

TEST(Lstr, AppendAddsBehindAndNullChangesNothing) {
  char buf[16] = "ab";
  lstr dst{buf, 2};
  lstr src = L("cd");
  lstr_append(&dst, &src);
  EXPECT_EQ(dst.len, 4u);
  EXPECT_EQ(std::memcmp(buf, "abcd", 4), 0);
  lstr_append(&dst, nullptr);
  EXPECT_EQ(dst.len, 4u);
}

TEST(Lstr, ChrFindsFirstByteAndIgnoresValuesAbove255) {
  lstr l = L("a/b/c");
  EXPECT_EQ(lstr_chr(&l, '/'), l.ptr + 1);
  EXPECT_EQ(lstr_chr(&l, 'z'), nullptr);
  EXPECT_EQ(lstr_chr(&l, 'a' + 256), nullptr);
  lstr high = L("\xe4");
  EXPECT_EQ(lstr_chr(&high, 0xE4), high.ptr);
  lstr empty = L("");
  EXPECT_EQ(lstr_chr(&empty, 'a'), nullptr);
  EXPECT_EQ(lstr_chr(nullptr, 'a'), nullptr);
}

TEST(Lstr, RchrWalksTheBytesInFrontOfTheString) {
  const char text[] = "xy/abc";
  lstr l{const_cast<char *>(text) + 3, 3};  // "abc", preceded by "xy/"
  EXPECT_EQ(lstr_rchr(&l, '/'), text + 2);
  EXPECT_EQ(lstr_rchr(&l, 'x'), text + 0);
  EXPECT_EQ(lstr_rchr(&l, 'a'), nullptr) << "the string itself is not searched";
  lstr empty{const_cast<char *>(text) + 3, 0};
  EXPECT_EQ(lstr_rchr(&empty, '/'), nullptr);
  EXPECT_EQ(lstr_rchr(nullptr, '/'), nullptr);
}

}  // namespace
