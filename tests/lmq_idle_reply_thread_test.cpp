// Tests of the idle reply handler: a reply for a receiver that waits with
// nothing queued is offered to the handler in the replying thread, the
// receiver stays blocked meanwhile, and the order of messages is kept.
// Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/bus_fixture.h"
#include "support/idle_offer.h"
#include "support/lmq_client.h"
#include "support/thread_state.h"

namespace {

using testsupport::LmqClient;
using Handler = testsupport::OfferRecorder;
using Receiver = testsupport::BlockedReceiver;
using namespace std::chrono_literals;

constexpr _cspOsalTime_struct kNoWait{0, 0};
constexpr _cspOsalTime_struct kExpectWait{30, 0};



int send(int (*fn)(lmq_client *, int16_t, const lmq_iovec *, uint32_t, uint32_t),
         lmq_client *from, int16_t id, const std::string &text) {
  lmq_iovec entry{const_cast<char *>(text.data()), static_cast<uint32_t>(text.size())};
  return fn(from, id, &entry, 1, 0);
}

int reply(lmq_client *from, const lmq_address &to, const std::string &text) {
  // Two pieces, so that the offer is gathered like any delivery.
  size_t half = text.size() / 2;
  lmq_iovec entries[2] = {{const_cast<char *>(text.data()), static_cast<uint32_t>(half)},
                          {const_cast<char *>(text.data()) + half,
                           static_cast<uint32_t>(text.size() - half)}};
  return lmqCXReply(from, &to, entries, 2, 0);
}

int notify_self(lmq_client *client, const std::string &text) {
  lmq_iovec entry{const_cast<char *>(text.data()), static_cast<uint32_t>(text.size())};
  return lmqCXNotifySelf(client, &entry, 1, 0);
}

// A requester that sent one command and the host that took it: the host
// can then reply to the requester's address.
class Exchange : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(lmqServerCreate(&m_server), 0);
    ASSERT_EQ(lmqRegisterPlainId(m_server, "IDLE", 5, &m_id), 0);
    m_requester.reset(new LmqClient(m_server));
    m_host.reset(new LmqClient(m_server));
    ASSERT_EQ(lmqHostService(m_host->get(), m_id, 0), 0);
    ASSERT_EQ(send(lmqCXSendCommand, m_requester->get(), m_id, "question"), 0);
    char buffer[64];
    lmq_rx_info info{};
    ASSERT_EQ(m_host->receive(buffer, sizeof buffer, &info), 8);
    m_requester_address = info.reply;
  }
  void TearDown() override {
    m_host.reset();
    m_requester.reset();
    EXPECT_EQ(lmqUnRegisterPlainId(m_server, m_id), 0);
    EXPECT_EQ(lmqServerDestroy(m_server), 0);
  }
  lmq_client *requester() { return m_requester->get(); }
  int answer(const std::string &text) { return reply(m_host->get(), m_requester_address, text); }

  lmq_server *m_server = nullptr;
  int16_t m_id = 0;
  std::unique_ptr<LmqClient> m_requester;
  std::unique_ptr<LmqClient> m_host;
  lmq_address m_requester_address{};
};

TEST_F(Exchange, TakenReplyRunsInTheReplyingThreadAndNeverReachesTheReceiver) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  Receiver receiver(requester());
  ASSERT_TRUE(receiver.blocked());

  ASSERT_EQ(answer("the answer"), 0);
  ASSERT_EQ(handler.calls(), 1) << "offered before lmqCXReply returns";
  Handler::Offer offer = handler.offer_at(0);
  EXPECT_EQ(offer.bytes, "the answer");
  EXPECT_EQ(offer.tid, testsupport::current_tid());
  EXPECT_GT(offer.buffer_size, offer.bytes.size());
  EXPECT_TRUE(offer.terminated);
  EXPECT_EQ(offer.from.kind, LMQ_KIND_REPLY);
  EXPECT_EQ(offer.from.client, m_host->number());
  EXPECT_EQ(offer.from.service_id, m_id);

  EXPECT_FALSE(receiver.done_within(20ms));
  ASSERT_EQ(notify_self(requester(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop") << "the taken reply is gone";
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_SELF);
}

TEST_F(Exchange, DeclinedReplyIsReceivedAsUsual) {
  Handler handler(0);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  Receiver receiver(requester());
  ASSERT_TRUE(receiver.blocked());

  ASSERT_EQ(answer("declined"), 0);
  EXPECT_EQ(handler.calls(), 1);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "declined");
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_REPLY);
  EXPECT_EQ(receiver.info().reply.client, m_host->number());
}

TEST_F(Exchange, NoOfferWhileTheReceiverIsNotWaiting) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  ASSERT_EQ(answer("queued"), 0);
  EXPECT_EQ(handler.calls(), 0);
  char buffer[64];
  lmq_rx_info info{};
  lmq_iovec entry{buffer, sizeof buffer};
  ASSERT_EQ(lmqCXReceive(requester(), &entry, 1, &info, &kNoWait), 6);
  EXPECT_EQ(std::string(buffer, 6), "queued");
}

TEST_F(Exchange, NoOfferWithoutAHandlerOrAfterItIsRemoved) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), nullptr, nullptr), 0);
  Receiver receiver(requester());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(answer("plain"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "plain");
  EXPECT_EQ(handler.calls(), 0);
}

TEST_F(Exchange, SetHandlerRefusesAnInvalidClient) {
  lmq_client zeroed{};
  EXPECT_EQ(lmqClientSetIdleReplyHandler(nullptr, Handler::call, nullptr), -22);
  EXPECT_EQ(lmqClientSetIdleReplyHandler(&zeroed, Handler::call, nullptr), -22);
}

TEST_F(Exchange, OnlyRepliesAreOffered) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  ASSERT_EQ(lmqSubscribeService(requester(), m_id, 0), 0);
  ASSERT_EQ(lmqHostService(requester(), m_id, 0), 0);
  // The system messages about the new pairs go first.
  for (lmq_client *client : {requester(), m_host->get()}) {
    char drained[64];
    lmq_rx_info drained_info{};
    lmq_iovec drained_entry{drained, sizeof drained};
    while (lmqCXReceive(client, &drained_entry, 1, &drained_info, &kNoWait) >= 0) {
      EXPECT_EQ(drained_info.reply.kind, LMQ_KIND_SYSTEM);
    }
  }
  struct Case {
    const char *text;
    uint8_t kind;
    int (*fn)(lmq_client *, int16_t, const lmq_iovec *, uint32_t, uint32_t);
  };
  for (Case c : {Case{"command", LMQ_KIND_COMMAND, lmqCXSendCommand},
                 Case{"notification", LMQ_KIND_NOTIFY, lmqCXNotify}}) {
    Receiver receiver(requester());
    ASSERT_TRUE(receiver.blocked());
    ASSERT_EQ(send(c.fn, m_host->get(), m_id, c.text), 0);
    ASSERT_TRUE(receiver.done_within(10s));
    EXPECT_EQ(receiver.take(), c.text);
    EXPECT_EQ(receiver.info().reply.kind, c.kind);
    // A command to the service also reaches the other host.
    if (c.kind == LMQ_KIND_COMMAND) {
      char buffer[64];
      lmq_rx_info info{};
      EXPECT_EQ(m_host->receive(buffer, sizeof buffer, &info), 7);
    }
  }
  Receiver receiver(requester());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(notify_self(requester(), "self"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "self");
  EXPECT_EQ(handler.calls(), 0);
}

TEST_F(Exchange, RepliesUpToTheLimitAreOfferedLargerOnesAreNot) {
  Handler handler(0);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  std::string at_limit(LMQ_IDLE_REPLY_MAX, 'a');
  std::string over_limit(LMQ_IDLE_REPLY_MAX + 1, 'b');
  for (const std::string *text : {&at_limit, &over_limit}) {
    Receiver receiver(requester());
    ASSERT_TRUE(receiver.blocked());
    ASSERT_EQ(answer(*text), 0);
    ASSERT_TRUE(receiver.done_within(10s));
    EXPECT_EQ(receiver.take(), *text);
  }
  ASSERT_EQ(handler.calls(), 1);
  EXPECT_EQ(handler.offer_at(0).bytes, at_limit);
}

// While the handler runs, what else arrives waits behind the offered reply:
// declined, the reply is received first; taken, the next message is.
TEST_F(Exchange, MessagesArrivingDuringAnOfferWaitBehindTheReply) {
  for (int answer_code : {0, 1}) {
    SCOPED_TRACE(answer_code);
    Handler handler(answer_code, /*hold=*/true);
    ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
    Receiver first(requester());
    ASSERT_TRUE(first.blocked());

    std::future<int> replied = std::async(std::launch::async, [&] { return answer("reply"); });
    ASSERT_TRUE(handler.wait_called(1));
    ASSERT_EQ(notify_self(requester(), "later"), 0);
    EXPECT_FALSE(first.done_within(30ms)) << "the receiver waits while the offer runs";
    handler.release();
    EXPECT_EQ(replied.get(), 0);

    ASSERT_TRUE(first.done_within(10s));
    if (answer_code == 0) {
      EXPECT_EQ(first.take(), "reply");
      Receiver second(requester());
      ASSERT_TRUE(second.done_within(10s));
      EXPECT_EQ(second.take(), "later");
    } else {
      EXPECT_EQ(first.take(), "later");
    }
    EXPECT_EQ(handler.calls(), 1);
    ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), nullptr, nullptr), 0);
    // A fresh command, so that the host has an address to answer again.
    ASSERT_EQ(send(lmqCXSendCommand, requester(), m_id, "question"), 0);
    char buffer[64];
    lmq_rx_info info{};
    ASSERT_EQ(m_host->receive(buffer, sizeof buffer, &info), 8);
  }
}

// A second reply during an offer is not offered: it queues behind the first.
TEST_F(Exchange, OneOfferAtATime) {
  Handler handler(1, /*hold=*/true);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  Receiver receiver(requester());
  ASSERT_TRUE(receiver.blocked());
  std::future<int> replied = std::async(std::launch::async, [&] { return answer("first"); });
  ASSERT_TRUE(handler.wait_called(1));
  ASSERT_EQ(answer("second"), 0);
  handler.release();
  EXPECT_EQ(replied.get(), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "second");
  EXPECT_EQ(handler.calls(), 1);
}

// A receiver whose timeout runs out while its reply is with the handler
// stays blocked until the handler is done: the handler never runs beside
// it. Then it sees its time is up.
TEST_F(Exchange, AReceiverWhoseTimeoutEndsDuringAnOfferWaitsForTheOffer) {
  Handler handler(1, /*hold=*/true);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  std::atomic<pid_t> tid{0};
  std::promise<int> result;
  std::future<int> received = result.get_future();
  std::thread receiver([&] {
    tid.store(testsupport::current_tid());
    char buffer[64];
    lmq_rx_info info{};
    lmq_iovec entry{buffer, sizeof buffer};
    const _cspOsalTime_struct one_second{1, 0};
    result.set_value(lmqCXReceive(requester(), &entry, 1, &info, &one_second));
  });
  ASSERT_TRUE(testsupport::wait_until_sleeping(tid));
  std::future<int> replied = std::async(std::launch::async, [&] { return answer("held"); });
  ASSERT_TRUE(handler.wait_called(1));

  const _cspOsalTime_struct minute{60, 0};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&minute), 0);
  EXPECT_EQ(received.wait_for(50ms), std::future_status::timeout)
      << "the receiver ran while its reply was offered";
  handler.release();
  EXPECT_EQ(replied.get(), 0);
  ASSERT_EQ(received.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(received.get(), LMQ_TIMEOUT);
  receiver.join();
}

TEST_F(Exchange, RemovingTheClientWaitsForARunningOffer) {
  Handler handler(1, /*hold=*/true);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Handler::call, &handler), 0);
  Receiver receiver(requester());
  ASSERT_TRUE(receiver.blocked());
  std::future<int> replied = std::async(std::launch::async, [&] { return answer("held"); });
  ASSERT_TRUE(handler.wait_called(1));

  std::future<int> removed = std::async(
      std::launch::async, [&] { return lmqServerRemoveClient(m_server, requester()); });
  EXPECT_EQ(removed.wait_for(30ms), std::future_status::timeout);
  handler.release();
  EXPECT_EQ(removed.get(), 0);
  EXPECT_EQ(replied.get(), 0);
  // The receiver of a detached client can still be woken by itself.
  ASSERT_EQ(notify_self(requester(), "bye"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "bye");
}

// Ping-pong while self-notifications keep the receiving thread busy now
// and then: each reply arrives exactly once, through the handler when the
// receiver was idle, else through the receiver, and nothing else is lost.
TEST_F(Exchange, EveryReplyArrivesOnceWhileOtherMessagesFlow) {
  constexpr int kRounds = 500;
  struct Replies {
    std::mutex mutex;
    std::condition_variable cond;
    std::vector<std::string> offered;
    std::vector<std::string> received;
    void add(std::vector<std::string> *to, std::string text) {
      std::lock_guard<std::mutex> lock(mutex);
      to->push_back(std::move(text));
      cond.notify_all();
    }
    static int take(void *context, void *message, uint32_t size, uint32_t, const lmq_address *) {
      auto *replies = static_cast<Replies *>(context);
      replies->add(&replies->offered, std::string(static_cast<const char *>(message), size));
      return 1;
    }
    bool wait_total(size_t n) {
      std::unique_lock<std::mutex> lock(mutex);
      return cond.wait_for(lock, 10s, [&] { return offered.size() + received.size() >= n; });
    }
  } replies;
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester(), Replies::take, &replies), 0);

  std::atomic<int> ticks{0};
  std::thread loop([&] {
    char buffer[64];
    lmq_iovec entry{buffer, sizeof buffer};
    for (;;) {
      lmq_rx_info info{};
      int rc = lmqCXReceive(requester(), &entry, 1, &info, &kExpectWait);
      if (rc < 0) return;
      std::string text(buffer, rc);
      if (info.reply.kind == LMQ_KIND_REPLY) {
        replies.add(&replies.received, text);
      } else if (text == "end") {
        return;
      } else {
        ticks++;
      }
    }
  });
  std::thread host([&] {
    char buffer[64];
    for (int i = 0; i < kRounds; i++) {
      lmq_rx_info info{};
      int rc = m_host->receive(buffer, sizeof buffer, &info, 30000000);
      if (rc < 0) return;
      if (reply(m_host->get(), info.reply, std::string(buffer, rc) + "!") != 0) return;
    }
  });
  for (int i = 0; i < kRounds; i++) {
    if (i % 10 == 0) {
      ASSERT_EQ(notify_self(requester(), "tick"), 0);
    }
    ASSERT_EQ(send(lmqCXSendCommand, requester(), m_id, "q" + std::to_string(i)), 0);
    ASSERT_TRUE(replies.wait_total(static_cast<size_t>(i) + 1)) << i;
  }
  host.join();
  ASSERT_EQ(notify_self(requester(), "end"), 0);
  loop.join();

  EXPECT_EQ(ticks.load(), kRounds / 10);
  std::vector<std::string> all = replies.offered;
  all.insert(all.end(), replies.received.begin(), replies.received.end());
  std::sort(all.begin(), all.end());
  std::vector<std::string> expected;
  for (int i = 0; i < kRounds; i++) expected.push_back("q" + std::to_string(i) + "!");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(all, expected);
  EXPECT_GT(replies.offered.size(), 0u) << "an idle receiver gets replies through the handler";
}

// Across the bus, a reply from another process's client is offered on the
// bus thread of the receiving node.
TEST(IdleReplyAcrossTheBus, ReplyFromAnotherNodeIsOfferedOnTheBusThread) {
  testsupport::Bus bus;
  testsupport::BusServer &a = bus.add_peer();
  testsupport::BusServer &b = bus.add_peer();
  testsupport::BusClient requester(a.get()), host(b.get());
  int16_t id = b.register_id("IDLEBUS");
  ASSERT_EQ(a.register_id("IDLEBUS"), id);
  ASSERT_EQ(lmqHostService(host.get(), id, 0), 0);
  bus.settle();

  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(requester.get(), Handler::call, &handler), 0);
  ASSERT_EQ(send(lmqCXSendCommand, requester.get(), id, "question"), 0);
  char buffer[64];
  lmq_rx_info info{};
  lmq_iovec entry{buffer, sizeof buffer};
  ASSERT_EQ(lmqCXReceive(host.get(), &entry, 1, &info, &kExpectWait), 8);

  Receiver receiver(requester.get());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(reply(host.get(), info.reply, "remote answer"), 0);
  ASSERT_TRUE(handler.wait_called(1));
  Handler::Offer offer = handler.offer_at(0);
  EXPECT_EQ(offer.bytes, "remote answer");
  EXPECT_EQ(offer.from.node, b.node());
  EXPECT_EQ(offer.from.kind, LMQ_KIND_REPLY);
  EXPECT_NE(offer.tid, testsupport::current_tid());

  ASSERT_EQ(notify_self(requester.get(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop");
}

}  // namespace
