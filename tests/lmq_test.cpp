// Tests of the lmq message server through its public interface, on one
// thread. Threaded behaviour is in lmq_thread_test.cpp.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/lmq_client.h"
#include "support/log_capture.h"

namespace {

// Clients detach and release themselves, so they must go before their
// server.
using testsupport::LmqClient;

constexpr _cspOsalTime_struct kNoWait{0, 0};

struct Received {
  int rc = 0;
  lmq_rx_info info{};
  std::string data;
};

Received receive(lmq_client *client, uint32_t buffer_size = 8192,
                 const _cspOsalTime_struct *timeout = &kNoWait) {
  Received out;
  std::vector<char> buffer(buffer_size);
  lmq_iovec entry{buffer.data(), buffer_size};
  memset(&out.info, 0xEE, sizeof(out.info));
  out.rc = lmqCXReceive(client, &entry, 1, &out.info, timeout);
  if (out.rc > 0) out.data.assign(buffer.data(), static_cast<size_t>(out.rc));
  return out;
}

lmq_iovec iov(const std::string &s) {
  return lmq_iovec{const_cast<char *>(s.data()), static_cast<uint32_t>(s.size())};
}

int command(lmq_client *client, int16_t sid, const std::string &data) {
  lmq_iovec entry = iov(data);
  return lmqCXSendCommand(client, sid, &entry, 1, 0);
}

int notify(lmq_client *client, int16_t sid, const std::string &data) {
  lmq_iovec entry = iov(data);
  return lmqCXNotify(client, sid, &entry, 1, 0);
}

int reply(lmq_client *client, const lmq_address &address, const std::string &data) {
  lmq_iovec entry = iov(data);
  return lmqCXReply(client, &address, &entry, 1, 0);
}

int notify_self(lmq_client *client, const std::string &data) {
  lmq_iovec entry = iov(data);
  return lmqCXNotifySelf(client, &entry, 1, 0);
}

int16_t register_id(lmq_server *server, const char *name) {
  int16_t id = 0;
  EXPECT_EQ(lmqRegisterPlainId(server, name, static_cast<uint32_t>(strlen(name) + 1), &id), 0);
  return id;
}

// The 30 bytes of a system message as they are queued.
std::string sysmsg_bytes(uint32_t type, int16_t sid) {
  const unsigned char bytes[30] = {
      0x82, 0x07, 0x00, 0x00,                                   //
      static_cast<unsigned char>(type >> 24), static_cast<unsigned char>(type >> 16),
      static_cast<unsigned char>(type >> 8), static_cast<unsigned char>(type),  //
      0x00, 0x00, 0x00, 0x01,                                   // subtype
      0x00, 0x00, 0x00, 0x1E, 0x00, 0x00, 0x00, 0x1E,           // size twice
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,           //
      static_cast<unsigned char>(static_cast<uint16_t>(sid) >> 8),
      static_cast<unsigned char>(static_cast<uint16_t>(sid))};
  return std::string(reinterpret_cast<const char *>(bytes), sizeof(bytes));
}

void expect_sysmsg(const Received &r, uint32_t type, int16_t sid, uint32_t peer) {
  ASSERT_EQ(r.rc, 30);
  EXPECT_EQ(r.info.size, 30u);
  EXPECT_EQ(r.info.status, 0u);
  EXPECT_EQ(r.info.reply.kind, LMQ_KIND_SYSTEM);
  EXPECT_EQ(r.info.reply.service_id, sid);
  EXPECT_EQ(r.info.reply.client, peer);
  EXPECT_EQ(r.data, sysmsg_bytes(type, sid));
}

// Number of messages in the queue, taken out.
int drain(lmq_client *client) {
  int n = 0;
  while (receive(client).rc > 0) n++;
  return n;
}

class LmqTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(lmqServerCreate(&m_server), 0); }
  void TearDown() override { EXPECT_EQ(lmqServerDestroy(m_server), 0); }
  lmq_server *m_server = nullptr;
};

// --- Header -------------------------------------------------------------

lmq_msg_header sample_header() {
  lmq_msg_header h{};
  h.protocol = 0x82;
  h.words = 7;
  h.reserved0 = 0x1234;
  h.type = 0x4C524547;
  h.subtype = 0x53554231;
  h.size = 0x01020304;
  h.size2 = 0x05060708;
  h.reserved1[0] = 0x090A0B0C;
  h.reserved1[1] = 0x0D0E0F10;
  return h;
}

const unsigned char kSampleProtocol[28] = {0x82, 0x07, 0x12, 0x34, 0x4C, 0x52, 0x45, 0x47, 0x53, 0x55,
                                           0x42, 0x31, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                           0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};

TEST(LmqHeaderTest, ToProtocolWritesBigEndianFields) {
  lmq_msg_header h = sample_header();
  unsigned char out[28];
  ASSERT_EQ(lmqMessageHeaderToProtocol(out, &h), 0);
  EXPECT_EQ(0, memcmp(out, kSampleProtocol, 28));
  // The registry's "GERL" type reads as these bytes on the wire.
  EXPECT_EQ(0, memcmp(out + 4, "LREG", 4));
}

TEST(LmqHeaderTest, RoundTripAndInPlace) {
  lmq_msg_header h = sample_header();
  lmq_msg_header back{};
  unsigned char out[28];
  ASSERT_EQ(lmqMessageHeaderToProtocol(out, &h), 0);
  ASSERT_EQ(lmqMessageHeaderToHost(&back, out), 0);
  EXPECT_EQ(0, memcmp(&back, &h, sizeof(h)));

  lmq_msg_header in_place = sample_header();
  ASSERT_EQ(lmqMessageHeaderToProtocol(&in_place, &in_place), 0);
  EXPECT_EQ(0, memcmp(&in_place, kSampleProtocol, 28));
  ASSERT_EQ(lmqMessageHeaderToHost(&in_place, &in_place), 0);
  EXPECT_EQ(0, memcmp(&in_place, &h, sizeof(h)));
}

TEST(LmqHeaderTest, NullArguments) {
  lmq_msg_header h = sample_header();
  unsigned char out[28];
  EXPECT_EQ(lmqMessageHeaderToProtocol(nullptr, &h), -22);
  EXPECT_EQ(lmqMessageHeaderToProtocol(out, nullptr), -22);
  EXPECT_EQ(lmqMessageHeaderToHost(nullptr, out), -22);
  EXPECT_EQ(lmqMessageHeaderToHost(&h, nullptr), -22);
}

class LmqValidateTest : public ::testing::Test {
 protected:
  void SetUp() override { frame(40, 40, 40); }
  void frame(uint32_t size, uint32_t size_field, uint32_t size2_field, uint8_t words = 7) {
    lmq_msg_header h{};
    h.protocol = 0x82;
    h.words = words;
    h.size = size_field;
    h.size2 = size2_field;
    memset(m_buffer, 0xAB, sizeof(m_buffer));
    ASSERT_EQ(lmqMessageHeaderToProtocol(m_buffer, &h), 0);
    m_info = lmq_rx_info{};
    m_info.size = size;
  }
  unsigned char m_buffer[64];
  lmq_rx_info m_info{};
  void *m_payload = nullptr;
};

TEST_F(LmqValidateTest, GoodFramingGivesPayload) {
  ASSERT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, sizeof(m_buffer)), 0);
  EXPECT_EQ(m_payload, m_buffer + 28);
  // A message exactly as large as the buffer, and one of the header alone.
  frame(64, 64, 64);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 64), 0);
  frame(28, 28, 28);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 28), 0);
  EXPECT_EQ(m_payload, m_buffer + 28);
}

TEST_F(LmqValidateTest, BrokenFramingIsRefused) {
  m_payload = &m_info;
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 39), -74);  // beyond buffer
  frame(27, 27, 27);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 64), -74);  // below header
  frame(40, 40, 40, 6);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 64), -74);  // word count
  frame(40, 41, 40);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 64), -74);  // size
  frame(40, 40, 39);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, m_buffer, 64), -74);  // size2
  EXPECT_EQ(m_payload, static_cast<void *>(&m_info));  // untouched on failure
}

TEST_F(LmqValidateTest, NullArguments) {
  EXPECT_EQ(lmqMessageHeaderValidate(nullptr, &m_info, m_buffer, 64), -22);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, nullptr, m_buffer, 64), -22);
  EXPECT_EQ(lmqMessageHeaderValidate(&m_payload, &m_info, nullptr, 64), -22);
}

// --- Server and clients ---------------------------------------------------

TEST(LmqServerTest, ArgumentChecks) {
  EXPECT_EQ(lmqServerCreate(nullptr), -22);
  EXPECT_EQ(lmqServerDestroy(nullptr), -22);
  EXPECT_EQ(lmqServerAddClient(nullptr, nullptr), -22);
  EXPECT_EQ(lmqServerRemoveClient(nullptr, nullptr), -22);
}

// Each server listens to the uptime clock's test hook, whose table is
// bounded: a server that finds no room is not created, and says why.
TEST(LmqServerTest, CreateFailsWhenClockListenersRunOut) {
  std::vector<lmq_server *> servers;
  testsupport::LogCapture log;
  int rc = 0;
  for (int i = 0; i < 64 && rc == 0; i++) {
    lmq_server *server = nullptr;
    rc = lmqServerCreate(&server);
    if (rc == 0) servers.push_back(server);
  }
  EXPECT_EQ(rc, -12);
  EXPECT_GT(servers.size(), 0u);
  EXPECT_LE(servers.size(), 32u);
  std::vector<testsupport::LogLine> lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].channel, 0x6Cu);
  EXPECT_EQ(lines[0].level, 3000u);
  EXPECT_EQ(lines[0].module, 0x0100u);
  EXPECT_EQ(lines[0].text, "lmqServerCreate(): cspOsalUptimeListenerAdd failed (code -12)\n");
  // One destroyed makes room for one more.
  ASSERT_EQ(lmqServerDestroy(servers.back()), 0);
  ASSERT_EQ(lmqServerCreate(&servers.back()), 0);
  for (lmq_server *server : servers) EXPECT_EQ(lmqServerDestroy(server), 0);
}

TEST_F(LmqTest, ClientInitChecks) {
  lmq_client client{};
  unsigned char queue[64];
  EXPECT_EQ(lmqClientInit(nullptr, queue, sizeof(queue)), -22);
  EXPECT_EQ(lmqClientInit(&client, nullptr, sizeof(queue)), -22);
  EXPECT_EQ(lmqClientInit(&client, queue, 63), -22);
  // Not yet a client.
  EXPECT_EQ(lmqServerAddClient(m_server, &client), -22);
  EXPECT_EQ(lmqClientRelease(&client), -22);
  ASSERT_EQ(lmqClientInit(&client, queue, 64), 0);
  EXPECT_EQ(lmqClientInit(&client, queue, 64), -22);  // already a client
  EXPECT_EQ(lmqClientRelease(&client), 0);
  EXPECT_EQ(lmqClientRelease(&client), -22);
}

TEST_F(LmqTest, AttachAndDetach) {
  lmq_server *other = nullptr;
  ASSERT_EQ(lmqServerCreate(&other), 0);
  lmq_client client{};
  unsigned char queue[128];
  lmq_address address;
  ASSERT_EQ(lmqClientInit(&client, queue, sizeof(queue)), 0);
  EXPECT_EQ(lmqClientAddress(&client, &address), -2);
  EXPECT_EQ(lmqServerRemoveClient(m_server, &client), -2);
  ASSERT_EQ(lmqServerAddClient(m_server, &client), 0);
  EXPECT_EQ(lmqServerAddClient(m_server, &client), -17);
  EXPECT_EQ(lmqServerAddClient(other, &client), -17);
  EXPECT_EQ(lmqServerRemoveClient(other, &client), -2);
  EXPECT_EQ(lmqClientRelease(&client), -22);  // still attached
  ASSERT_EQ(lmqClientAddress(&client, &address), 0);
  EXPECT_NE(address.client, 0u);
  EXPECT_EQ(address.service_id, -1);
  EXPECT_EQ(address.kind, LMQ_KIND_SYSTEM);
  EXPECT_EQ(lmqClientAddress(&client, nullptr), -22);
  uint32_t first_number = address.client;

  // A client attached again gets a new number.
  ASSERT_EQ(lmqServerRemoveClient(m_server, &client), 0);
  EXPECT_EQ(lmqServerRemoveClient(m_server, &client), -2);
  ASSERT_EQ(lmqServerAddClient(m_server, &client), 0);
  ASSERT_EQ(lmqClientAddress(&client, &address), 0);
  EXPECT_NE(address.client, first_number);
  ASSERT_EQ(lmqServerRemoveClient(m_server, &client), 0);
  EXPECT_EQ(lmqClientRelease(&client), 0);
  EXPECT_EQ(lmqServerDestroy(other), 0);
}

TEST_F(LmqTest, ServersHaveDistinctNodes) {
  lmq_server *other = nullptr;
  ASSERT_EQ(lmqServerCreate(&other), 0);
  {
    LmqClient a(m_server);
    LmqClient b(other);
    EXPECT_NE(a.node(), b.node());
  }
  EXPECT_EQ(lmqServerDestroy(other), 0);
}

// --- Services -------------------------------------------------------------

TEST_F(LmqTest, RegisterGivesSameIdForSameName) {
  int16_t a = 0, b = 0, c = 0, d = 0, e = 0;
  ASSERT_EQ(lmqRegisterPlainId(m_server, "LOREG", 6, &a), 0);
  ASSERT_EQ(lmqRegisterPlainId(m_server, "LOREG", 5, &b), 0);  // without terminator
  ASSERT_EQ(lmqRegisterPlainId(m_server, "LOREG\0XY", 8, &c), 0);  // ends at the first zero
  ASSERT_EQ(lmqRegisterPlainId(m_server, "LOREGX", 5, &d), 0);  // only name_size bytes count
  ASSERT_EQ(lmqRegisterPlainId(m_server, "OTHER", 6, &e), 0);
  EXPECT_GT(a, 0);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a, c);
  EXPECT_EQ(a, d);
  EXPECT_NE(a, e);
  EXPECT_GT(e, 0);
  for (int i = 0; i < 4; i++) EXPECT_EQ(lmqUnRegisterPlainId(m_server, a), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, a), -2);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, e), 0);
}

TEST_F(LmqTest, RegisterChecksName) {
  int16_t id = 0;
  std::string max(64, 'n');
  std::string too_long(65, 'n');
  EXPECT_EQ(lmqRegisterPlainId(nullptr, "A", 2, &id), -22);
  EXPECT_EQ(lmqRegisterPlainId(m_server, nullptr, 2, &id), -22);
  EXPECT_EQ(lmqRegisterPlainId(m_server, "A", 2, nullptr), -22);
  EXPECT_EQ(lmqRegisterPlainId(m_server, "", 1, &id), -22);
  EXPECT_EQ(lmqRegisterPlainId(m_server, "A", 0, &id), -22);
  EXPECT_EQ(lmqRegisterPlainId(m_server, too_long.c_str(), 66, &id), -22);
  ASSERT_EQ(lmqRegisterPlainId(m_server, max.c_str(), 65, &id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(nullptr, id), -22);
}

TEST_F(LmqTest, ServiceIdIsCountedAndLastDropRemovesIt) {
  LmqClient host(m_server);
  LmqClient sender(m_server);
  int16_t id = register_id(m_server, "SVC");
  EXPECT_EQ(register_id(m_server, "SVC"), id);
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);

  ASSERT_EQ(lmqUnRegisterPlainId(m_server, id), 0);  // one reference left
  EXPECT_EQ(command(sender.get(), id, "still there"), 0);
  EXPECT_EQ(receive(host.get()).data, "still there");

  ASSERT_EQ(lmqUnRegisterPlainId(m_server, id), 0);  // gone
  EXPECT_EQ(command(sender.get(), id, "x"), -2);
  EXPECT_EQ(notify(sender.get(), id, "x"), -2);
  EXPECT_EQ(lmqUnHostService(host.get(), id), -2);
  EXPECT_EQ(lmqHostService(host.get(), id, 0), -2);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), -2);
}

TEST_F(LmqTest, LastDropRemovesHostsAndSubscribers) {
  LmqClient host(m_server);
  LmqClient subscriber(m_server);
  LmqClient sender(m_server);
  int16_t id = register_id(m_server, "GONE");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  EXPECT_EQ(drain(host.get()), 1);
  EXPECT_EQ(drain(subscriber.get()), 1);
  ASSERT_EQ(lmqUnRegisterPlainId(m_server, id), 0);

  // The name registered again starts with neither hosts nor subscribers.
  int16_t again = register_id(m_server, "GONE");
  EXPECT_EQ(command(sender.get(), again, "cmd"), -113);
  EXPECT_EQ(notify(sender.get(), again, "note"), 0);
  EXPECT_EQ(receive(subscriber.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(lmqUnHostService(host.get(), again), -2);
  EXPECT_EQ(lmqUnSubscribeService(subscriber.get(), again), -2);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, again), 0);
}

TEST_F(LmqTest, HostAndSubscribeChecks) {
  LmqClient client(m_server);
  LmqClient detached(nullptr);
  int16_t id = register_id(m_server, "CHK");
  EXPECT_EQ(lmqHostService(client.get(), id, 1), -22);
  EXPECT_EQ(lmqSubscribeService(client.get(), id, 1), -22);
  EXPECT_EQ(lmqHostService(nullptr, id, 0), -22);
  EXPECT_EQ(lmqHostService(client.get(), 999, 0), -2);
  EXPECT_EQ(lmqSubscribeService(client.get(), 999, 0), -2);
  EXPECT_EQ(lmqHostService(detached.get(), id, 0), -2);
  EXPECT_EQ(lmqSubscribeService(detached.get(), id, 0), -2);
  EXPECT_EQ(lmqUnHostService(client.get(), id), -2);
  EXPECT_EQ(lmqUnSubscribeService(client.get(), id), -2);

  ASSERT_EQ(lmqHostService(client.get(), id, 0), 0);
  EXPECT_EQ(lmqHostService(client.get(), id, 0), -17);
  ASSERT_EQ(lmqSubscribeService(client.get(), id, 0), 0);
  EXPECT_EQ(lmqSubscribeService(client.get(), id, 0), -17);
  EXPECT_EQ(lmqUnHostService(client.get(), id), 0);
  EXPECT_EQ(lmqUnHostService(client.get(), id), -2);
  EXPECT_EQ(lmqUnSubscribeService(client.get(), id), 0);
  EXPECT_EQ(lmqUnSubscribeService(client.get(), id), -2);
  EXPECT_EQ(lmqHostService(client.get(), id, 0), 0);  // again after leaving
  EXPECT_EQ(drain(client.get()), 0);                  // never paired with itself
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

// --- Sending --------------------------------------------------------------

TEST_F(LmqTest, CommandReachesEveryHost) {
  LmqClient h1(m_server), h2(m_server), h3(m_server), sender(m_server), bystander(m_server);
  int16_t id = register_id(m_server, "MULTI");
  for (LmqClient *h : {&h1, &h2, &h3}) ASSERT_EQ(lmqHostService(h->get(), id, 0), 0);

  ASSERT_EQ(command(sender.get(), id, "first"), 0);
  ASSERT_EQ(command(sender.get(), id, "second!"), 0);
  for (LmqClient *h : {&h1, &h2, &h3}) {
    Received r = receive(h->get());
    ASSERT_EQ(r.rc, 5);
    EXPECT_EQ(r.data, "first");
    EXPECT_EQ(r.info.status, 0u);
    EXPECT_EQ(r.info.count, 1u);
    EXPECT_EQ(r.info.size, 5u);
    EXPECT_EQ(r.info.reply.node, sender.node());
    EXPECT_EQ(r.info.reply.client, sender.number());
    EXPECT_EQ(r.info.reply.service_id, id);
    EXPECT_EQ(r.info.reply.kind, LMQ_KIND_COMMAND);
    EXPECT_EQ(r.info.reply.sequence, 1u);
    EXPECT_EQ(r.info.reply.reserved0, 0u);
    EXPECT_EQ(r.info.reply.reserved1, 0u);
    r = receive(h->get());
    ASSERT_EQ(r.rc, 7);
    EXPECT_EQ(r.data, "second!");
    EXPECT_EQ(r.info.count, 2u);
    EXPECT_EQ(r.info.reply.sequence, 2u);
    EXPECT_EQ(receive(h->get()).rc, LMQ_TIMEOUT);
  }
  EXPECT_EQ(receive(sender.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(receive(bystander.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, CommandWithoutHostOrService) {
  LmqClient sender(m_server);
  LmqClient detached(nullptr);
  int16_t id = register_id(m_server, "NOHOST");
  EXPECT_EQ(command(sender.get(), id, "x"), -113);
  EXPECT_EQ(command(sender.get(), 4321, "x"), -2);
  EXPECT_EQ(command(detached.get(), id, "x"), -2);
  EXPECT_EQ(command(nullptr, id, "x"), -22);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, CommandToSomeFullHostStillReachesTheOthers) {
  LmqClient full(m_server, 64), h2(m_server), sender(m_server);
  int16_t id = register_id(m_server, "PART");
  ASSERT_EQ(lmqHostService(full.get(), id, 0), 0);
  ASSERT_EQ(lmqHostService(h2.get(), id, 0), 0);
  std::string big(30, 'b');  // 30 + 24 of a 64-byte queue: one fits
  ASSERT_EQ(command(sender.get(), id, big), 0);
  EXPECT_EQ(command(sender.get(), id, big), -105);
  EXPECT_EQ(drain(full.get()), 1);
  EXPECT_EQ(drain(h2.get()), 2);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, NotificationReachesEverySubscriber) {
  LmqClient s1(m_server), s2(m_server), host(m_server), sender(m_server);
  int16_t id = register_id(m_server, "NOTE");
  int16_t quiet = register_id(m_server, "QUIET");
  EXPECT_EQ(notify(sender.get(), id, "nobody"), 0);  // no subscriber is fine
  EXPECT_EQ(notify(sender.get(), 4321, "x"), -2);
  ASSERT_EQ(lmqSubscribeService(s1.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(s2.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(host.get(), quiet, 0), 0);

  ASSERT_EQ(notify(sender.get(), id, "hello all"), 0);
  for (LmqClient *s : {&s1, &s2}) {
    Received r = receive(s->get());
    ASSERT_EQ(r.rc, 9);
    EXPECT_EQ(r.data, "hello all");
    EXPECT_EQ(r.info.reply.kind, LMQ_KIND_NOTIFY);
    EXPECT_EQ(r.info.reply.service_id, id);
    EXPECT_EQ(r.info.reply.client, sender.number());
    EXPECT_EQ(r.info.reply.sequence, 2u);  // the first notification counted too
    EXPECT_EQ(receive(s->get()).rc, LMQ_TIMEOUT);
  }
  EXPECT_EQ(receive(host.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, quiet), 0);
}

TEST_F(LmqTest, GatherVectorMakesOneMessage) {
  LmqClient host(m_server), sender(m_server);
  int16_t id = register_id(m_server, "GATHER");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  char a[] = "abc";
  char c[] = "defgh";
  lmq_iovec vector[3] = {{a, 3}, {nullptr, 0}, {c, 5}};
  ASSERT_EQ(lmqCXSendCommand(sender.get(), id, vector, 3, 0), 0);
  Received r = receive(host.get());
  ASSERT_EQ(r.rc, 8);
  EXPECT_EQ(r.data, "abcdefgh");

  // Arguments that make no message.
  lmq_iovec empty[2] = {{nullptr, 0}, {a, 0}};
  lmq_iovec broken[2] = {{a, 3}, {nullptr, 2}};
  EXPECT_EQ(lmqCXSendCommand(sender.get(), id, empty, 2, 0), -22);
  EXPECT_EQ(lmqCXSendCommand(sender.get(), id, broken, 2, 0), -22);
  EXPECT_EQ(lmqCXSendCommand(sender.get(), id, nullptr, 1, 0), -22);
  EXPECT_EQ(lmqCXSendCommand(sender.get(), id, vector, 0, 0), -22);
  EXPECT_EQ(lmqCXSendCommand(sender.get(), id, vector, 3, 1), -22);
  EXPECT_EQ(lmqCXNotify(sender.get(), id, vector, 3, 1), -22);
  EXPECT_EQ(lmqCXNotifySelf(sender.get(), vector, 3, 1), -22);
  EXPECT_EQ(lmqCXNotifySelf(sender.get(), empty, 2, 0), -22);
  EXPECT_EQ(drain(host.get()), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, OversizedMessageIsRefused) {
  LmqClient big(m_server, 16384), small(m_server, 200), sender(m_server);
  int16_t id = register_id(m_server, "BIG");
  int16_t small_id = register_id(m_server, "SMALL");
  ASSERT_EQ(lmqHostService(big.get(), id, 0), 0);
  ASSERT_EQ(lmqHostService(small.get(), small_id, 0), 0);

  EXPECT_EQ(command(sender.get(), id, std::string(8192, 'x')), -90);
  EXPECT_EQ(notify_self(big.get(), std::string(8192, 'x')), -90);
  ASSERT_EQ(command(sender.get(), id, std::string(8191, 'y')), 0);
  Received r = receive(big.get());
  EXPECT_EQ(r.rc, 8191);
  EXPECT_EQ(r.data, std::string(8191, 'y'));

  // A 200-byte queue takes at most 200 - 24 bytes, and then nothing more.
  EXPECT_EQ(command(sender.get(), small_id, std::string(177, 'z')), -90);
  ASSERT_EQ(command(sender.get(), small_id, std::string(176, 'z')), 0);
  EXPECT_EQ(command(sender.get(), small_id, "1"), -105);
  r = receive(small.get());
  EXPECT_EQ(r.rc, 176);
  EXPECT_EQ(r.data, std::string(176, 'z'));
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, small_id), 0);
}

TEST_F(LmqTest, FullQueueRefusesAtOnceAndStaysIntact) {
  LmqClient host(m_server, 200), sender(m_server);
  int16_t id = register_id(m_server, "FULL");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  std::string m1(76, '1'), m2(76, '2');  // 100 bytes each in the queue
  ASSERT_EQ(command(sender.get(), id, m1), 0);
  ASSERT_EQ(command(sender.get(), id, m2), 0);
  EXPECT_EQ(command(sender.get(), id, "x"), -105);
  lmq_address address;
  ASSERT_EQ(lmqClientAddress(host.get(), &address), 0);
  EXPECT_EQ(reply(sender.get(), address, "y"), -105);
  EXPECT_EQ(notify_self(host.get(), "z"), -105);

  Received r = receive(host.get());
  EXPECT_EQ(r.data, m1);
  EXPECT_EQ(r.info.count, 1u);
  // Room for one again: the queue wraps around its end.
  std::string m3(76, '3');
  ASSERT_EQ(command(sender.get(), id, m3), 0);
  EXPECT_EQ(command(sender.get(), id, "x"), -105);
  r = receive(host.get());
  EXPECT_EQ(r.data, m2);
  r = receive(host.get());
  EXPECT_EQ(r.data, m3);
  EXPECT_EQ(r.info.count, 3u);
  EXPECT_EQ(receive(host.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

// Random sizes and interleaving over a small queue, so that records and
// messages are split at the end of the ring in every possible place.
TEST_F(LmqTest, QueueWrapsWithoutDamage) {
  LmqClient self(m_server, 257);
  std::deque<std::string> model;
  uint32_t seed = 12345;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) & 0x7FFF;
  };
  int sent = 0;
  for (int round = 0; round < 5000; round++) {
    if (next() % 3 != 0) {
      std::string m(1 + next() % 120, '\0');
      for (size_t i = 0; i < m.size(); i++) m[i] = static_cast<char>(next());
      int rc = notify_self(self.get(), m);
      if (rc == 0) {
        model.push_back(m);
        sent++;
      } else {
        ASSERT_EQ(rc, -105);
        ASSERT_FALSE(model.empty());
      }
    } else {
      Received r = receive(self.get());
      if (model.empty()) {
        ASSERT_EQ(r.rc, LMQ_TIMEOUT);
      } else {
        ASSERT_EQ(r.data, model.front());
        model.pop_front();
      }
    }
  }
  EXPECT_GT(sent, 1000);
  while (!model.empty()) {
    ASSERT_EQ(receive(self.get()).data, model.front());
    model.pop_front();
  }
}

TEST_F(LmqTest, MessageLargerThanBuffersIsDroppedWhole) {
  LmqClient self(m_server);
  std::string large(100, 'L');
  ASSERT_EQ(notify_self(self.get(), large), 0);
  ASSERT_EQ(notify_self(self.get(), "small one"), 0);

  Received r = receive(self.get(), 50);
  EXPECT_EQ(r.rc, -90);
  EXPECT_EQ(r.info.size, 100u);
  EXPECT_EQ(r.info.count, 1u);
  EXPECT_EQ(r.info.reply.kind, LMQ_KIND_SELF);
  r = receive(self.get(), 50);
  EXPECT_EQ(r.rc, 9);
  EXPECT_EQ(r.data, "small one");
  EXPECT_EQ(r.info.count, 2u);

  // The buffers of a vector are filled in order; a message as large as
  // all of them together fits.
  std::string fifty(50, '\0');
  for (size_t i = 0; i < fifty.size(); i++) fifty[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(notify_self(self.get(), fifty), 0);
  ASSERT_EQ(notify_self(self.get(), fifty + "!"), 0);
  char b1[20], b2[30];
  lmq_iovec scatter[3] = {{b1, 20}, {nullptr, 0}, {b2, 30}};
  lmq_rx_info info{};
  ASSERT_EQ(lmqCXReceive(self.get(), scatter, 3, &info, &kNoWait), 50);
  EXPECT_EQ(std::string(b1, 20) + std::string(b2, 30), fifty);
  EXPECT_EQ(lmqCXReceive(self.get(), scatter, 3, &info, &kNoWait), -90);
  EXPECT_EQ(info.size, 51u);
  EXPECT_EQ(lmqCXReceive(self.get(), scatter, 3, &info, &kNoWait), LMQ_TIMEOUT);
}

TEST_F(LmqTest, ReceiveChecksArguments) {
  LmqClient self(m_server);
  char buffer[16];
  lmq_iovec entry{buffer, sizeof(buffer)};
  lmq_iovec broken{nullptr, 4};
  lmq_rx_info info{};
  EXPECT_EQ(lmqCXReceive(nullptr, &entry, 1, &info, &kNoWait), -22);
  EXPECT_EQ(lmqCXReceive(self.get(), &entry, 1, nullptr, &kNoWait), -22);
  EXPECT_EQ(lmqCXReceive(self.get(), nullptr, 1, &info, &kNoWait), -22);
  EXPECT_EQ(lmqCXReceive(self.get(), &broken, 1, &info, &kNoWait), -22);
  // No buffer at all: every message is too large.
  ASSERT_EQ(notify_self(self.get(), "x"), 0);
  EXPECT_EQ(lmqCXReceive(self.get(), nullptr, 0, &info, &kNoWait), -90);
  EXPECT_EQ(info.size, 1u);
}

TEST_F(LmqTest, ReceiveTimeouts) {
  LmqClient self(m_server);
  const _cspOsalTime_struct one_ms{0, 1000};
  const _cspOsalTime_struct negative{-1, 0};
  EXPECT_EQ(receive(self.get(), 64, &one_ms).rc, LMQ_TIMEOUT);
  EXPECT_EQ(receive(self.get(), 64, &kNoWait).rc, LMQ_TIMEOUT);
  EXPECT_EQ(receive(self.get(), 64, &negative).rc, LMQ_TIMEOUT);
  // A queued message is taken even with a timeout that has run out.
  ASSERT_EQ(notify_self(self.get(), "ready"), 0);
  EXPECT_EQ(receive(self.get(), 64, &negative).data, "ready");
  ASSERT_EQ(notify_self(self.get(), "ready"), 0);
  EXPECT_EQ(receive(self.get(), 64, nullptr).data, "ready");  // no wait needed
}

TEST_F(LmqTest, ReplyReachesTheClientTheAddressNames) {
  LmqClient host(m_server), a(m_server), c(m_server);
  int16_t id = register_id(m_server, "ROUTE");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  ASSERT_EQ(command(a.get(), id, "from a"), 0);
  ASSERT_EQ(command(c.get(), id, "from c"), 0);
  Received ra = receive(host.get());
  Received rc = receive(host.get());
  ASSERT_EQ(ra.data, "from a");
  ASSERT_EQ(rc.data, "from c");
  lmq_address kept_a = ra.info.reply;  // kept, used later

  ASSERT_EQ(reply(host.get(), rc.info.reply, "to c"), 0);
  ASSERT_EQ(reply(host.get(), kept_a, "to a"), 0);
  Received got = receive(a.get());
  ASSERT_EQ(got.data, "to a");
  EXPECT_EQ(got.info.reply.kind, LMQ_KIND_REPLY);
  EXPECT_EQ(got.info.reply.service_id, id);
  EXPECT_EQ(got.info.reply.client, host.number());
  EXPECT_EQ(got.info.reply.node, host.node());
  EXPECT_EQ(got.info.reply.sequence, 2u);
  EXPECT_EQ(receive(a.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(receive(c.get()).data, "to c");

  // The service id of the receiver's address comes from the address used.
  lmq_address other = kept_a;
  other.service_id = 77;
  other.kind = 99;
  ASSERT_EQ(reply(host.get(), other, "77"), 0);
  got = receive(a.get());
  EXPECT_EQ(got.info.reply.service_id, 77);
  EXPECT_EQ(got.info.reply.kind, LMQ_KIND_REPLY);

  // The receiver can answer the reply in turn.
  ASSERT_EQ(reply(a.get(), got.info.reply, "back"), 0);
  got = receive(host.get());
  EXPECT_EQ(got.data, "back");
  EXPECT_EQ(got.info.reply.client, a.number());
  EXPECT_EQ(got.info.reply.service_id, 77);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, ReplyToAClientThatIsGone) {
  LmqClient host(m_server);
  lmq_client a{};
  unsigned char queue[256];
  ASSERT_EQ(lmqClientInit(&a, queue, sizeof(queue)), 0);
  ASSERT_EQ(lmqServerAddClient(m_server, &a), 0);
  lmq_address kept;
  ASSERT_EQ(lmqClientAddress(&a, &kept), 0);
  ASSERT_EQ(reply(host.get(), kept, "ok"), 0);

  ASSERT_EQ(lmqServerRemoveClient(m_server, &a), 0);
  EXPECT_EQ(reply(host.get(), kept, "late"), -113);
  // Attached again it has a new number; the old address stays dead.
  ASSERT_EQ(lmqServerAddClient(m_server, &a), 0);
  EXPECT_EQ(reply(host.get(), kept, "late"), -113);
  lmq_address fresh;
  ASSERT_EQ(lmqClientAddress(&a, &fresh), 0);
  ASSERT_EQ(reply(host.get(), fresh, "new"), 0);
  EXPECT_EQ(receive(&a).data, "ok");  // queued before the removal, kept
  EXPECT_EQ(receive(&a).data, "new");

  lmq_address nobody = fresh;
  nobody.client = 0;
  EXPECT_EQ(reply(host.get(), nobody, "x"), -113);
  nobody.client = 0xFFFFFF;
  EXPECT_EQ(reply(host.get(), nobody, "x"), -113);
  EXPECT_EQ(lmqCXReply(host.get(), nullptr, nullptr, 0, 0), -22);
  ASSERT_EQ(lmqServerRemoveClient(m_server, &a), 0);
  ASSERT_EQ(lmqClientRelease(&a), 0);
}

TEST_F(LmqTest, ReplyToAnotherNodeIsUnreachable) {
  lmq_server *other = nullptr;
  ASSERT_EQ(lmqServerCreate(&other), 0);
  {
    LmqClient here(m_server);
    LmqClient there(other);
    LmqClient there_too(other);
    lmq_address address;
    ASSERT_EQ(lmqClientAddress(there.get(), &address), 0);
    EXPECT_EQ(reply(here.get(), address, "x"), -113);
    EXPECT_EQ(reply(there_too.get(), address, "y"), 0);
    EXPECT_EQ(receive(there.get()).data, "y");
  }
  EXPECT_EQ(lmqServerDestroy(other), 0);
}

TEST_F(LmqTest, SelfNotification) {
  LmqClient self(m_server), other(m_server);
  ASSERT_EQ(notify_self(self.get(), "wake up"), 0);
  Received r = receive(self.get());
  ASSERT_EQ(r.data, "wake up");
  EXPECT_EQ(r.info.reply.kind, LMQ_KIND_SELF);
  EXPECT_EQ(r.info.reply.service_id, -1);
  EXPECT_EQ(r.info.reply.client, self.number());
  EXPECT_EQ(r.info.reply.node, self.node());
  EXPECT_EQ(r.info.reply.sequence, 1u);
  EXPECT_EQ(receive(other.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(lmqCXNotifySelf(nullptr, nullptr, 0, 0), -22);

  // A client that is not attached can still wake its own receiver.
  LmqClient alone(nullptr);
  ASSERT_EQ(notify_self(alone.get(), "alone"), 0);
  r = receive(alone.get());
  EXPECT_EQ(r.data, "alone");
  EXPECT_EQ(r.info.reply.kind, LMQ_KIND_SELF);
  EXPECT_EQ(r.info.reply.client, 0u);
}

// --- System messages ------------------------------------------------------

TEST_F(LmqTest, SystemMessagesWhenSubscriberComesAfterHost) {
  LmqClient host(m_server), subscriber(m_server);
  int16_t id = register_id(m_server, "SYS1");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  EXPECT_EQ(receive(host.get()).rc, LMQ_TIMEOUT);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  expect_sysmsg(receive(host.get()), LMQ_SYSMSG_SUBSCRIBER_PRESENT, id, subscriber.number());
  expect_sysmsg(receive(subscriber.get()), LMQ_SYSMSG_HOST_PRESENT, id, host.number());
  EXPECT_EQ(drain(host.get()), 0);
  EXPECT_EQ(drain(subscriber.get()), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, SystemMessagesWhenHostComesAfterSubscriber) {
  LmqClient host(m_server), subscriber(m_server);
  int16_t id = register_id(m_server, "SYS2");
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  EXPECT_EQ(receive(subscriber.get()).rc, LMQ_TIMEOUT);
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  expect_sysmsg(receive(host.get()), LMQ_SYSMSG_SUBSCRIBER_PRESENT, id, subscriber.number());
  expect_sysmsg(receive(subscriber.get()), LMQ_SYSMSG_HOST_PRESENT, id, host.number());
  EXPECT_EQ(drain(host.get()), 0);
  EXPECT_EQ(drain(subscriber.get()), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

// Collects the peers named by the system messages of one client's queue.
std::multiset<uint32_t> sysmsg_peers(lmq_client *client, uint32_t type, int16_t sid) {
  std::multiset<uint32_t> peers;
  for (;;) {
    Received r = receive(client);
    if (r.rc == LMQ_TIMEOUT) break;
    EXPECT_EQ(r.info.reply.kind, LMQ_KIND_SYSTEM);
    EXPECT_EQ(r.data, sysmsg_bytes(type, sid));
    peers.insert(r.info.reply.client);
  }
  return peers;
}

TEST_F(LmqTest, SystemMessagesForEveryPairInAnyOrder) {
  LmqClient h1(m_server), h2(m_server), s1(m_server), s2(m_server), s3(m_server);
  LmqClient both(m_server);  // hosts and subscribes: paired with the others only
  int16_t id = register_id(m_server, "PAIRS");
  int16_t unrelated = register_id(m_server, "UNRELATED");
  ASSERT_EQ(lmqSubscribeService(s1.get(), id, 0), 0);
  ASSERT_EQ(lmqHostService(h1.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(s2.get(), id, 0), 0);
  ASSERT_EQ(lmqHostService(both.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(both.get(), id, 0), 0);
  ASSERT_EQ(lmqHostService(h2.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(s3.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(h1.get(), unrelated, 0), 0);
  ASSERT_EQ(lmqHostService(s1.get(), unrelated, 0), 0);

  // The unrelated service pairs s1 (host) with h1 (subscriber); take those
  // out first by their service id.
  auto split = [&](LmqClient &c, int16_t sid, uint32_t type) {
    std::multiset<uint32_t> peers, other;
    for (;;) {
      Received r = receive(c.get());
      if (r.rc == LMQ_TIMEOUT) break;
      EXPECT_EQ(r.info.reply.kind, LMQ_KIND_SYSTEM);
      if (r.info.reply.service_id == sid) {
        EXPECT_EQ(r.data, sysmsg_bytes(type, sid));
        peers.insert(r.info.reply.client);
      } else {
        other.insert(r.info.reply.client);
      }
    }
    return std::make_pair(peers, other);
  };
  auto h1_msgs = split(h1, id, LMQ_SYSMSG_SUBSCRIBER_PRESENT);
  auto h2_msgs = split(h2, id, LMQ_SYSMSG_SUBSCRIBER_PRESENT);
  EXPECT_EQ(h1_msgs.first,
            (std::multiset<uint32_t>{s1.number(), s2.number(), s3.number(), both.number()}));
  EXPECT_EQ(h1_msgs.second, (std::multiset<uint32_t>{s1.number()}));  // HOST_PRESENT, unrelated
  EXPECT_EQ(h2_msgs.first,
            (std::multiset<uint32_t>{s1.number(), s2.number(), s3.number(), both.number()}));
  EXPECT_TRUE(h2_msgs.second.empty());

  auto s1_msgs = split(s1, id, LMQ_SYSMSG_HOST_PRESENT);
  EXPECT_EQ(s1_msgs.first, (std::multiset<uint32_t>{h1.number(), h2.number(), both.number()}));
  EXPECT_EQ(s1_msgs.second, (std::multiset<uint32_t>{h1.number()}));
  for (LmqClient *s : {&s2, &s3}) {
    EXPECT_EQ(sysmsg_peers(s->get(), LMQ_SYSMSG_HOST_PRESENT, id),
              (std::multiset<uint32_t>{h1.number(), h2.number(), both.number()}));
  }
  // "both" learns of the other hosts as subscriber and of the other
  // subscribers as host, never of itself.
  std::multiset<uint32_t> hosts_seen, subscribers_seen;
  for (;;) {
    Received r = receive(both.get());
    if (r.rc == LMQ_TIMEOUT) break;
    ASSERT_EQ(r.rc, 30);
    if (r.data == sysmsg_bytes(LMQ_SYSMSG_HOST_PRESENT, id)) {
      hosts_seen.insert(r.info.reply.client);
    } else {
      EXPECT_EQ(r.data, sysmsg_bytes(LMQ_SYSMSG_SUBSCRIBER_PRESENT, id));
      subscribers_seen.insert(r.info.reply.client);
    }
  }
  EXPECT_EQ(hosts_seen, (std::multiset<uint32_t>{h1.number(), h2.number()}));
  EXPECT_EQ(subscribers_seen, (std::multiset<uint32_t>{s1.number(), s2.number(), s3.number()}));
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, unrelated), 0);
}

TEST_F(LmqTest, SystemMessagesAgainAfterLeavingAndJoining) {
  LmqClient host(m_server), subscriber(m_server);
  int16_t id = register_id(m_server, "REJOIN");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  EXPECT_EQ(drain(host.get()), 1);
  EXPECT_EQ(drain(subscriber.get()), 1);
  ASSERT_EQ(lmqUnSubscribeService(subscriber.get(), id), 0);
  EXPECT_EQ(drain(host.get()), 0);  // nothing for leaving
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  expect_sysmsg(receive(host.get()), LMQ_SYSMSG_SUBSCRIBER_PRESENT, id, subscriber.number());
  expect_sysmsg(receive(subscriber.get()), LMQ_SYSMSG_HOST_PRESENT, id, host.number());
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, SystemMessageForAFullQueueIsDroppedAndLogged) {
  LmqClient host(m_server, 64), subscriber(m_server);
  int16_t id = register_id(m_server, "DROP");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  std::string filler(40, 'f');  // 40 + 24 fill the 64-byte queue
  ASSERT_EQ(notify_self(host.get(), filler), 0);

  testsupport::LogCapture log;
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  std::vector<testsupport::LogLine> lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].channel, 0x6Cu);
  EXPECT_EQ(lines[0].level, 3000u);
  EXPECT_EQ(lines[0].module, 0x0100u);
  EXPECT_EQ(lines[0].text, "lmqSubscribeService(): system message 0x185627f4 for service " +
                               std::to_string(id) + " dropped, client " +
                               std::to_string(host.number()) + " cannot take it (code -105)\n");
  // The subscriber still learns of the host; the host's queue is intact.
  expect_sysmsg(receive(subscriber.get()), LMQ_SYSMSG_HOST_PRESENT, id, host.number());
  Received r = receive(host.get());
  EXPECT_EQ(r.data, filler);
  EXPECT_EQ(receive(host.get()).rc, LMQ_TIMEOUT);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

struct SysmsgCall {
  int calls = 0;
  void *context = nullptr;
  uint32_t type = 0;
  uint32_t subtype = 0;
  int16_t sid = 0;
};

void record_sysmsg(void *context, uint32_t type, uint32_t subtype, int16_t sid) {
  auto *call = static_cast<SysmsgCall *>(context);
  call->calls++;
  call->context = context;
  call->type = type;
  call->subtype = subtype;
  call->sid = sid;
}

TEST_F(LmqTest, HandleSystemMessageDecodes) {
  LmqClient host(m_server), subscriber(m_server);
  int16_t id = register_id(m_server, "DECODE");
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  SysmsgCall call;
  lmq_sysmsg_pair pair{&call, record_sysmsg};

  char buffer[64];
  lmq_iovec entry{buffer, sizeof(buffer)};
  lmq_rx_info info{};
  ASSERT_EQ(lmqCXReceive(host.get(), &entry, 1, &info, &kNoWait), 30);
  ASSERT_EQ(lmqCXHandleSystemMessage(m_server, host.get(), &pair, &info, &entry, 1), 0);
  EXPECT_EQ(call.calls, 1);
  EXPECT_EQ(call.context, &call);
  EXPECT_EQ(call.type, LMQ_SYSMSG_SUBSCRIBER_PRESENT);
  EXPECT_EQ(call.subtype, LMQ_SYSMSG_SUBTYPE_PRESENT);
  EXPECT_EQ(call.sid, id);

  // Received into two buffers that split the header.
  char part1[10], part2[40];
  lmq_iovec split[2] = {{part1, sizeof(part1)}, {part2, sizeof(part2)}};
  ASSERT_EQ(lmqCXReceive(subscriber.get(), split, 2, &info, &kNoWait), 30);
  ASSERT_EQ(lmqCXHandleSystemMessage(m_server, subscriber.get(), &pair, &info, split, 2), 0);
  EXPECT_EQ(call.calls, 2);
  EXPECT_EQ(call.type, LMQ_SYSMSG_HOST_PRESENT);
  EXPECT_EQ(call.subtype, 1u);
  EXPECT_EQ(call.sid, id);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST_F(LmqTest, HandleSystemMessageRefusesWhatIsNotOne) {
  LmqClient client(m_server);
  SysmsgCall call;
  lmq_sysmsg_pair pair{&call, record_sysmsg};
  lmq_sysmsg_pair no_callback{&call, nullptr};
  std::string good = sysmsg_bytes(LMQ_SYSMSG_HOST_PRESENT, 5);
  lmq_rx_info info{};
  info.size = 30;
  info.reply.kind = LMQ_KIND_SYSTEM;
  info.reply.service_id = 5;

  auto handle = [&](std::string bytes, lmq_rx_info i) {
    lmq_iovec entry{&bytes[0], static_cast<uint32_t>(bytes.size())};
    return lmqCXHandleSystemMessage(m_server, client.get(), &pair, &i, &entry, 1);
  };
  ASSERT_EQ(handle(good, info), 0);  // the good one, for reference
  ASSERT_EQ(call.calls, 1);
  call.calls = 0;

  lmq_rx_info wrong = info;
  wrong.reply.kind = LMQ_KIND_NOTIFY;
  EXPECT_EQ(handle(good, wrong), -22);
  wrong = info;
  wrong.size = 31;
  EXPECT_EQ(handle(good + "x", wrong), -22);
  wrong = info;
  wrong.reply.service_id = 6;
  EXPECT_EQ(handle(good, wrong), -22);
  EXPECT_EQ(handle(good.substr(0, 29), info), -22);  // buffers shorter than the message
  std::string bad = good;
  bad[0] = 0x02;  // protocol byte
  EXPECT_EQ(handle(bad, info), -22);
  bad = good;
  bad[1] = 6;  // word count
  EXPECT_EQ(handle(bad, info), -22);
  bad = good;
  bad[15] = 31;  // size
  EXPECT_EQ(handle(bad, info), -22);
  bad = good;
  bad[19] = 29;  // size again
  EXPECT_EQ(handle(bad, info), -22);

  lmq_iovec entry{&good[0], 30};
  EXPECT_EQ(lmqCXHandleSystemMessage(nullptr, client.get(), &pair, &info, &entry, 1), -22);
  EXPECT_EQ(lmqCXHandleSystemMessage(m_server, nullptr, &pair, &info, &entry, 1), -22);
  EXPECT_EQ(lmqCXHandleSystemMessage(m_server, client.get(), nullptr, &info, &entry, 1), -22);
  EXPECT_EQ(lmqCXHandleSystemMessage(m_server, client.get(), &no_callback, &info, &entry, 1), -22);
  EXPECT_EQ(lmqCXHandleSystemMessage(m_server, client.get(), &pair, nullptr, &entry, 1), -22);
  EXPECT_EQ(lmqCXHandleSystemMessage(m_server, client.get(), &pair, &info, nullptr, 1), -22);
  EXPECT_EQ(call.calls, 0);
}

// --- Detaching ------------------------------------------------------------

TEST_F(LmqTest, RemovedClientNoLongerHostsOrSubscribes) {
  LmqClient sender(m_server);
  lmq_client member{};
  unsigned char queue[512];
  ASSERT_EQ(lmqClientInit(&member, queue, sizeof(queue)), 0);
  ASSERT_EQ(lmqServerAddClient(m_server, &member), 0);
  int16_t id = register_id(m_server, "LEAVE");
  ASSERT_EQ(lmqHostService(&member, id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(&member, id, 0), 0);
  ASSERT_EQ(command(sender.get(), id, "before"), 0);

  ASSERT_EQ(lmqServerRemoveClient(m_server, &member), 0);
  EXPECT_EQ(command(sender.get(), id, "after"), -113);
  EXPECT_EQ(notify(sender.get(), id, "after"), 0);
  EXPECT_EQ(command(&member, id, "x"), -2);  // the detached client cannot send
  EXPECT_EQ(lmqUnHostService(&member, id), -2);
  // Its queue keeps what it holds until released.
  EXPECT_EQ(receive(&member).data, "before");
  EXPECT_EQ(receive(&member).rc, LMQ_TIMEOUT);

  ASSERT_EQ(notify_self(&member, "dropped at release"), 0);
  ASSERT_EQ(lmqClientRelease(&member), 0);
  ASSERT_EQ(lmqClientInit(&member, queue, sizeof(queue)), 0);
  EXPECT_EQ(receive(&member).rc, LMQ_TIMEOUT);
  ASSERT_EQ(lmqClientRelease(&member), 0);
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, id), 0);
}

TEST(LmqServerTest, DestroyDetachesClientsAndKeepsTheirQueues) {
  lmq_server *server = nullptr;
  ASSERT_EQ(lmqServerCreate(&server), 0);
  lmq_client a{}, b{};
  unsigned char qa[256], qb[256];
  ASSERT_EQ(lmqClientInit(&a, qa, sizeof(qa)), 0);
  ASSERT_EQ(lmqClientInit(&b, qb, sizeof(qb)), 0);
  ASSERT_EQ(lmqServerAddClient(server, &a), 0);
  ASSERT_EQ(lmqServerAddClient(server, &b), 0);
  int16_t id = register_id(server, "DESTROY");
  ASSERT_EQ(lmqHostService(&a, id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(&b, id, 0), 0);
  ASSERT_EQ(command(&b, id, "queued"), 0);

  ASSERT_EQ(lmqServerDestroy(server), 0);
  lmq_address address;
  EXPECT_EQ(lmqClientAddress(&a, &address), -2);
  Received r = receive(&a);
  EXPECT_EQ(r.rc, 30);  // the system message
  EXPECT_EQ(receive(&a).data, "queued");
  EXPECT_EQ(lmqClientRelease(&a), 0);
  EXPECT_EQ(lmqClientRelease(&b), 0);
}

// Attaching and detaching in a loop leaves nothing behind (ASan checks
// for leaks); the inverse operations and the bulk clean-up are both used.
TEST(LmqServerTest, AttachDetachLoopLeavesNothing) {
  lmq_server *server = nullptr;
  ASSERT_EQ(lmqServerCreate(&server), 0);
  std::vector<unsigned char> queue(1024);
  for (int i = 0; i < 300; i++) {
    lmq_client client{};
    lmq_client peer{};
    std::vector<unsigned char> peer_queue(256);
    ASSERT_EQ(lmqClientInit(&client, queue.data(), 1024), 0);
    ASSERT_EQ(lmqClientInit(&peer, peer_queue.data(), 256), 0);
    ASSERT_EQ(lmqServerAddClient(server, &client), 0);
    ASSERT_EQ(lmqServerAddClient(server, &peer), 0);
    std::string name = "LOOP" + std::to_string(i % 7);
    int16_t id = register_id(server, name.c_str());
    int16_t id2 = register_id(server, "SHARED");
    ASSERT_EQ(lmqHostService(&client, id, 0), 0);
    ASSERT_EQ(lmqSubscribeService(&peer, id, 0), 0);
    ASSERT_EQ(lmqSubscribeService(&client, id2, 0), 0);
    ASSERT_EQ(lmqHostService(&peer, id2, 0), 0);
    ASSERT_EQ(command(&peer, id, "cmd"), 0);
    ASSERT_EQ(notify(&client, id, "note"), 0);
    if (i % 2 == 0) {
      ASSERT_EQ(lmqUnHostService(&client, id), 0);
      ASSERT_EQ(lmqUnSubscribeService(&peer, id), 0);
      ASSERT_EQ(lmqUnSubscribeService(&client, id2), 0);
      ASSERT_EQ(lmqUnHostService(&peer, id2), 0);
      ASSERT_EQ(lmqUnRegisterPlainId(server, id), 0);
      ASSERT_EQ(lmqUnRegisterPlainId(server, id2), 0);
    } else {
      // Removal ends hosting and subscriptions; the names go with their
      // last reference.
      ASSERT_EQ(lmqUnRegisterPlainId(server, id), 0);
      ASSERT_EQ(lmqUnRegisterPlainId(server, id2), 0);
    }
    ASSERT_EQ(lmqServerRemoveClient(server, &client), 0);
    ASSERT_EQ(lmqServerRemoveClient(server, &peer), 0);
    ASSERT_EQ(lmqClientRelease(&client), 0);
    ASSERT_EQ(lmqClientRelease(&peer), 0);
  }
  // What is left at destruction is freed by it.
  lmq_client last{};
  ASSERT_EQ(lmqClientInit(&last, queue.data(), 1024), 0);
  ASSERT_EQ(lmqServerAddClient(server, &last), 0);
  int16_t id = register_id(server, "LEFT");
  ASSERT_EQ(lmqHostService(&last, id, 0), 0);
  ASSERT_EQ(lmqSubscribeService(&last, id, 0), 0);
  ASSERT_EQ(lmqServerDestroy(server), 0);
  ASSERT_EQ(lmqClientRelease(&last), 0);
}

}  // namespace
