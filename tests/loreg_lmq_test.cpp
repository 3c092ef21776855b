// Attachment of a registry task to lmq: host and subscriber modes, with a
// caller's client and with an own one, every failure path with its line,
// code and cleanup, and shutdown undoing everything.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "platform/lmq.h"
#include "support/lmq_wire.h"
#include "support/log_capture.h"
#include "support/test_allocator.h"

namespace {

using testsupport::LmqClient;
using testsupport::LmqServer;
using testsupport::LogCapture;
using testsupport::TestAllocator;

bool is_zeroed(const loreg_lmq_ctx &lmq) {
  loreg_lmq_ctx zero;
  std::memset(&zero, 0, sizeof zero);
  return std::memcmp(&lmq, &zero, sizeof zero) == 0;
}

// A record full of garbage, to see that init zeroes it first.
loreg_lmq_ctx dirty_ctx() {
  loreg_lmq_ctx lmq;
  std::memset(&lmq, 0xA5, sizeof lmq);
  return lmq;
}

loreg_msg echo_msg() {
  loreg_msg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.header.msgtype = LOREG_MSG_ECHO;
  return msg;
}

// A handle that is not a server: lmq recognises it by its missing magic.
struct FakeServer {
  alignas(16) unsigned char bytes[256] = {};
  lmq_server *get() { return reinterpret_cast<lmq_server *>(bytes); }
};

class LmqAttachTest : public ::testing::Test {
 protected:
  // The id that the server gives "LOREG"; takes and drops a reference.
  int16_t loreg_id() {
    int16_t id = 0;
    EXPECT_EQ(lmqRegisterPlainId(m_server.get(), "LOREG", 6, &id), 0);
    EXPECT_EQ(lmqUnRegisterPlainId(m_server.get(), id), 0);
    return id;
  }

  LmqServer m_server;
  TestAllocator m_alloc;
};

// --- Own client ------------------------------------------------------

TEST_F(LmqAttachTest, HostWithOwnClientAllocatesQueueAndClient) {
  loreg_lmq_ctx lmq = dirty_ctx();
  ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0, 1), 0);
  EXPECT_EQ(lmq.stages, 0x2Fu);
  EXPECT_EQ(lmq.stages, LOREG_LMQ_STAGE_CLIENT_ALLOC | LOREG_LMQ_STAGE_CLIENT_INIT |
                            LOREG_LMQ_STAGE_SERVER_ADD | LOREG_LMQ_STAGE_REGISTERED |
                            LOREG_LMQ_STAGE_HOSTING);
  EXPECT_EQ(lmq.service_id, loreg_id());
  EXPECT_EQ(lmq.server, m_server.get());
  ASSERT_NE(lmq.client, nullptr);
  ASSERT_NE(lmq.queue, nullptr);
  EXPECT_EQ(lmq.queue_size, 0x4000u);
  EXPECT_EQ(m_alloc.live_blocks(), 2u);
  EXPECT_EQ(m_alloc.live_bytes(), 0x4000u + sizeof(lmq_client));

  // It hosts the service: a command reaches it.
  LmqClient sender(m_server.get());
  loreg_msg msg = echo_msg();
  ASSERT_EQ(loreg_send_command(sender.get(), lmq.service_id, &msg), 0);
  std::vector<uint8_t> buffer(0x2000);
  lmq_rx_info info{};
  lmq_iovec vector{buffer.data(), 0x1FFF};
  _cspOsalTime_struct timeout{2, 0};
  EXPECT_EQ(lmqCXReceive(lmq.client, &vector, 1, &info, &timeout), 62);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_COMMAND);

  int16_t sid = lmq.service_id;
  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
  EXPECT_EQ(m_alloc.frees(), 2u);
  // The service is gone with the last reference: no host is left.
  EXPECT_EQ(loreg_send_command(sender.get(), sid, &msg), -2);
}

TEST_F(LmqAttachTest, SubscriberWithOwnClientAndQueueSizeInKib) {
  loreg_lmq_ctx lmq = dirty_ctx();
  ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 3, 0), 0);
  EXPECT_EQ(lmq.stages, 0x1Fu);
  EXPECT_EQ(lmq.queue_size, 3072u);
  EXPECT_EQ(m_alloc.live_bytes(), 3072u + sizeof(lmq_client));

  // It subscribes: a notification of the service reaches it.
  LmqClient notifier(m_server.get());
  loreg_msg msg = echo_msg();
  msg.header.msgtype = LOREG_MSG_KEY_UPDATE;
  ASSERT_EQ(loreg_send_notification(notifier.get(), lmq.service_id, &msg), 0);
  std::vector<uint8_t> buffer(0x2000);
  lmq_rx_info info{};
  lmq_iovec vector{buffer.data(), 0x1FFF};
  _cspOsalTime_struct timeout{2, 0};
  EXPECT_EQ(lmqCXReceive(lmq.client, &vector, 1, &info, &timeout), 62);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_NOTIFY);

  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

TEST_F(LmqAttachTest, HostAndSubscriberLearnOfEachOther) {
  loreg_lmq_ctx server_side;
  loreg_lmq_ctx client_side;
  ASSERT_EQ(loreg_lmq_init(&server_side, m_alloc.handle(), m_server.get(), nullptr, 0, 1), 0);
  ASSERT_EQ(loreg_lmq_init(&client_side, m_alloc.handle(), m_server.get(), nullptr, 0, 0), 0);
  std::vector<uint8_t> buffer(0x2000);
  lmq_iovec vector{buffer.data(), 0x1FFF};
  _cspOsalTime_struct timeout{2, 0};
  lmq_rx_info info{};
  ASSERT_EQ(lmqCXReceive(server_side.client, &vector, 1, &info, &timeout), 30);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_SYSTEM);
  EXPECT_EQ(info.reply.service_id, server_side.service_id);
  ASSERT_EQ(lmqCXReceive(client_side.client, &vector, 1, &info, &timeout), 30);
  EXPECT_EQ(info.reply.kind, LMQ_KIND_SYSTEM);
  loreg_lmq_shutdown(&client_side, m_alloc.handle());
  loreg_lmq_shutdown(&server_side, m_alloc.handle());
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

TEST_F(LmqAttachTest, NullAllocatorUsesMalloc) {
  loreg_lmq_ctx lmq;
  ASSERT_EQ(loreg_lmq_init(&lmq, nullptr, m_server.get(), nullptr, 1, 1), 0);
  EXPECT_EQ(lmq.queue_size, 1024u);
  EXPECT_NE(lmq.queue, nullptr);
  loreg_lmq_shutdown(&lmq, nullptr);
  EXPECT_TRUE(is_zeroed(lmq));
  ASSERT_EQ(loreg_lmq_init(&lmq, LOREG_ALLOCATOR_DEFAULT, m_server.get(), nullptr, 0, 0), 0);
  loreg_lmq_shutdown(&lmq, LOREG_ALLOCATOR_DEFAULT);
  EXPECT_TRUE(is_zeroed(lmq));
}

// --- Caller's client ---------------------------------------------------

TEST_F(LmqAttachTest, HostWithCallerClientSetsNoClientStages) {
  LmqClient caller(m_server.get());
  loreg_lmq_ctx lmq = dirty_ctx();
  ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), caller.get(), 5, 1), 0);
  EXPECT_EQ(lmq.stages, 0x28u);
  EXPECT_EQ(lmq.client, caller.get());
  EXPECT_EQ(lmq.server, m_server.get());
  EXPECT_EQ(lmq.queue, nullptr);
  EXPECT_EQ(lmq.queue_size, 0u);
  EXPECT_EQ(lmq.service_id, loreg_id());
  EXPECT_EQ(m_alloc.allocations(), 0u);

  LmqClient sender(m_server.get());
  loreg_msg msg = echo_msg();
  ASSERT_EQ(loreg_send_command(sender.get(), lmq.service_id, &msg), 0);
  lmq_rx_info info{};
  EXPECT_EQ(caller.receive_bytes(&info).size(), 62u);

  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  EXPECT_TRUE(is_zeroed(lmq));
  // The client stays the caller's: initialised and attached.
  EXPECT_EQ(loreg_send_self_notification(caller.get(), &msg), 0);
  EXPECT_EQ(caller.receive_bytes(&info).size(), 62u);
  lmq_address address{};
  EXPECT_EQ(lmqClientAddress(caller.get(), &address), 0);
}

TEST_F(LmqAttachTest, SubscriberWithCallerClient) {
  LmqClient caller(m_server.get());
  loreg_lmq_ctx lmq;
  ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), caller.get(), 0, 0), 0);
  EXPECT_EQ(lmq.stages, 0x18u);
  EXPECT_EQ(lmq.queue, nullptr);
  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  EXPECT_TRUE(is_zeroed(lmq));
  // Unsubscribed: subscribing again works.
  int16_t id = 0;
  ASSERT_EQ(lmqRegisterPlainId(m_server.get(), "LOREG", 6, &id), 0);
  EXPECT_EQ(lmqSubscribeService(caller.get(), id, 0), 0);
}

// --- Shutdown ----------------------------------------------------------

TEST_F(LmqAttachTest, ShutdownUndoesAllSoASecondInitWorks) {
  for (int host = 0; host <= 1; host++) {
    SCOPED_TRACE(host);
    loreg_lmq_ctx lmq;
    ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0, host), 0);
    loreg_lmq_shutdown(&lmq, m_alloc.handle());
    ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0, host), 0);
    loreg_lmq_shutdown(&lmq, m_alloc.handle());
    EXPECT_EQ(m_alloc.live_blocks(), 0u);

    // With a caller's client, a second hosting or subscribing would fail
    // with -17 had the first not been undone.
    LmqClient caller(m_server.get());
    ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), caller.get(), 0, host), 0);
    loreg_lmq_shutdown(&lmq, m_alloc.handle());
    ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), caller.get(), 0, host), 0);
    loreg_lmq_shutdown(&lmq, m_alloc.handle());
  }
}

TEST_F(LmqAttachTest, ShutdownOfNullOrZeroedRecordDoesNothing) {
  loreg_lmq_shutdown(nullptr, m_alloc.handle());
  loreg_lmq_ctx lmq;
  std::memset(&lmq, 0, sizeof lmq);
  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.frees(), 0u);
}

TEST_F(LmqAttachTest, ShutdownTwiceIsHarmless) {
  loreg_lmq_ctx lmq;
  ASSERT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0, 1), 0);
  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  loreg_lmq_shutdown(&lmq, m_alloc.handle());
  EXPECT_EQ(m_alloc.frees(), 2u);
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

// --- Failures ----------------------------------------------------------

TEST_F(LmqAttachTest, NullRecordIsRefused) {
  EXPECT_EQ(loreg_lmq_init(nullptr, m_alloc.handle(), m_server.get(), nullptr, 0, 1), -22);
  EXPECT_EQ(m_alloc.allocations(), 0u);
}

TEST_F(LmqAttachTest, NullServer) {
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), nullptr, nullptr, 0, 1), -22);
  EXPECT_TRUE(log.has_line("loreg_lmq_init() no lmq server given!\n")) << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.allocations(), 0u);
}

TEST_F(LmqAttachTest, QueueAllocationFails) {
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  m_alloc.fail_at(1);
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0, 1), -12);
  EXPECT_TRUE(m_alloc.failed());
  EXPECT_TRUE(log.has_line("loreg_lmq_init() failed to alloc 16384 bytes rcv-queue\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

TEST_F(LmqAttachTest, ClientBlockAllocationFails) {
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  m_alloc.fail_at(2);
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 2, 0), -12);
  EXPECT_TRUE(m_alloc.failed());
  EXPECT_TRUE(log.has_line("loreg_lmq_init() failed to alloc " + std::to_string(sizeof(lmq_client)) +
                           " bytes lmq client\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
  EXPECT_EQ(m_alloc.frees(), 1u);  // the queue went back
}

TEST_F(LmqAttachTest, EveryAllocationFailureLeavesNothingBehind) {
  int n = 1;
  for (;; n++) {
    SCOPED_TRACE(n);
    loreg_lmq_ctx lmq = dirty_ctx();
    m_alloc.fail_at(static_cast<uint64_t>(n));
    int rc = loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0, 1);
    if (!m_alloc.failed()) {
      ASSERT_EQ(rc, 0);
      loreg_lmq_shutdown(&lmq, m_alloc.handle());
      break;
    }
    EXPECT_EQ(rc, -12);
    EXPECT_TRUE(is_zeroed(lmq));
    EXPECT_EQ(m_alloc.live_blocks(), 0u);
  }
  EXPECT_EQ(n, 3);  // two allocations, then success
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

TEST_F(LmqAttachTest, ClientInitFailureIsMappedToEfault) {
  // 0x400000 KiB wraps to a 0-byte queue, which lmqClientInit refuses.
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), nullptr, 0x400000u, 1), -14);
  EXPECT_TRUE(log.has_line("loreg_lmq_init(): lmqClientInit failed (code -22)\n")) << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.allocations(), 2u);
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

TEST_F(LmqAttachTest, ServerAddClientFailureIsMappedToEfault) {
  FakeServer fake;
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), fake.get(), nullptr, 0, 1), -14);
  EXPECT_TRUE(log.has_line("loreg_lmq_init(): lmqServerAddClient failed (code -22)\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
  EXPECT_EQ(m_alloc.live_blocks(), 0u);
}

TEST_F(LmqAttachTest, RegisterFailureIsMappedToEfault) {
  FakeServer fake;
  LmqClient caller(m_server.get());
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), fake.get(), caller.get(), 0, 0), -14);
  EXPECT_TRUE(log.has_line("loreg_lmq_init(): lmqRegisterPlainId(LOREG) failed (code -22)\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
}

TEST_F(LmqAttachTest, HostingTwiceFailsAndUndoesTheRegistration) {
  LmqClient caller(m_server.get());
  loreg_lmq_ctx first;
  ASSERT_EQ(loreg_lmq_init(&first, m_alloc.handle(), m_server.get(), caller.get(), 0, 1), 0);

  LogCapture log;
  loreg_lmq_ctx second = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&second, m_alloc.handle(), m_server.get(), caller.get(), 0, 1), -14);
  EXPECT_TRUE(log.has_line("loreg_lmq_init(): lmqHostService(LOREG) failed (code -17)\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(second));

  // The failed attempt dropped its reference again: the first record's
  // shutdown drops the last one and the service is gone.
  int16_t sid = first.service_id;
  loreg_lmq_shutdown(&first, m_alloc.handle());
  LmqClient sender(m_server.get());
  loreg_msg msg = echo_msg();
  EXPECT_EQ(loreg_send_command(sender.get(), sid, &msg), -2);
}

TEST_F(LmqAttachTest, SubscribingTwiceFails) {
  LmqClient caller(m_server.get());
  loreg_lmq_ctx first;
  ASSERT_EQ(loreg_lmq_init(&first, m_alloc.handle(), m_server.get(), caller.get(), 0, 0), 0);
  LogCapture log;
  loreg_lmq_ctx second = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&second, m_alloc.handle(), m_server.get(), caller.get(), 0, 0), -14);
  EXPECT_TRUE(log.has_line("loreg_lmq_init(): lmqSubscribe(LOREG) failed (code -17)\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(second));
  loreg_lmq_shutdown(&first, m_alloc.handle());
}

TEST_F(LmqAttachTest, CallerClientNotAttachedFails) {
  // Initialised, but attached to another server.
  LmqServer other;
  LmqClient caller(other.get());
  LogCapture log;
  loreg_lmq_ctx lmq = dirty_ctx();
  EXPECT_EQ(loreg_lmq_init(&lmq, m_alloc.handle(), m_server.get(), caller.get(), 0, 1), -14);
  EXPECT_TRUE(log.has_line("loreg_lmq_init(): lmqHostService(LOREG) failed (code -2)\n"))
      << log.dump();
  EXPECT_TRUE(is_zeroed(lmq));
}

}  // namespace
