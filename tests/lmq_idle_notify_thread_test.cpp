// Tests of idle offers of notifications: a notification for a subscriber
// whose receiver waits with nothing queued is offered to its idle handler
// when the handler asked for notifications, in the thread that delivers it
// (the notifying thread, or the bus thread for a notification from another
// node). Taken, it never reaches the receiver; declined, it is received as
// usual and in order. Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
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

using Handler = testsupport::OfferRecorder;

using testsupport::LmqClient;
using namespace std::chrono_literals;

constexpr _cspOsalTime_struct kNoWait{0, 0};
constexpr _cspOsalTime_struct kExpectWait{30, 0};


// Bounded, so that a lost wake-up fails the test instead of hanging it.
class Receiver : public testsupport::BlockedReceiver {
 public:
  explicit Receiver(lmq_client *client) : BlockedReceiver(client, &kExpectWait) {}
};

int send(int (*fn)(lmq_client *, int16_t, const lmq_iovec *, uint32_t, uint32_t), lmq_client *from,
         int16_t id, const std::string &text) {
  lmq_iovec entry{const_cast<char *>(text.data()), static_cast<uint32_t>(text.size())};
  return fn(from, id, &entry, 1, 0);
}

int notify(lmq_client *from, int16_t id, const std::string &text) {
  return send(lmqCXNotify, from, id, text);
}

int notify_self(lmq_client *client, const std::string &text) {
  lmq_iovec entry{const_cast<char *>(text.data()), static_cast<uint32_t>(text.size())};
  return lmqCXNotifySelf(client, &entry, 1, 0);
}

// Takes what is queued now, or "" when nothing is.
std::string take_queued(lmq_client *client, lmq_rx_info *info = nullptr) {
  char buffer[2048];
  lmq_rx_info local{};
  lmq_iovec entry{buffer, sizeof buffer};
  int rc = lmqCXReceive(client, &entry, 1, info != nullptr ? info : &local, &kNoWait);
  return rc > 0 ? std::string(buffer, rc) : "";
}

// A notifier and a subscriber of one service on one server; the service
// has no host, so nobody gets system messages.
class IdleNotify : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(lmqServerCreate(&m_server), 0);
    ASSERT_EQ(lmqRegisterPlainId(m_server, "NEWS", 5, &m_id), 0);
    m_notifier.reset(new LmqClient(m_server));
    m_subscriber.reset(new LmqClient(m_server));
    ASSERT_EQ(lmqSubscribeService(subscriber(), m_id, 0), 0);
  }
  void TearDown() override {
    m_extra.clear();
    m_subscriber.reset();
    m_notifier.reset();
    EXPECT_EQ(lmqUnRegisterPlainId(m_server, m_id), 0);
    EXPECT_EQ(lmqServerDestroy(m_server), 0);
  }
  lmq_client *notifier() { return m_notifier->get(); }
  lmq_client *subscriber() { return m_subscriber->get(); }
  // One more subscriber of the service, subscribed after those before.
  lmq_client *add_subscriber() {
    m_extra.emplace_back(new LmqClient(m_server));
    EXPECT_EQ(lmqSubscribeService(m_extra.back()->get(), m_id, 0), 0);
    return m_extra.back()->get();
  }

  lmq_server *m_server = nullptr;
  int16_t m_id = 0;
  std::unique_ptr<LmqClient> m_notifier;
  std::unique_ptr<LmqClient> m_subscriber;
  std::vector<std::unique_ptr<LmqClient>> m_extra;
};

TEST_F(IdleNotify, TakenNotificationRunsInTheNotifyingThreadAndNeverReachesTheReceiver) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), LMQ_IDLE_NOTIFICATIONS, Handler::call, &handler),
            0);
  Receiver receiver(subscriber());
  ASSERT_TRUE(receiver.blocked());

  ASSERT_EQ(notify(notifier(), m_id, "headline"), 0);
  ASSERT_EQ(handler.calls(), 1) << "offered before lmqCXNotify returns";
  Handler::Offer offer = handler.offer_at(0);
  EXPECT_EQ(offer.bytes, "headline");
  EXPECT_EQ(offer.tid, testsupport::current_tid());
  EXPECT_EQ(offer.from.kind, LMQ_KIND_NOTIFY);
  EXPECT_EQ(offer.from.node, m_notifier->node());
  EXPECT_EQ(offer.from.client, m_notifier->number());
  EXPECT_EQ(offer.from.service_id, m_id);

  EXPECT_FALSE(receiver.done_within(20ms)) << "a taken notification does not wake the receiver";
  ASSERT_EQ(notify_self(subscriber(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop") << "the taken notification is gone";
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_SELF);
  EXPECT_EQ(take_queued(subscriber()), "");
  EXPECT_EQ(handler.calls(), 1) << "a self-notification is not offered";
}

TEST_F(IdleNotify, DeclinedNotificationIsReceivedAsUsual) {
  Handler handler(0);
  ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), LMQ_IDLE_NOTIFICATIONS, Handler::call, &handler),
            0);
  Receiver receiver(subscriber());
  ASSERT_TRUE(receiver.blocked());

  ASSERT_EQ(notify(notifier(), m_id, "declined"), 0);
  EXPECT_EQ(handler.calls(), 1);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "declined");
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_NOTIFY);
  EXPECT_EQ(receiver.info().reply.client, m_notifier->number());
  EXPECT_EQ(receiver.info().reply.service_id, m_id);
  EXPECT_EQ(take_queued(subscriber()), "") << "received once";
}

// While the handler runs, a second notification waits behind the offered
// one: declined, the first is received first; taken, only the second is.
TEST_F(IdleNotify, NotificationsArrivingDuringAnOfferKeepTheirOrder) {
  for (int answer_code : {0, 1}) {
    SCOPED_TRACE(answer_code);
    Handler handler(answer_code, /*hold=*/true);
    ASSERT_EQ(
        lmqClientSetIdleHandler(subscriber(), LMQ_IDLE_NOTIFICATIONS, Handler::call, &handler), 0);
    Receiver first(subscriber());
    ASSERT_TRUE(first.blocked());

    std::future<int> notified =
        std::async(std::launch::async, [&] { return notify(notifier(), m_id, "one"); });
    ASSERT_TRUE(handler.wait_called(1));
    ASSERT_EQ(notify(notifier(), m_id, "two"), 0);
    EXPECT_FALSE(first.done_within(30ms)) << "the receiver waits while the offer runs";
    handler.release();
    EXPECT_EQ(notified.get(), 0);

    ASSERT_TRUE(first.done_within(10s));
    if (answer_code == 0) {
      EXPECT_EQ(first.take(), "one");
      EXPECT_EQ(take_queued(subscriber()), "two");
    } else {
      EXPECT_EQ(first.take(), "two");
    }
    EXPECT_EQ(take_queued(subscriber()), "");
    EXPECT_EQ(handler.calls(), 1) << "one offer at a time";
  }
}

TEST_F(IdleNotify, ReplyHandlerDoesNotOfferNotifications) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleReplyHandler(subscriber(), Handler::call, &handler), 0);
  Receiver receiver(subscriber());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(notify(notifier(), m_id, "not offered"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "not offered");
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_NOTIFY);
  EXPECT_EQ(handler.calls(), 0);
}

// The subscriber asks a host of another service; the host's answer is a
// reply, which a handler of notifications only does not see, while one of
// both kinds does.
TEST_F(IdleNotify, NotificationsOnlyHandlerDoesNotOfferReplies) {
  int16_t ask = 0;
  ASSERT_EQ(lmqRegisterPlainId(m_server, "ASK", 4, &ask), 0);
  {
    LmqClient host(m_server);
    ASSERT_EQ(lmqHostService(host.get(), ask, 0), 0);
    struct Case {
      uint32_t kinds;
      int offers;
    };
    for (Case c :
         {Case{LMQ_IDLE_NOTIFICATIONS, 0}, Case{LMQ_IDLE_NOTIFICATIONS | LMQ_IDLE_REPLIES, 1}}) {
      SCOPED_TRACE(c.kinds);
      Handler handler(0);
      ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), c.kinds, Handler::call, &handler), 0);
      ASSERT_EQ(send(lmqCXSendCommand, subscriber(), ask, "question"), 0);
      char buffer[64];
      lmq_rx_info info{};
      ASSERT_EQ(host.receive(buffer, sizeof buffer, &info), 8);

      Receiver receiver(subscriber());
      ASSERT_TRUE(receiver.blocked());
      lmq_iovec entry{const_cast<char *>("answer"), 6};
      ASSERT_EQ(lmqCXReply(host.get(), &info.reply, &entry, 1, 0), 0);
      ASSERT_TRUE(receiver.done_within(10s));
      EXPECT_EQ(receiver.take(), "answer");
      EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_REPLY);
      ASSERT_EQ(handler.calls(), c.offers);
      if (c.offers == 1) {
        EXPECT_EQ(handler.offer_at(0).bytes, "answer");
        EXPECT_EQ(handler.offer_at(0).from.kind, LMQ_KIND_REPLY);
      }
    }
  }
  EXPECT_EQ(lmqUnRegisterPlainId(m_server, ask), 0);
}

TEST_F(IdleNotify, SelfNotificationsAreNeverOffered) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), LMQ_IDLE_NOTIFICATIONS | LMQ_IDLE_REPLIES,
                                    Handler::call, &handler),
            0);
  for (const char *text : {"wake", "wake again"}) {
    Receiver receiver(subscriber());
    ASSERT_TRUE(receiver.blocked());
    // Sent from a thread other than the receiver's, as a waker does.
    ASSERT_EQ(notify_self(subscriber(), text), 0);
    ASSERT_TRUE(receiver.done_within(10s));
    EXPECT_EQ(receiver.take(), text);
    EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_SELF);
  }
  EXPECT_EQ(handler.calls(), 0);
}

// Three subscribers, subscribed in the order first, second, third: the
// notification is offered to the first whose receiver is idle, and every
// other one receives it as usual; each sees it exactly once.
TEST_F(IdleNotify, NotificationForSeveralSubscribersIsOfferedToTheFirstIdleOnly) {
  lmq_client *first = subscriber();
  lmq_client *second = add_subscriber();
  lmq_client *third = add_subscriber();
  Handler h1(1), h2(1), h3(1);
  ASSERT_EQ(lmqClientSetIdleHandler(first, LMQ_IDLE_NOTIFICATIONS, Handler::call, &h1), 0);
  ASSERT_EQ(lmqClientSetIdleHandler(second, LMQ_IDLE_NOTIFICATIONS, Handler::call, &h2), 0);
  ASSERT_EQ(lmqClientSetIdleHandler(third, LMQ_IDLE_NOTIFICATIONS, Handler::call, &h3), 0);

  {
    SCOPED_TRACE("all idle");
    Receiver r1(first), r2(second), r3(third);
    ASSERT_TRUE(r1.blocked());
    ASSERT_TRUE(r2.blocked());
    ASSERT_TRUE(r3.blocked());
    ASSERT_EQ(notify(notifier(), m_id, "all"), 0);
    EXPECT_EQ(h1.calls(), 1);
    EXPECT_EQ(h2.calls(), 0);
    EXPECT_EQ(h3.calls(), 0);
    ASSERT_TRUE(r2.done_within(10s));
    ASSERT_TRUE(r3.done_within(10s));
    EXPECT_EQ(r2.take(), "all");
    EXPECT_EQ(r3.take(), "all");
    EXPECT_FALSE(r1.done_within(20ms)) << "the first took it in its handler";
    ASSERT_EQ(notify_self(first, "stop"), 0);
    ASSERT_TRUE(r1.done_within(10s));
    EXPECT_EQ(r1.take(), "stop");
  }
  {
    SCOPED_TRACE("first busy");
    // The first subscriber's receiver is not waiting: the second, the
    // first idle one, gets the offer.
    Receiver r2(second), r3(third);
    ASSERT_TRUE(r2.blocked());
    ASSERT_TRUE(r3.blocked());
    ASSERT_EQ(notify(notifier(), m_id, "busy"), 0);
    EXPECT_EQ(h1.calls(), 1);
    ASSERT_EQ(h2.calls(), 1);
    EXPECT_EQ(h2.offer_at(0).bytes, "busy");
    EXPECT_EQ(h3.calls(), 0);
    ASSERT_TRUE(r3.done_within(10s));
    EXPECT_EQ(r3.take(), "busy");
    EXPECT_EQ(take_queued(first), "busy");
    EXPECT_FALSE(r2.done_within(20ms));
    ASSERT_EQ(notify_self(second, "stop"), 0);
    ASSERT_TRUE(r2.done_within(10s));
    EXPECT_EQ(r2.take(), "stop");
  }
  for (lmq_client *client : {first, second, third}) EXPECT_EQ(take_queued(client), "");
  EXPECT_EQ(h1.offer_at(0).bytes, "all");
  EXPECT_EQ(h1.offer_at(0).tid, testsupport::current_tid());
}

// A declined offer counts as the one offer: the others still receive the
// notification as usual, and so does the one that declined.
TEST_F(IdleNotify, DeclinedOfferForSeveralSubscribersLeavesEachOneCopy) {
  lmq_client *first = subscriber();
  lmq_client *second = add_subscriber();
  Handler h1(0), h2(0);
  ASSERT_EQ(lmqClientSetIdleHandler(first, LMQ_IDLE_NOTIFICATIONS, Handler::call, &h1), 0);
  ASSERT_EQ(lmqClientSetIdleHandler(second, LMQ_IDLE_NOTIFICATIONS, Handler::call, &h2), 0);
  Receiver r1(first), r2(second);
  ASSERT_TRUE(r1.blocked());
  ASSERT_TRUE(r2.blocked());
  ASSERT_EQ(notify(notifier(), m_id, "each"), 0);
  EXPECT_EQ(h1.calls(), 1);
  EXPECT_EQ(h2.calls(), 0);
  ASSERT_TRUE(r1.done_within(10s));
  ASSERT_TRUE(r2.done_within(10s));
  EXPECT_EQ(r1.take(), "each");
  EXPECT_EQ(r2.take(), "each");
  EXPECT_EQ(take_queued(first), "");
  EXPECT_EQ(take_queued(second), "");
}

TEST_F(IdleNotify, UnknownKindsAreRefusedAndKeepThePreviousSetting) {
  Handler kept(1), refused(1);
  ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), LMQ_IDLE_NOTIFICATIONS, Handler::call, &kept), 0);
  for (uint32_t kinds : {0x4u, LMQ_IDLE_NOTIFICATIONS | 0x8u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(lmqClientSetIdleHandler(subscriber(), kinds, Handler::call, &refused), -22) << kinds;
  }
  lmq_client zeroed{};
  EXPECT_EQ(lmqClientSetIdleHandler(nullptr, LMQ_IDLE_NOTIFICATIONS, Handler::call, &refused), -22);
  EXPECT_EQ(lmqClientSetIdleHandler(&zeroed, LMQ_IDLE_NOTIFICATIONS, Handler::call, &refused), -22);

  Receiver receiver(subscriber());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(notify(notifier(), m_id, "kept"), 0);
  EXPECT_EQ(kept.calls(), 1) << "the setting before the refused calls stands";
  EXPECT_EQ(refused.calls(), 0);
  ASSERT_EQ(notify_self(subscriber(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop");
}

TEST_F(IdleNotify, KindsZeroSwitchesOffersOff) {
  Handler handler(1);
  ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), LMQ_IDLE_NOTIFICATIONS, Handler::call, &handler),
            0);
  ASSERT_EQ(lmqClientSetIdleHandler(subscriber(), 0, Handler::call, &handler), 0);
  Receiver receiver(subscriber());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(notify(notifier(), m_id, "plain"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "plain");
  EXPECT_EQ(handler.calls(), 0);
}

// Across the bus, a notification from a client of the hub reaches an idle
// subscriber on a peer through the peer's bus thread, which offers it.
TEST(IdleNotifyAcrossTheBus, NotificationFromTheHubIsOfferedOnThePeersBusThread) {
  testsupport::Bus bus;
  testsupport::BusServer &peer = bus.add_peer();
  testsupport::BusClient notifier(bus.hub().get()), subscriber(peer.get());
  int16_t id = bus.hub().register_id("NEWSBUS");
  ASSERT_EQ(peer.register_id("NEWSBUS"), id);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  bus.settle();

  Handler handler(1);
  ASSERT_EQ(
      lmqClientSetIdleHandler(subscriber.get(), LMQ_IDLE_NOTIFICATIONS, Handler::call, &handler),
      0);
  Receiver receiver(subscriber.get());
  ASSERT_TRUE(receiver.blocked());
  ASSERT_EQ(notify(notifier.get(), id, "remote news"), 0);
  ASSERT_TRUE(handler.wait_called(1));
  Handler::Offer offer = handler.offer_at(0);
  EXPECT_EQ(offer.bytes, "remote news");
  EXPECT_EQ(offer.from.kind, LMQ_KIND_NOTIFY);
  EXPECT_EQ(offer.from.node, bus.hub().node());
  EXPECT_EQ(offer.from.client, notifier.number());
  EXPECT_EQ(offer.from.service_id, id);
  EXPECT_NE(offer.tid, testsupport::current_tid());
  EXPECT_EQ(offer.thread, "lmqbus");

  EXPECT_FALSE(receiver.done_within(20ms)) << "taken on the bus thread";
  ASSERT_EQ(notify_self(subscriber.get(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop");
  EXPECT_TRUE(testsupport::bus_empty(subscriber.get()));
  EXPECT_EQ(handler.calls(), 1);
}

}  // namespace
