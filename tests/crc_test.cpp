// Tests of the repository file checksum.
#include "loreg/crc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(CrcTest, CalculateGivesTheStandardCheckValue) {
  EXPECT_EQ(crc_calculate("123456789", 9), 0xCBF43926u);
}

TEST(CrcTest, CalculateOfKnownTexts) {
  EXPECT_EQ(crc_calculate("", 0), 0x00000000u);
  EXPECT_EQ(crc_calculate("a", 1), 0xE8B7BE43u);
  const char *fox = "The quick brown fox jumps over the lazy dog";
  EXPECT_EQ(crc_calculate(fox, static_cast<uint32_t>(std::strlen(fox))), 0x414FA339u);
}

TEST(CrcTest, UpdateWithLengthZeroReturnsItsFirstArgument) {
  EXPECT_EQ(crc_update(0x12345678u, "abc", 0), 0x12345678u);
  EXPECT_EQ(crc_update(0u, "abc", 0), 0u);
  EXPECT_EQ(crc_update(0xFFFFFFFFu, nullptr, 0), 0xFFFFFFFFu);
  EXPECT_EQ(crc_update(0xCAFEu, nullptr, 10), 0xCAFEu);  // no data, no bytes
}

TEST(CrcTest, UpdateAppliesNoInversion) {
  // From 0, a zero byte leaves the value at table[0], which is 0; an
  // inverting implementation would not give 0.
  const unsigned char zero = 0;
  EXPECT_EQ(crc_update(0u, &zero, 1), 0u);
  // crc_calculate is crc_update from all ones, inverted.
  EXPECT_EQ(crc_update(0xFFFFFFFFu, "123456789", 9), ~0xCBF43926u);
  // Table entry 1 shows through for a single byte 1 from 0.
  const unsigned char one = 1;
  EXPECT_EQ(crc_update(0u, &one, 1), 0x77073096u);
  const unsigned char ff = 0xFF;
  EXPECT_EQ(crc_update(0u, &ff, 1), 0x2D02EF8Du);
}

TEST(CrcTest, UpdateCarriesAcrossPieces) {
  const std::string text = "repository file contents\nwith several lines\r\n\x01\xFE";
  const uint32_t whole = crc_update(0xFFFFFFFFu, text.data(), static_cast<uint32_t>(text.size()));
  for (size_t cut = 0; cut <= text.size(); cut++) {
    uint32_t crc = crc_update(0xFFFFFFFFu, text.data(), static_cast<uint32_t>(cut));
    crc = crc_update(crc, text.data() + cut, static_cast<uint32_t>(text.size() - cut));
    EXPECT_EQ(crc, whole) << "cut at " << cut;
  }
  EXPECT_EQ(~whole, crc_calculate(text.data(), static_cast<uint32_t>(text.size())));
}

}  // namespace
