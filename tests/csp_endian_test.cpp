// Byte order conversion by field table.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/csp_endian.h"

namespace {

struct Record {
  uint16_t a;
  uint8_t b;
  uint8_t c;
  uint32_t d;
  uint64_t e;
};

const __csp_EndianInfoEntry kEntries[] = {
    {0, 2, 0}, {2, 1, 0}, {4, 4, 0}, {8, 8, 0}, {0, 0, CSP_ENDIAN_END}};
const __csp_EndianTable kTable = {sizeof(Record), kEntries};

TEST(CspEndian, HostToProtocolIsBigEndian) {
  Record r{0x1234, 0xAB, 0xCD, 0x01020304u, 0x1122334455667788ull};
  unsigned char out[sizeof(Record)];
  ASSERT_EQ(cspHostToProtocol(out, &r, &kTable), 0);
  const unsigned char expect[] = {0x12, 0x34, 0xAB, 0xCD, 0x01, 0x02, 0x03, 0x04,
                                  0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  EXPECT_EQ(std::memcmp(out, expect, sizeof expect), 0);
}

TEST(CspEndian, RoundTripAndInPlace) {
  Record r{0xBEEF, 1, 2, 0xCAFEBABEu, 42};
  Record copy = r;
  ASSERT_EQ(cspHostToProtocol(&copy, &copy, &kTable), 0);
  EXPECT_NE(copy.a, r.a);
  ASSERT_EQ(cspProtocolToHost(&copy, &copy, &kTable), 0);
  EXPECT_EQ(std::memcmp(&copy, &r, sizeof r), 0);
}

TEST(CspEndian, RefusesBadTables) {
  Record r{};
  const __csp_EndianInfoEntry outside[] = {{15, 2, 0}, {0, 0, CSP_ENDIAN_END}};
  const __csp_EndianInfoEntry odd[] = {{0, 3, 0}, {0, 0, CSP_ENDIAN_END}};
  const __csp_EndianTable t1 = {sizeof(Record), outside};
  const __csp_EndianTable t2 = {sizeof(Record), odd};
  Record out{};
  std::memset(&out, 0x5A, sizeof out);
  EXPECT_EQ(cspHostToProtocol(&out, &r, &t1), -22);
  EXPECT_EQ(cspProtocolToHost(&out, &r, &t2), -22);
  EXPECT_EQ(cspHostToProtocol(&out, &r, nullptr), -22);
  EXPECT_EQ(cspHostToProtocol(nullptr, &r, &kTable), -22);
  EXPECT_EQ(out.a, 0x5A5A) << "nothing is written on refusal";
}

}  // namespace
