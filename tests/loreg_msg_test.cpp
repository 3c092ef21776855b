// Registry messages: header layout, reason texts, the four send operations
// (exact wire bytes through a real lmq server) and validation of what
// arrives, with every failure's line and code.
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/loreg_msg.h"
#include "platform/lmq.h"
#include "support/lmq_wire.h"
#include "support/log_capture.h"

namespace {

using testsupport::be16;
using testsupport::be32;
using testsupport::LmqClient;
using testsupport::LmqServer;
using testsupport::LogCapture;
using testsupport::RawMessage;

constexpr uint32_t kBuf = 0x2000;

// A server hosting "LOREG" and a client sending to it.
class MsgTest : public ::testing::Test {
 protected:
  MsgTest() : m_host(m_server.get()), m_sender(m_server.get()) {
    m_sid = m_server.loreg_id();
    EXPECT_EQ(lmqHostService(m_host.get(), m_sid, 0), 0);
  }

  // Receives on the host into a buffer prefilled with 0xAA, told one byte
  // less than its size.
  int receive_on_host(std::vector<uint8_t> &buffer, lmq_rx_info *info) {
    buffer.assign(kBuf, 0xAA);
    return m_host.receive(buffer.data(), kBuf - 1, info);
  }

  LmqServer m_server;
  LmqClient m_host;
  LmqClient m_sender;
  int16_t m_sid = 0;
};

loreg_msg make_msg(uint16_t type, const char *data0, const char *data1, const char *prefix) {
  loreg_msg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.header.msgtype = type;
  msg.header.len0 = static_cast<uint16_t>(data0 != nullptr ? std::strlen(data0) : 0);
  msg.header.len1 = static_cast<uint16_t>(data1 != nullptr ? std::strlen(data1) : 0);
  msg.data0 = const_cast<char *>(data0);
  msg.data1 = const_cast<char *>(data1);
  msg.prefix = prefix;
  return msg;
}

// --- Layout and tables -----------------------------------------------

TEST(MsgLayout, HeaderIs32BytesWithFieldsInOrder) {
  EXPECT_EQ(sizeof(loreg_Header_t), 32u);
  EXPECT_EQ(offsetof(loreg_Header_t, msgtype), 0u);
  EXPECT_EQ(offsetof(loreg_Header_t, reserved0), 2u);
  EXPECT_EQ(offsetof(loreg_Header_t, reqid), 4u);
  EXPECT_EQ(offsetof(loreg_Header_t, arg0), 8u);
  EXPECT_EQ(offsetof(loreg_Header_t, arg1), 12u);
  EXPECT_EQ(offsetof(loreg_Header_t, tid), 16u);
  EXPECT_EQ(offsetof(loreg_Header_t, result), 20u);
  EXPECT_EQ(offsetof(loreg_Header_t, len0), 24u);
  EXPECT_EQ(offsetof(loreg_Header_t, len1), 26u);
  EXPECT_EQ(offsetof(loreg_Header_t, reserved1), 28u);
  EXPECT_EQ(offsetof(loreg_msg, header), 0u);
  EXPECT_LT(offsetof(loreg_msg, data0), offsetof(loreg_msg, data1));
  EXPECT_LT(offsetof(loreg_msg, data1), offsetof(loreg_msg, prefix));
}

TEST(MsgLayout, EndianTableListsEveryFieldAndEnds) {
  EXPECT_EQ(__csp_EndianTable_loreg_Header_t.size, 32u);
  EXPECT_EQ(__csp_EndianTable_loreg_Header_t.entries, __csp_EndianInfoEntries_loreg_Header_t);
  const uint16_t expected[10][2] = {{0, 2},  {2, 2},  {4, 4},  {8, 4},  {12, 4},
                                    {16, 4}, {20, 4}, {24, 2}, {26, 2}, {28, 4}};
  for (int i = 0; i < 10; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(__csp_EndianInfoEntries_loreg_Header_t[i].offset, expected[i][0]);
    EXPECT_EQ(__csp_EndianInfoEntries_loreg_Header_t[i].size, expected[i][1]);
    EXPECT_EQ(__csp_EndianInfoEntries_loreg_Header_t[i].word, 0u);
  }
  EXPECT_EQ(__csp_EndianInfoEntries_loreg_Header_t[10].offset, 0u);
  EXPECT_EQ(__csp_EndianInfoEntries_loreg_Header_t[10].size, 0u);
  EXPECT_EQ(__csp_EndianInfoEntries_loreg_Header_t[10].word, 0xFFFFFFFFu);
}

TEST(MsgLayout, MessageTypeAndReasonValues) {
  EXPECT_EQ(LOREG_MSG_VALUE_QUERY, 0x0001u);
  EXPECT_EQ(LOREG_MSG_VALUE_SET, 0x0002u);
  EXPECT_EQ(LOREG_MSG_KEY_DELETE, 0x0003u);
  EXPECT_EQ(LOREG_MSG_KEY_COUNT, 0x0004u);
  EXPECT_EQ(LOREG_MSG_KEY_QUERY, 0x0005u);
  EXPECT_EQ(LOREG_MSG_TA_START, 0x0006u);
  EXPECT_EQ(LOREG_MSG_TA_END, 0x0007u);
  EXPECT_EQ(LOREG_MSG_REPO_STORE, 0x0008u);
  EXPECT_EQ(LOREG_MSG_REPO_RELOAD, 0x0009u);
  EXPECT_EQ(LOREG_MSG_STOP, 0x000Au);
  EXPECT_EQ(LOREG_MSG_ECHO, 0x000Bu);
  EXPECT_EQ(LOREG_MSG_TA_START_TIMED, 0x000Cu);
  EXPECT_EQ(LOREG_MSG_TID_ACQUIRE, 0x000Du);
  EXPECT_EQ(LOREG_MSG_TID_RELEASE, 0x000Eu);
  EXPECT_EQ(LOREG_MSG_KEY_UPDATE_TRIGGER, 0x00E1u);
  EXPECT_EQ(LOREG_MSG_ROOT_KEY_QUERY, 0x00E2u);
  EXPECT_EQ(LOREG_MSG_IDLE, 0x200Au);
  EXPECT_EQ(LOREG_MSG_KEY_UPDATE, 0x20E1u);
  EXPECT_EQ(LOREG_MSG_REPLY_TYPE(LOREG_MSG_VALUE_SET), 0x1002u);
  EXPECT_EQ(LOREG_MSG_MIN_SIZE, 62u);
}

// --- Reason texts -----------------------------------------------------

TEST(ReasonText, EveryListedCodeHasItsText) {
  EXPECT_STREQ(lorc_get_reason_txt(0x5001), "key update");
  EXPECT_STREQ(lorc_get_reason_txt(0x5002), "key delete");
  EXPECT_STREQ(lorc_get_reason_txt(0x5003), "transaction start");
  EXPECT_STREQ(lorc_get_reason_txt(0x5004), "transaction end");
  EXPECT_STREQ(lorc_get_reason_txt(0x5005), "key add");
  EXPECT_STREQ(lorc_get_reason_txt(0x5006), "key change");
  EXPECT_STREQ(lorc_get_reason_txt(0x5101), "server available");
  EXPECT_STREQ(lorc_get_reason_txt(0x5102), "server gone");
}

TEST(ReasonText, CodesAroundTheListAreUnknown) {
  for (uint32_t code : {0x5000u, 0x5007u, 0x5100u, 0x5103u, 0u, 0xFFFFFFFFu, 0x15001u}) {
    SCOPED_TRACE(code);
    EXPECT_STREQ(lorc_get_reason_txt(code), "<unknown>");
  }
}

// --- Sending ----------------------------------------------------------

TEST_F(MsgTest, CommandGoesOutWithExactWireBytes) {
  loreg_msg msg = make_msg(LOREG_MSG_VALUE_SET, "val", "/a/b", "/com/norvi");
  msg.header.reserved0 = 0x0102;
  msg.header.reqid = 0x11223344;
  msg.header.arg0 = 0x00030400;
  msg.header.arg1 = 0xA0B0C0D0;
  msg.header.tid = -2;
  msg.header.result = -13;
  msg.header.reserved1 = 0x55667788;
  const loreg_msg before = msg;

  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &msg), 0);
  // The caller's record is left as it was: the prefix is counted only on
  // the wire.
  EXPECT_EQ(std::memcmp(&before, &msg, sizeof msg), 0);

  lmq_rx_info info{};
  std::vector<uint8_t> b = m_host.receive_bytes(&info);
  const size_t total = 62 + 3 + 10 + 4;
  ASSERT_EQ(b.size(), total);
  EXPECT_EQ(info.size, total);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_COMMAND);
  EXPECT_EQ(info.reply.service_id, m_sid);

  // lmq header in protocol order.
  EXPECT_EQ(b[0], 0x82);
  EXPECT_EQ(b[1], 7);
  EXPECT_EQ(be16(b, 2), 0);
  EXPECT_EQ(be32(b, 4), 0x4C524547u);
  EXPECT_EQ(be32(b, 8), 0x53554231u);
  EXPECT_EQ(be32(b, 12), total);
  EXPECT_EQ(be32(b, 16), total);
  EXPECT_EQ(be32(b, 20), 0u);
  EXPECT_EQ(be32(b, 24), 0u);
  // The registry header, big-endian, len1 covering prefix and data1.
  EXPECT_EQ(be16(b, 28), 0x0002);
  EXPECT_EQ(be16(b, 30), 0x0102);
  EXPECT_EQ(be32(b, 32), 0x11223344u);
  EXPECT_EQ(be32(b, 36), 0x00030400u);
  EXPECT_EQ(be32(b, 40), 0xA0B0C0D0u);
  EXPECT_EQ(be32(b, 44), 0xFFFFFFFEu);
  EXPECT_EQ(be32(b, 48), 0xFFFFFFF3u);
  EXPECT_EQ(be16(b, 52), 3);
  EXPECT_EQ(be16(b, 54), 14);
  EXPECT_EQ(be32(b, 56), 0x55667788u);
  // data0, guard, prefix, data1.
  EXPECT_EQ(std::string(b.begin() + 60, b.begin() + 63), "val");
  EXPECT_EQ(b[63], 0);
  EXPECT_EQ(b[64], 0);
  EXPECT_EQ(std::string(b.begin() + 65, b.end()), "/com/norvi/a/b");
}

// Every header field, with values that use every byte, goes out as the
// conversion table says and comes back from validation unchanged.
TEST_F(MsgTest, HeadersGoOutAsTheEndianTableConvertsThemAndComeBackUnchanged) {
  std::mt19937 random(20261122);
  for (int i = 0; i < 200; i++) {
    loreg_msg out = make_msg(static_cast<uint16_t>(random()), "d0", "data1", nullptr);
    out.header.reserved0 = static_cast<uint16_t>(random());
    out.header.reqid = static_cast<uint32_t>(random());
    out.header.arg0 = static_cast<uint32_t>(random());
    out.header.arg1 = static_cast<uint32_t>(random());
    out.header.tid = static_cast<int32_t>(random());
    out.header.result = static_cast<int32_t>(random());
    out.header.reserved1 = static_cast<uint32_t>(random());
    ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &out), 0);

    std::vector<uint8_t> buffer;
    lmq_rx_info info{};
    ASSERT_EQ(receive_on_host(buffer, &info), 62 + 2 + 5);
    uint8_t expected[LOREG_HEADER_SIZE];
    ASSERT_EQ(cspHostToProtocol(expected, &out.header, &__csp_EndianTable_loreg_Header_t), 0);
    EXPECT_EQ(std::memcmp(buffer.data() + LMQ_HEADER_SIZE, expected, sizeof expected), 0) << i;

    loreg_msg in;
    ASSERT_EQ(loreg_validate_msg(&in, buffer.data(), kBuf, &info), 0);
    EXPECT_EQ(std::memcmp(&in.header, &out.header, sizeof out.header), 0) << i;
  }
}

TEST_F(MsgTest, SmallestMessageIs62Bytes) {
  loreg_msg msg = make_msg(LOREG_MSG_ECHO, nullptr, nullptr, nullptr);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &msg), 0);
  std::vector<uint8_t> b = m_host.receive_bytes();
  ASSERT_EQ(b.size(), 62u);
  EXPECT_EQ(be32(b, 12), 62u);
  EXPECT_EQ(be32(b, 16), 62u);
  EXPECT_EQ(be16(b, 52), 0);
  EXPECT_EQ(be16(b, 54), 0);
  EXPECT_EQ(b[60], 0);
  EXPECT_EQ(b[61], 0);
}

TEST_F(MsgTest, LengthsZeroSendNoDataEvenWithPointers) {
  // A zero length keeps its area off the wire whatever the pointer says.
  loreg_msg msg = make_msg(LOREG_MSG_ECHO, nullptr, nullptr, nullptr);
  msg.data0 = const_cast<char *>("ignored0");
  msg.data1 = const_cast<char *>("ignored1");
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &msg), 0);
  EXPECT_EQ(m_host.receive_bytes().size(), 62u);
}

TEST_F(MsgTest, EmptyPrefixSendsTheSameBytesAsNoPrefix) {
  loreg_msg with_empty = make_msg(LOREG_MSG_VALUE_QUERY, "x", "/com/norvi/k", "");
  loreg_msg with_null = make_msg(LOREG_MSG_VALUE_QUERY, "x", "/com/norvi/k", nullptr);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &with_empty), 0);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &with_null), 0);
  std::vector<uint8_t> a = m_host.receive_bytes();
  std::vector<uint8_t> b = m_host.receive_bytes();
  ASSERT_EQ(a.size(), 62u + 1 + 12);
  EXPECT_EQ(a, b);
}

TEST_F(MsgTest, PrefixAndData1FormOneArea) {
  loreg_msg split = make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/norvi/k", "/com");
  loreg_msg whole = make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/com/norvi/k", nullptr);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &split), 0);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &whole), 0);
  EXPECT_EQ(m_host.receive_bytes(), m_host.receive_bytes());
}

TEST_F(MsgTest, PrefixWithoutData1StillGoesOut) {
  loreg_msg msg = make_msg(LOREG_MSG_VALUE_QUERY, nullptr, nullptr, "/com/norvi/");
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &msg), 0);
  std::vector<uint8_t> b = m_host.receive_bytes();
  ASSERT_EQ(b.size(), 62u + 11);
  EXPECT_EQ(be16(b, 54), 11);
  EXPECT_EQ(std::string(b.begin() + 62, b.end()), "/com/norvi/");
}

TEST_F(MsgTest, NotificationReachesSubscribersOfTheService) {
  LmqClient subscriber(m_server.get());
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), m_sid, 0), 0);
  // Subscribing next to a host produces a system message each side.
  lmq_rx_info info{};
  subscriber.receive_bytes(&info);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_SYSTEM);
  m_host.receive_bytes(&info);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_SYSTEM);

  loreg_msg msg = make_msg(LOREG_MSG_KEY_UPDATE, "v", "/com/norvi/k", nullptr);
  msg.header.arg0 = LOREG_REASON_KEY_CHANGE;
  ASSERT_EQ(loreg_send_notification(m_host.get(), m_sid, &msg), 0);
  std::vector<uint8_t> b = subscriber.receive_bytes(&info);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_NOTIFY);
  EXPECT_EQ(info.reply.service_id, m_sid);
  ASSERT_EQ(b.size(), 62u + 1 + 12);
  EXPECT_EQ(be16(b, 28), 0x20E1);
  EXPECT_EQ(be32(b, 36), 0x5006u);
  EXPECT_TRUE(m_host.empty());
}

TEST_F(MsgTest, SelfNotificationArrivesInOwnQueueWithoutService) {
  loreg_msg msg = make_msg(LOREG_MSG_IDLE, nullptr, nullptr, nullptr);
  ASSERT_EQ(loreg_send_self_notification(m_sender.get(), &msg), 0);
  lmq_rx_info info{};
  std::vector<uint8_t> b = m_sender.receive_bytes(&info);
  ASSERT_EQ(b.size(), 62u);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_SELF);
  EXPECT_EQ(info.reply.service_id, -1);
  EXPECT_EQ(be16(b, 28), 0x200A);
  EXPECT_TRUE(m_host.empty());
}

TEST_F(MsgTest, ReplyReusingRequestHasNoPrefixAgain) {
  loreg_msg request = make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/a", "/com/norvi");
  request.header.reqid = 77;
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &request), 0);

  std::vector<uint8_t> buffer;
  lmq_rx_info info{};
  ASSERT_GT(receive_on_host(buffer, &info), 0);
  loreg_msg msg;
  msg.prefix = "stale";
  ASSERT_EQ(loreg_validate_msg(&msg, buffer.data(), kBuf, &info), 0);
  EXPECT_EQ(msg.prefix, nullptr);
  EXPECT_STREQ(msg.data1, "/com/norvi/a");

  // The server answers in the same record.
  msg.header.msgtype = LOREG_MSG_REPLY_TYPE(msg.header.msgtype);
  msg.header.result = -2;
  ASSERT_EQ(loreg_send_reply(m_host.get(), &msg, &info.reply), 0);

  std::vector<uint8_t> reply(kBuf, 0xAA);
  lmq_rx_info rinfo{};
  ASSERT_GT(m_sender.receive(reply.data(), kBuf - 1, &rinfo), 0);
  EXPECT_EQ(rinfo.reply.kind, LMQ_KIND_REPLY);
  loreg_msg answer;
  ASSERT_EQ(loreg_validate_msg(&answer, reply.data(), kBuf, &rinfo), 0);
  EXPECT_EQ(answer.header.msgtype, 0x1001);
  EXPECT_EQ(answer.header.reqid, 77u);
  EXPECT_EQ(answer.header.result, -2);
  EXPECT_EQ(answer.header.len1, 12);
  EXPECT_STREQ(answer.data1, "/com/norvi/a");
}

TEST_F(MsgTest, CommandToFullQueueFailsWithLineAndLmqCode) {
  LmqServer server;
  LmqClient small_host(server.get(), 256);
  LmqClient sender(server.get());
  int16_t sid = server.loreg_id();
  ASSERT_EQ(lmqHostService(small_host.get(), sid, 0), 0);
  std::string value(100, 'v');
  loreg_msg msg = make_msg(LOREG_MSG_VALUE_SET, value.c_str(), "/com/norvi/k", nullptr);

  LogCapture log;
  int rc = 0;
  int sent = 0;
  for (; sent < 10 && rc == 0; sent++) rc = loreg_send_command(sender.get(), sid, &msg);
  EXPECT_EQ(rc, -105);
  EXPECT_GT(sent, 1);
  EXPECT_TRUE(log.has_line(
      "loreg_send_command(msgtype=0x0002): lmqCXSendCommand() failed. (lmq code -105)\n"))
      << log.dump();
}

TEST_F(MsgTest, SelfNotificationToFullQueueFails) {
  LmqClient small(m_server.get(), 128);
  loreg_msg msg = make_msg(LOREG_MSG_IDLE, nullptr, "0123456789", nullptr);
  LogCapture log;
  int rc = 0;
  for (int i = 0; i < 10 && rc == 0; i++) rc = loreg_send_self_notification(small.get(), &msg);
  EXPECT_EQ(rc, -105);
  EXPECT_TRUE(log.has_line(
      "loreg_send_self_notification(msgtype=0x200a): lmqCXNotifySelf() failed. (lmq code -105)\n"))
      << log.dump();
}

TEST_F(MsgTest, NotificationToFullSubscriberFails) {
  LmqClient small(m_server.get(), 160);
  ASSERT_EQ(lmqSubscribeService(small.get(), m_sid, 0), 0);
  loreg_msg msg = make_msg(LOREG_MSG_KEY_UPDATE, "value", "/com/norvi/key", nullptr);
  LogCapture log;
  int rc = 0;
  for (int i = 0; i < 10 && rc == 0; i++) rc = loreg_send_notification(m_host.get(), m_sid, &msg);
  EXPECT_EQ(rc, -105);
  EXPECT_TRUE(log.has_line(
      "loreg_send_notification(msgtype=0x20e1): lmqCXNotify() failed. (lmq code -105)\n"))
      << log.dump();
}

TEST_F(MsgTest, CommandWithoutHostFails) {
  LmqServer server;
  LmqClient sender(server.get());
  int16_t sid = server.loreg_id();
  loreg_msg msg = make_msg(LOREG_MSG_VALUE_QUERY, nullptr, "/com/norvi/k", nullptr);
  LogCapture log;
  EXPECT_EQ(loreg_send_command(sender.get(), sid, &msg), -113);
  EXPECT_TRUE(log.has_line(
      "loreg_send_command(msgtype=0x0001): lmqCXSendCommand() failed. (lmq code -113)\n"))
      << log.dump();
}

TEST_F(MsgTest, ReplyToGoneClientFails) {
  lmq_address gone{};
  {
    LmqClient requester(m_server.get());
    ASSERT_EQ(lmqClientAddress(requester.get(), &gone), 0);
  }
  loreg_msg msg = make_msg(0x1001, nullptr, nullptr, nullptr);
  LogCapture log;
  EXPECT_EQ(loreg_send_reply(m_host.get(), &msg, &gone), -113);
  EXPECT_TRUE(
      log.has_line("loreg_send_reply(msgtype=0x1001): lmqCXReply() failed. (lmq code -113)\n"))
      << log.dump();
}

TEST_F(MsgTest, OversizedMessageIsRefusedByLmq) {
  std::string path(8200, 'p');
  loreg_msg msg = make_msg(LOREG_MSG_VALUE_SET, nullptr, path.c_str(), nullptr);
  LogCapture log;
  EXPECT_EQ(loreg_send_command(m_sender.get(), m_sid, &msg), -90);
  EXPECT_TRUE(log.has_line(
      "loreg_send_command(msgtype=0x0002): lmqCXSendCommand() failed. (lmq code -90)\n"))
      << log.dump();
  EXPECT_TRUE(m_host.empty());
}

// --- Validation -------------------------------------------------------

TEST_F(MsgTest, SmallestMessageValidatesAndData1IsTheZeroedSpareByte) {
  loreg_msg out = make_msg(LOREG_MSG_ECHO, nullptr, nullptr, nullptr);
  out.header.reqid = 9;
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &out), 0);
  std::vector<uint8_t> buffer;
  lmq_rx_info info{};
  ASSERT_EQ(receive_on_host(buffer, &info), 62);
  ASSERT_EQ(buffer[62], 0xAA);

  loreg_msg msg;
  ASSERT_EQ(loreg_validate_msg(&msg, buffer.data(), kBuf, &info), 0);
  EXPECT_EQ(msg.header.msgtype, LOREG_MSG_ECHO);
  EXPECT_EQ(msg.header.reqid, 9u);
  EXPECT_EQ(msg.header.len0, 0);
  EXPECT_EQ(msg.header.len1, 0);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(msg.data0), buffer.data() + 60);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(msg.data1), buffer.data() + 62);
  EXPECT_EQ(buffer[62], 0);
  EXPECT_EQ(msg.prefix, nullptr);
}

TEST_F(MsgTest, Data0EndsAtTheGuardAndData1AtTheStoredZero) {
  loreg_msg out = make_msg(LOREG_MSG_VALUE_SET, "hello", "/com/norvi/key", nullptr);
  out.header.arg0 = 0x30400;
  out.header.tid = -1;
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &out), 0);
  std::vector<uint8_t> buffer;
  lmq_rx_info info{};
  ASSERT_EQ(receive_on_host(buffer, &info), 62 + 5 + 14);

  loreg_msg msg;
  ASSERT_EQ(loreg_validate_msg(&msg, buffer.data(), kBuf, &info), 0);
  EXPECT_EQ(msg.header.arg0, 0x30400u);
  EXPECT_EQ(msg.header.tid, -1);
  EXPECT_EQ(msg.header.len0, 5);
  EXPECT_EQ(msg.header.len1, 14);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(msg.data0), buffer.data() + 60);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(msg.data1), buffer.data() + 67);
  EXPECT_STREQ(msg.data0, "hello");
  EXPECT_STREQ(msg.data1, "/com/norvi/key");
}

TEST_F(MsgTest, MessageFillingTheWholeBufferLacksTheSpareByte) {
  loreg_msg out = make_msg(LOREG_MSG_VALUE_SET, "abc", "/k", nullptr);
  const uint32_t size = 62 + 3 + 2;
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &out), 0);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &out), 0);

  // Received into a buffer of exactly its size: no room for the zero.
  std::vector<uint8_t> exact(size, 0xAA);
  lmq_rx_info info{};
  ASSERT_EQ(m_host.receive(exact.data(), size, &info), static_cast<int>(size));
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(loreg_validate_msg(&msg, exact.data(), size, &info), -223);
  EXPECT_TRUE(
      log.has_line("loreg_validate_msg(): single additional spare byte missing in recv-buffer\n"))
      << log.dump();

  // Told one byte less than the buffer, the same message always fits.
  std::vector<uint8_t> roomy(size + 1, 0xAA);
  ASSERT_EQ(m_host.receive(roomy.data(), size, &info), static_cast<int>(size));
  log.clear();
  EXPECT_EQ(loreg_validate_msg(&msg, roomy.data(), size + 1, &info), 0);
  EXPECT_STREQ(msg.data1, "/k");
  EXPECT_EQ(roomy[size], 0);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(MsgTest, BytesBeyondTheAreasAreIgnoredAndHoldTheZero) {
  RawMessage raw;
  raw.header.msgtype = LOREG_MSG_VALUE_SET;
  raw.data0 = "v";
  raw.data1 = "/k";
  raw.trailer = "TT";
  ASSERT_EQ(raw.send_command(m_sender.get(), m_sid), 0);
  const uint32_t size = 62 + 1 + 2 + 2;
  std::vector<uint8_t> exact(size, 0xAA);
  lmq_rx_info info{};
  ASSERT_EQ(m_host.receive(exact.data(), size, &info), static_cast<int>(size));
  loreg_msg msg;
  // Even in a buffer without a spare byte, the unused tail takes the zero.
  ASSERT_EQ(loreg_validate_msg(&msg, exact.data(), size, &info), 0);
  EXPECT_STREQ(msg.data0, "v");
  EXPECT_STREQ(msg.data1, "/k");
  EXPECT_EQ(exact[size - 2], 0);
  EXPECT_EQ(exact[size - 1], 'T');
}

TEST_F(MsgTest, NonZeroGuardIsAccepted) {
  RawMessage raw;
  raw.header.msgtype = LOREG_MSG_VALUE_SET;
  raw.data0 = "v";
  raw.guard[0] = 'G';
  raw.guard[1] = 'H';
  raw.data1 = "/k";
  ASSERT_EQ(raw.send_command(m_sender.get(), m_sid), 0);
  std::vector<uint8_t> buffer;
  lmq_rx_info info{};
  ASSERT_GT(receive_on_host(buffer, &info), 0);
  loreg_msg msg;
  ASSERT_EQ(loreg_validate_msg(&msg, buffer.data(), kBuf, &info), 0);
  EXPECT_EQ(msg.data0[0], 'v');
  EXPECT_EQ(msg.data0[1], 'G');
  EXPECT_STREQ(msg.data1, "/k");
}

TEST_F(MsgTest, ProtocolByteWithoutTopBitIsStillProtocolTwo) {
  RawMessage raw;
  raw.lmq.protocol = 0x02;
  raw.header.msgtype = LOREG_MSG_ECHO;
  ASSERT_EQ(raw.send_command(m_sender.get(), m_sid), 0);
  std::vector<uint8_t> buffer;
  lmq_rx_info info{};
  ASSERT_GT(receive_on_host(buffer, &info), 0);
  loreg_msg msg;
  EXPECT_EQ(loreg_validate_msg(&msg, buffer.data(), kBuf, &info), 0);
}

// Sends a raw message to the host, receives it and validates it; returns
// the result and leaves the log lines in *log.
class ValidateTest : public MsgTest {
 protected:
  int validate_raw(const RawMessage &raw, loreg_msg *msg) {
    EXPECT_EQ(raw.send_command(m_sender.get(), m_sid), 0);
    std::vector<uint8_t> &buffer = m_buffer;
    lmq_rx_info info{};
    EXPECT_GT(receive_on_host(buffer, &info), 0);
    return loreg_validate_msg(msg, buffer.data(), kBuf, &info);
  }
  std::vector<uint8_t> m_buffer;
};

TEST_F(ValidateTest, WrongProtocol) {
  RawMessage raw;
  raw.lmq.protocol = 0x83;
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(validate_raw(raw, &msg), -205);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): wrong lmq header protocol (3)\n")) << log.dump();
}

TEST_F(ValidateTest, WrongMessageType) {
  RawMessage raw;
  raw.lmq.type = 0x4C524548;
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(validate_raw(raw, &msg), -205);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): wrong lmq header msg type (0x4c524548)\n"))
      << log.dump();
}

TEST_F(ValidateTest, WrongSubtype) {
  RawMessage raw;
  raw.lmq.subtype = 0x53554232;
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(validate_raw(raw, &msg), -205);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): wrong lmq header msg subtype (0x53554232)\n"))
      << log.dump();
}

TEST_F(ValidateTest, HeaderPlusGuardIncomplete) {
  for (size_t size : {28u, 40u, 61u}) {
    SCOPED_TRACE(size);
    RawMessage raw;
    raw.truncate = true;
    raw.truncate_at = size;
    loreg_msg msg;
    LogCapture log;
    EXPECT_EQ(validate_raw(raw, &msg), -223);
    EXPECT_TRUE(log.has_line("loreg_validate_msg(): incomplete loreg header + guard\n"))
        << log.dump();
  }
}

TEST_F(ValidateTest, LengthsBeyondTheMessage) {
  RawMessage raw;
  raw.set_lengths = false;
  raw.header.len0 = 5;
  raw.header.len1 = 3;
  raw.data0 = "abcd";
  raw.data1 = "xyz";
  raw.lmq.size = raw.lmq.size2 = 62 + 7;
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(validate_raw(raw, &msg), -223);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): inconsistent lengths in loreg header "
                           "(data0=5, data1=3, size left=7)\n"))
      << log.dump();
}

TEST_F(ValidateTest, LengthsFillingExactlyTheRestPass) {
  RawMessage raw;
  raw.set_lengths = false;
  raw.header.len0 = 4;
  raw.header.len1 = 3;
  raw.data0 = "abcd";
  raw.data1 = "xyz";
  raw.lmq.size = raw.lmq.size2 = 62 + 7;
  loreg_msg msg;
  EXPECT_EQ(validate_raw(raw, &msg), 0);
  EXPECT_STREQ(msg.data0, "abcd");
  EXPECT_STREQ(msg.data1, "xyz");
}

TEST_F(ValidateTest, BrokenLmqFramingIsReportedWithLmqCode) {
  // A header that claims a size other than what arrived.
  RawMessage raw;
  raw.set_lengths = false;
  raw.lmq.size = raw.lmq.size2 = 70;
  loreg_msg msg;
  LogCapture log;
  int rc = validate_raw(raw, &msg);
  EXPECT_EQ(rc, -74);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): lmqMessageHeaderValidate() failed. (code -74)\n"))
      << log.dump();
}

TEST_F(ValidateTest, WrongHeaderWordCountIsBrokenFraming) {
  RawMessage raw;
  raw.lmq.words = 6;
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(validate_raw(raw, &msg), -74);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): lmqMessageHeaderValidate() failed. (code -74)\n"))
      << log.dump();
}

TEST_F(ValidateTest, ReceivedSizeLargerThanBufferIsBrokenFraming) {
  loreg_msg out = make_msg(LOREG_MSG_VALUE_SET, "abc", "/k", nullptr);
  ASSERT_EQ(loreg_send_command(m_sender.get(), m_sid, &out), 0);
  std::vector<uint8_t> buffer;
  lmq_rx_info info{};
  ASSERT_EQ(receive_on_host(buffer, &info), 67);
  loreg_msg msg;
  LogCapture log;
  EXPECT_EQ(loreg_validate_msg(&msg, buffer.data(), 66, &info), -74);
  EXPECT_TRUE(log.has_line("loreg_validate_msg(): lmqMessageHeaderValidate() failed. (code -74)\n"))
      << log.dump();
}

}  // namespace
