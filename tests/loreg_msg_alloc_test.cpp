// No heap allocation per message: the send, receive and validation path of
// registry messages over lmq, and the receive loop serving them, run
// without a single malloc, calloc, realloc or free once warmed up.
//
// The C library's allocation functions are replaced in this program by
// counting ones (support/malloc_counter.h). Sanitizers bring their own
// allocator, so the tests are skipped in sanitizer builds.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "loreg/loreg_msgloop.h"
#include "platform/lmq.h"
#include "support/malloc_counter.h"

namespace {

using testsupport::MallocCounter;

// GTEST_SKIP returns from the function it is in: it must stand in the test.
#define SKIP_UNDER_SANITIZER()                                                          \
  do {                                                                                  \
    if (!testsupport::kMallocCounting) {                                                \
      GTEST_SKIP() << "sanitizer builds replace malloc themselves; nothing is counted"; \
    }                                                                                   \
  } while (0)

loreg_msg value_set(uint32_t reqid) {
  static const char kValue[] = "0123456789";
  static const char kPath[] = "/com/norvi/tuner/snr";
  loreg_msg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.header.msgtype = LOREG_MSG_VALUE_SET;
  msg.header.reqid = reqid;
  msg.header.arg0 = 0x30400;
  msg.header.len0 = sizeof kValue - 1;
  msg.header.len1 = sizeof kPath - 1;
  msg.data0 = const_cast<char *>(kValue);
  msg.data1 = const_cast<char *>(kPath);
  return msg;
}

// A client that sends and a host that answers, both on the calling thread.
struct Pair {
  lmq_server *server = nullptr;
  loreg_lmq_ctx host{};
  loreg_lmq_ctx client{};
  std::vector<uint8_t> host_buffer = std::vector<uint8_t>(0x2000);
  std::vector<uint8_t> client_buffer = std::vector<uint8_t>(0x2000);

  Pair() {
    EXPECT_EQ(lmqServerCreate(&server), 0);
    EXPECT_EQ(loreg_lmq_init(&host, nullptr, server, nullptr, 0, 1), 0);
    // A subscriber's system message goes to the host: take it first.
    EXPECT_EQ(loreg_lmq_init(&client, nullptr, server, nullptr, 0, 0), 0);
    lmq_rx_info info{};
    lmq_iovec vector{host_buffer.data(), 0x1FFF};
    _cspOsalTime_struct timeout{1, 0};
    EXPECT_EQ(lmqCXReceive(host.client, &vector, 1, &info, &timeout), 30);
    vector.base = client_buffer.data();
    EXPECT_EQ(lmqCXReceive(client.client, &vector, 1, &info, &timeout), 30);
  }
  ~Pair() {
    loreg_lmq_shutdown(&client, nullptr);
    loreg_lmq_shutdown(&host, nullptr);
    lmqServerDestroy(server);
  }

  // One command and its reply; returns false on any failure.
  bool round_trip(uint32_t reqid) {
    loreg_msg request = value_set(reqid);
    if (loreg_send_command(client.client, host.service_id, &request) != 0) return false;

    lmq_rx_info info;
    lmq_iovec vector{host_buffer.data(), 0x1FFF};
    if (lmqCXReceive(host.client, &vector, 1, &info, nullptr) <= 0) return false;
    loreg_msg msg;
    if (loreg_validate_msg(&msg, host_buffer.data(), 0x2000, &info) != 0) return false;
    msg.header.msgtype = LOREG_MSG_REPLY_TYPE(msg.header.msgtype);
    msg.header.len0 = 0;
    msg.header.len1 = 0;
    if (loreg_send_reply(host.client, &msg, &info.reply) != 0) return false;

    vector.base = client_buffer.data();
    if (lmqCXReceive(client.client, &vector, 1, &info, nullptr) <= 0) return false;
    loreg_msg reply;
    if (loreg_validate_msg(&reply, client_buffer.data(), 0x2000, &info) != 0) return false;
    return reply.header.reqid == reqid && reply.header.msgtype == 0x1002;
  }
};

TEST(MsgAllocations, SendReceiveAndValidateAllocateNothing) {
  SKIP_UNDER_SANITIZER();
  Pair pair;
  for (uint32_t i = 0; i < 100; i++) ASSERT_TRUE(pair.round_trip(i));

  uint64_t allocs;
  uint64_t frees;
  int ok = 0;
  {
    MallocCounter counter;
    for (uint32_t i = 0; i < 10000; i++) ok += pair.round_trip(i) ? 1 : 0;
    allocs = counter.allocs();
    frees = counter.frees();
  }
  EXPECT_EQ(ok, 10000);
  EXPECT_EQ(allocs, 0u);
  EXPECT_EQ(frees, 0u);
}

TEST(MsgAllocations, CountingSeesAllocationsHereAndInTheLibraries) {
  // The counter itself works: a malloc in this program and those that the
  // registry library makes in its own code are all seen.
  SKIP_UNDER_SANITIZER();
  lmq_server *server = nullptr;
  ASSERT_EQ(lmqServerCreate(&server), 0);
  loreg_lmq_ctx lmq;
  uint64_t allocs;
  uint64_t frees;
  {
    MallocCounter counter;
    void *volatile block = std::malloc(32);
    std::free(block);
    ASSERT_EQ(loreg_lmq_init(&lmq, nullptr, server, nullptr, 0, 1), 0);
    loreg_lmq_shutdown(&lmq, nullptr);
    allocs = counter.allocs();
    frees = counter.frees();
  }
  lmqServerDestroy(server);
  // The block, the queue, the client block, and whatever lmq needs for the
  // service entry.
  EXPECT_GE(allocs, 3u);
  EXPECT_GE(frees, 3u);
}

// The loop on its own thread answers commands; nothing on either thread
// allocates per message.
struct EchoTask {
  loreg_lmq_ctx *lmq;
  static int on_msg(void *user, loreg_msg *msg, const lmq_rx_info *info, _cspOsalTime_struct *) {
    auto *self = static_cast<EchoTask *>(user);
    msg->header.msgtype = LOREG_MSG_REPLY_TYPE(msg->header.msgtype);
    msg->header.len0 = 0;
    msg->header.len1 = 0;
    return info->reply.kind == LMQ_KIND_COMMAND ? loreg_send_reply(self->lmq->client, msg, &info->reply)
                                                : 0;
  }
};

TEST(MsgAllocations, LoopServingCommandsAllocatesNothing) {
  SKIP_UNDER_SANITIZER();
  Pair pair;
  EchoTask task{&pair.host};
  int32_t stop = 0;
  loreg_loop loop;
  std::memset(&loop, 0, sizeof loop);
  loop.lmq = &pair.host;
  loop.on_msg = &EchoTask::on_msg;
  loop.stop = &stop;
  loop.user = &task;
  std::thread server([&] {
    std::vector<uint8_t> buffer(LOREG_MSGLOOP_BUFFER_SIZE);
    loreg_msgloop(&loop, buffer.data());
  });

  auto client_round_trip = [&](uint32_t reqid) {
    loreg_msg request = value_set(reqid);
    if (loreg_send_command(pair.client.client, pair.host.service_id, &request) != 0) return false;
    lmq_rx_info info;
    lmq_iovec vector{pair.client_buffer.data(), 0x1FFF};
    if (lmqCXReceive(pair.client.client, &vector, 1, &info, nullptr) <= 0) return false;
    loreg_msg reply;
    if (loreg_validate_msg(&reply, pair.client_buffer.data(), 0x2000, &info) != 0) return false;
    return reply.header.reqid == reqid;
  };
  for (uint32_t i = 0; i < 100; i++) ASSERT_TRUE(client_round_trip(i));

  uint64_t allocs;
  int ok = 0;
  {
    MallocCounter counter;
    for (uint32_t i = 0; i < 5000; i++) ok += client_round_trip(i) ? 1 : 0;
    allocs = counter.allocs() + counter.frees();
  }
  __atomic_store_n(&stop, 1, __ATOMIC_RELEASE);
  loreg_msg wake;
  std::memset(&wake, 0, sizeof wake);
  wake.header.msgtype = LOREG_MSG_IDLE;
  EXPECT_EQ(loreg_send_self_notification(pair.host.client, &wake), 0);
  server.join();
  EXPECT_EQ(ok, 5000);
  EXPECT_EQ(allocs, 0u);
}

}  // namespace
