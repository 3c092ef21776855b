// Tests of leading the bus (lmqClientLeadBus): a thread whose client has
// just sent a command that only another node can answer reads the peer's
// connection to its hub itself while it waits, so that the answer is
// handled in this thread (its idle handler runs here) instead of on the
// bus thread. The hub side hosts the service; the leading client lives on
// a peer. Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/bus_fixture.h"
#include "support/lead_fixture.h"
#include "support/lmq_client.h"
#include "support/thread_state.h"

namespace {

using testsupport::bus_command;
using testsupport::bus_notify;
using testsupport::bus_receive;
using testsupport::bus_reply;
using testsupport::BusClient;
using testsupport::BusReceived;
using namespace std::chrono_literals;
using namespace testsupport::lead;

class Lead : public LeadFixture {};

// Tests where the caller subscribes to "NEWS", which a client of the hub
// sends out (notify).
class LeadWithNews : public LeadFixture {
 protected:
  void SetUp() override {
    LeadFixture::SetUp();
    m_news = shared_id("NEWS");
    ASSERT_EQ(lmqSubscribeService(caller(), m_news, 0), 0);
    m_bus.settle();
  }
  int notify(const std::string &text) { return bus_notify(m_notifier.get(), m_news, text); }

  BusClient m_notifier{hub().get()};
  int16_t m_news = 0;
};

TEST_F(Lead, TheReplyIsHandledInTheLeadingThread) {
  Caller state(caller());
  ASSERT_EQ(state.install(), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host answering(host(), [&](int, const std::string &) { return state.wait_leading(); });

  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  EXPECT_EQ(state.lead(1000), 0);
  ASSERT_EQ(state.offers(), 1);
  Caller::Offer offer = state.offer_at(0);
  EXPECT_EQ(offer.bytes, "re:question");
  EXPECT_EQ(offer.tid, testsupport::current_tid()) << "the handler ran in the leading thread";
  EXPECT_NE(offer.thread, "lmqbus");
  EXPECT_EQ(offer.from.kind, LMQ_KIND_REPLY);
  EXPECT_EQ(offer.from.node, hub().node());
  EXPECT_EQ(offer.from.client, m_host.number());
  EXPECT_EQ(offer.from.service_id, m_id);
  EXPECT_GE(state.done_calls(), 2) << "asked before the wait and after the read";

  EXPECT_FALSE(receiver.done_within(20ms)) << "the taken reply does not wake the receiver";
  ASSERT_EQ(notify_self(caller(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop");
  EXPECT_TRUE(testsupport::bus_empty(caller()));
}

TEST_F(Lead, ADoneTestThatHoldsAtOnceReturnsWithoutWaiting) {
  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  int asked = 0;
  auto at_once = [](void *context) {
    ++*static_cast<int *>(context);
    return 1;
  };
  Clock::time_point start = Clock::now();
  EXPECT_EQ(lmqClientLeadBus(caller(), 5000, at_once, &asked), 0);
  EXPECT_LT(ms_since(start), 2000);
  EXPECT_EQ(asked, 1);
}

// Leading needs a last send that went to other nodes only.
TEST_F(Lead, RefusedWithEagainWhenTheLastSendWasLocal) {
  BusClient local_host(m_peer.get());
  int16_t local = m_peer.register_id("LOCAL");
  ASSERT_EQ(lmqHostService(local_host.get(), local, 0), 0);
  Caller state(caller());

  // To a host on the same server.
  ASSERT_EQ(bus_command(caller(), local, "here"), 0);
  EXPECT_EQ(state.lead(20), -11);

  // A local send after one through the bus.
  ASSERT_EQ(bus_command(caller(), m_id, "there"), 0);
  ASSERT_EQ(bus_command(caller(), local, "here again"), 0);
  EXPECT_EQ(state.lead(20), -11);

  // A self-notification is a local send too.
  ASSERT_EQ(bus_command(caller(), m_id, "there again"), 0);
  ASSERT_EQ(notify_self(caller(), "wake"), 0);
  EXPECT_EQ(state.lead(20), -11);
  EXPECT_EQ(state.done_calls(), 0);
  EXPECT_EQ(bus_receive(caller(), 0).data, "wake");

  // The other way round, the last send went through the bus only: the
  // caller leads (nobody answers, so its time runs out).
  ASSERT_EQ(bus_command(caller(), local, "here once more"), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "there once more"), 0);
  EXPECT_EQ(state.lead(20), -110);
  EXPECT_GE(state.done_calls(), 1);

  // A service with hosts here and on the hub: the send went to both.
  ASSERT_EQ(lmqHostService(local_host.get(), m_id, 0), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "everywhere"), 0);
  int calls = state.done_calls();
  EXPECT_EQ(state.lead(20), -11);
  EXPECT_EQ(state.done_calls(), calls);

  // The local host got every command meant for it.
  for (const char *text : {"here", "here again", "here once more", "everywhere"}) {
    EXPECT_EQ(bus_receive(local_host.get(), 0).data, text);
  }
  EXPECT_TRUE(testsupport::bus_empty(caller()));
}

TEST_F(Lead, RefusedWithoutAConnectionToAHub) {
  Caller state(nullptr);

  // A client of the hub: one that has sent nothing has no answer to wait
  // for; one whose send went to the peer only is refused for the role.
  BusClient up_host(m_peer.get());
  int16_t up = shared_id("UP");
  ASSERT_EQ(lmqHostService(up_host.get(), up, 0), 0);
  m_bus.settle();
  BusClient hub_caller(hub().get());
  EXPECT_EQ(lmqClientLeadBus(hub_caller.get(), 20, Caller::done, &state), -11);
  ASSERT_EQ(bus_command(hub_caller.get(), up, "up there"), 0);
  EXPECT_EQ(bus_receive(up_host.get()).data, "up there") << "the send went to the peer";
  EXPECT_EQ(lmqClientLeadBus(hub_caller.get(), 20, Caller::done, &state), -107);

  // A client of a server without bus never sends to other nodes.
  testsupport::BusServer alone;
  BusClient lonely(alone.get());
  EXPECT_EQ(lmqClientLeadBus(lonely.get(), 20, Caller::done, &state), -11);
  EXPECT_EQ(state.done_calls(), 0);
}

TEST_F(Lead, RefusedForClientsNotAttachedAndInvalidArguments) {
  Caller state(nullptr);
  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);

  // Initialised, never attached.
  testsupport::LmqClient unattached(nullptr);
  EXPECT_EQ(lmqClientLeadBus(unattached.get(), 20, Caller::done, &state), -2);

  // Attached to the peer, sent through the bus, then detached.
  std::vector<unsigned char> queue(4096);
  lmq_client gone{};
  ASSERT_EQ(lmqClientInit(&gone, queue.data(), static_cast<uint32_t>(queue.size())), 0);
  ASSERT_EQ(lmqServerAddClient(m_peer.get(), &gone), 0);
  ASSERT_EQ(bus_command(&gone, m_id, "and gone"), 0);
  ASSERT_EQ(lmqServerRemoveClient(m_peer.get(), &gone), 0);
  EXPECT_EQ(lmqClientLeadBus(&gone, 20, Caller::done, &state), -2);
  EXPECT_EQ(lmqClientRelease(&gone), 0);

  lmq_client zeroed{};
  EXPECT_EQ(lmqClientLeadBus(nullptr, 20, Caller::done, &state), -22);
  EXPECT_EQ(lmqClientLeadBus(&zeroed, 20, Caller::done, &state), -22);
  EXPECT_EQ(lmqClientLeadBus(caller(), 20, nullptr, &state), -22);
  EXPECT_EQ(state.done_calls(), 0);
}

// Nobody answers: the leader gives up after its time, and the bus thread
// reads the connection again, so what comes later still reaches the
// caller's receiver.
TEST_F(LeadWithNews, TimesOutAndTheBusThreadReadsAgainAfterwards) {
  Caller state(caller());
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());

  ASSERT_EQ(bus_command(caller(), m_id, "anyone?"), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(state.lead(30), -110);
  long long elapsed = ms_since(start);
  EXPECT_GE(elapsed, 30);
  EXPECT_LT(elapsed, 2000);
  EXPECT_GE(state.done_calls(), 1);
  int calls = state.done_calls();
  EXPECT_EQ(state.lead(0), -110) << "no time at all";
  EXPECT_EQ(state.done_calls(), calls + 1) << "asked once, before giving up";

  BusReceived command = bus_receive(host());
  ASSERT_EQ(command.data, "anyone?");
  ASSERT_EQ(bus_reply(host(), command.info.reply, "late"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "late");
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_REPLY);

  ASSERT_EQ(notify("bulletin"), 0);
  BusReceived notification = bus_receive(caller());
  EXPECT_EQ(notification.data, "bulletin");
  EXPECT_EQ(notification.info.reply.kind, LMQ_KIND_NOTIFY);
}

// The receiver does not wait, so the reply is queued: the leader stops at
// once, and the receiver gets the reply, once.
TEST_F(Lead, StopsWithEagainWhenTheReplyIsQueuedForTheReceiver) {
  Caller state(caller());
  ASSERT_EQ(state.install(), 0);
  Host answering(host(), [&](int, const std::string &) { return state.wait_leading(); });

  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(state.lead(5000), -11);
  EXPECT_LT(ms_since(start), 2000) << "well before its time";
  EXPECT_EQ(state.offers(), 0) << "no offer without a waiting receiver";

  BusReceived reply = bus_receive(caller(), 0);
  EXPECT_EQ(reply.data, "re:question");
  EXPECT_EQ(reply.info.reply.kind, LMQ_KIND_REPLY);
  EXPECT_TRUE(testsupport::bus_empty(caller()));
}

TEST_F(LeadWithNews, StopsWithEagainWhenMailIsAlreadyQueued) {
  ASSERT_EQ(notify("waiting"), 0);
  m_bus.settle();

  Caller state(caller());
  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(state.lead(5000), -11);
  EXPECT_LT(ms_since(start), 2000);
  EXPECT_EQ(bus_receive(caller(), 0).data, "waiting");
  EXPECT_TRUE(testsupport::bus_empty(caller()));
}

// A done test that, from its second call on (after the leader's first
// read), first waits until the receiver has taken its message: whatever
// the leader queued for the receiver is then gone from the queue by the
// time the leader looks at it.
struct DoneOnceTheReceiverTookIt {
  Receiver *receiver;
  std::atomic<int> calls{0};
  static int done(void *context) {
    auto *self = static_cast<DoneOnceTheReceiverTookIt *>(context);
    if (self->calls.fetch_add(1) > 0) (void)self->receiver->done_within(5s);
    return 0;
  }
};

// The leader reads a notification that its idle handler does not take and
// queues it for the receiver, which takes it at once. The answer might
// have gone the same way, and nothing would wake the leader in its read:
// it stops, although the queue is empty again when it looks.
TEST_F(LeadWithNews, StopsWithEagainWhenTheReceiverTookWhatTheLeaderQueued) {
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  DoneOnceTheReceiverTookIt state{&receiver};
  Host silent(host(), [&](int, const std::string &) {
    EXPECT_TRUE(testsupport::bus_wait_until([&] { return state.calls.load() >= 1; }, 5000));
    EXPECT_EQ(notify("for the receiver"), 0);
    return false;
  });

  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(lmqClientLeadBus(caller(), 5000, DoneOnceTheReceiverTookIt::done, &state), -11);
  EXPECT_LT(ms_since(start), 2000) << "well before its time";
  EXPECT_GE(state.calls.load(), 2);
  EXPECT_EQ(receiver.take(), "for the receiver");
}

// The same when the message came and was taken after the announced send
// but before the lead began.
TEST_F(LeadWithNews, StopsWithEagainWhenMailCameAndWentBetweenTheSendAndTheLead) {
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host silent(host(), [&](int index, const std::string &) {
    if (index == 0) {
      EXPECT_EQ(notify("before the lead"), 0);
    }
    return false;
  });

  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  ASSERT_TRUE(receiver.done_within(5s));
  EXPECT_EQ(receiver.take(), "before the lead");
  Clock::time_point start = Clock::now();
  EXPECT_EQ(lmqClientLeadBus(caller(), 5000, never_done, nullptr), -11);
  EXPECT_LT(ms_since(start), 2000) << "well before its time";

  // Without the announcement, what was kept before the call does not
  // count: the next lead waits for its answer (none comes) until its time.
  ASSERT_EQ(bus_command(caller(), m_id, "again"), 0);
  EXPECT_EQ(lmqClientLeadBus(caller(), 50, never_done, nullptr), -110);
}

// One thread leads at a time: a second caller, on another client of the
// same peer, is refused while the first one waits for a slow host.
TEST_F(Lead, ASecondLeaderIsRefusedWithEbusy) {
  BusClient second(m_peer.get());
  Caller first_state(caller());
  Caller second_state(second.get());
  ASSERT_EQ(first_state.install(), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Gate gate;
  Host slow(host(), [&](int index, const std::string &) { return index != 0 || gate.wait(); });

  ASSERT_EQ(bus_command(caller(), m_id, "first"), 0);
  std::atomic<pid_t> leader_tid{0};
  std::future<int> led = std::async(std::launch::async, [&] {
    leader_tid.store(testsupport::current_tid());
    return first_state.lead(5000);
  });
  ASSERT_TRUE(first_state.wait_leading());

  ASSERT_EQ(bus_command(second.get(), m_id, "second"), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(second_state.lead(5000), -16);
  EXPECT_LT(ms_since(start), 1000) << "refused at once";
  EXPECT_EQ(second_state.done_calls(), 0);

  gate.open();
  EXPECT_EQ(led.get(), 0);
  ASSERT_EQ(first_state.offers(), 1);
  EXPECT_EQ(first_state.offer_at(0).bytes, "re:first");
  EXPECT_EQ(first_state.offer_at(0).tid, leader_tid.load());
  BusReceived reply = bus_receive(second.get());
  EXPECT_EQ(reply.data, "re:second");
  EXPECT_TRUE(testsupport::bus_empty(second.get()));
}

// An idle handler that runs while its thread reads the bus (a leader, or
// the bus thread itself) cannot lead.
TEST_F(Lead, AHandlerOnAReadingThreadCannotLead) {
  Caller state(caller());
  state.lead_in_handler();
  ASSERT_EQ(state.install(), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host answering(
      host(), [&](int index, const std::string &) { return index != 0 || state.wait_leading(); });

  ASSERT_EQ(bus_command(caller(), m_id, "led"), 0);
  EXPECT_EQ(state.lead(5000), 0);
  ASSERT_EQ(state.offers(), 1);
  EXPECT_EQ(state.offer_at(0).tid, testsupport::current_tid());
  EXPECT_EQ(state.offer_at(0).lead_rc, -16);

  state.next_round(1);
  ASSERT_EQ(bus_command(caller(), m_id, "not led"), 0);
  ASSERT_TRUE(state.wait_offers(2));
  Caller::Offer on_bus = state.offer_at(1);
  EXPECT_EQ(on_bus.bytes, "re:not led");
  EXPECT_EQ(on_bus.thread, "lmqbus");
  EXPECT_EQ(on_bus.lead_rc, -16);
}

// What the leader reads for other clients of its server reaches them as
// the bus thread would deliver it: all of it, in order.
TEST_F(Lead, OtherClientsGetTheirMessagesWhileAThreadLeads) {
  constexpr int kEach = 50;
  int16_t news = shared_id("NEWS");
  int16_t job = shared_id("JOB");
  BusClient other(m_peer.get());
  BusClient notifier(hub().get());
  ASSERT_EQ(lmqSubscribeService(other.get(), news, 0), 0);
  ASSERT_EQ(lmqHostService(other.get(), job, 0), 0);
  m_bus.settle();

  Caller state(caller());
  ASSERT_EQ(state.install(), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host answering(host(), [&](int, const std::string &) {
    if (!state.wait_leading()) return false;
    for (int i = 0; i < kEach; i++) {
      EXPECT_EQ(bus_notify(notifier.get(), news, "n" + std::to_string(i)), 0);
      EXPECT_EQ(bus_command(notifier.get(), job, "c" + std::to_string(i)), 0);
    }
    return true;
  });

  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  EXPECT_EQ(state.lead(5000), 0);
  ASSERT_EQ(state.offers(), 1);
  EXPECT_EQ(state.offer_at(0).tid, testsupport::current_tid());

  // All of it came before the reply, so the leader has delivered it.
  for (int i = 0; i < kEach; i++) {
    BusReceived n = bus_receive(other.get(), 0);
    EXPECT_EQ(n.data, "n" + std::to_string(i));
    EXPECT_EQ(n.info.reply.kind, LMQ_KIND_NOTIFY);
    BusReceived c = bus_receive(other.get(), 0);
    EXPECT_EQ(c.data, "c" + std::to_string(i));
    EXPECT_EQ(c.info.reply.kind, LMQ_KIND_COMMAND);
    EXPECT_EQ(c.info.reply.client, notifier.number());
  }
  EXPECT_TRUE(testsupport::bus_empty(other.get()));
}

// A notification for the caller that comes before the reply is offered
// in the leading thread as well.
TEST_F(LeadWithNews, NotificationsForTheCallerAreOfferedInTheLeadingThreadToo) {
  Caller state(caller());
  ASSERT_EQ(state.install(LMQ_IDLE_REPLIES | LMQ_IDLE_NOTIFICATIONS), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host answering(host(), [&](int, const std::string &) {
    if (!state.wait_leading()) return false;
    EXPECT_EQ(notify("first the news"), 0);
    return true;
  });

  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  EXPECT_EQ(state.lead(5000), 0);
  ASSERT_EQ(state.offers(), 2);
  EXPECT_EQ(state.offer_at(0).bytes, "first the news");
  EXPECT_EQ(state.offer_at(0).from.kind, LMQ_KIND_NOTIFY);
  EXPECT_EQ(state.offer_at(1).bytes, "re:question");
  for (size_t i = 0; i < 2; i++) EXPECT_EQ(state.offer_at(i).tid, testsupport::current_tid());
  EXPECT_FALSE(receiver.done_within(20ms));
}

// Frames that need an answer are answered by the leader: the hub's sync
// and a registration round trip of the peer complete while a thread leads
// and nobody answers its command.
TEST_F(Lead, TheLeaderAnswersTheHubAndPassesOnRegistrations) {
  Caller state(caller());
  ASSERT_EQ(bus_command(caller(), m_id, "anyone?"), 0);
  std::future<int> led = std::async(std::launch::async, [&] { return state.lead(500); });
  ASSERT_TRUE(state.wait_leading());

  Clock::time_point start = Clock::now();
  _cspOsalTime_struct wait = testsupport::bus_ms(300);
  EXPECT_EQ(lmqServerBusSync(hub().get(), &wait), 0);
  int16_t fresh = 0;
  EXPECT_EQ(lmqRegisterPlainId(m_peer.get(), "FRESH", 6, &fresh), 0);
  EXPECT_LT(ms_since(start), 300);
  EXPECT_EQ(led.wait_for(0ms), std::future_status::timeout) << "still leading";
  EXPECT_GE(state.done_calls(), 2) << "the leader read the frames";
  EXPECT_EQ(hub().register_id("FRESH"), fresh) << "the id came from the hub";
  EXPECT_EQ(led.get(), -110);
}

// The hub closes while a thread leads: the leader learns it at once, and
// once it has left, the peer drops the dead connection.
TEST_F(Lead, TheHubGoingAwayEndsTheLeaderAndThePeerForgetsIt) {
  Caller state(caller());
  ASSERT_EQ(bus_command(caller(), m_id, "anyone?"), 0);
  std::future<int> closed = std::async(std::launch::async, [&] {
    if (!state.wait_leading()) return -1;
    return lmqServerBusClose(hub().get());
  });

  Clock::time_point start = Clock::now();
  EXPECT_EQ(state.lead(5000), -107);
  EXPECT_LT(ms_since(start), 2000) << "well before its time";
  EXPECT_EQ(closed.get(), 0);

  lmq_bus_status status = m_peer.status();
  EXPECT_EQ(status.role, LMQ_BUS_PEER);
  EXPECT_EQ(status.hub_node, 0u);
  EXPECT_EQ(status.peers, 0u);
  // Once the connection is gone, a sync finds no hub at all.
  EXPECT_TRUE(testsupport::bus_wait_until([&] {
    _cspOsalTime_struct wait = testsupport::bus_ms(50);
    return lmqServerBusSync(m_peer.get(), &wait) == -107;
  }));
  EXPECT_EQ(state.lead(20), -107);
  EXPECT_EQ(bus_command(caller(), m_id, "still there?"), -113);
}

// Closing the peer's bus waits for the thread that leads.
TEST_F(Lead, ClosingThePeersBusWaitsForTheLeader) {
  constexpr int kLeadMs = 100;
  Caller state(caller());
  ASSERT_EQ(bus_command(caller(), m_id, "anyone?"), 0);
  Clock::time_point lead_start;
  std::future<int> led = std::async(std::launch::async, [&] {
    lead_start = Clock::now();
    return state.lead(kLeadMs);
  });
  ASSERT_TRUE(state.wait_leading());

  EXPECT_EQ(lmqServerBusClose(m_peer.get()), 0);
  long long after_lead_start = ms_since(lead_start);
  EXPECT_EQ(led.get(), -110);
  EXPECT_GE(after_lead_start, kLeadMs) << "the close waited for the leader";
  EXPECT_EQ(m_peer.status().role, LMQ_BUS_NONE);
  EXPECT_TRUE(m_bus.hub_has_peers(0));
  EXPECT_EQ(state.lead(20), -107);
  EXPECT_EQ(bus_command(caller(), m_id, "alone"), -113);
}

// Closing the peer's bus waits for a leader before it forgets the other
// nodes: what the leader reads meanwhile (a new host on the hub) is
// forgotten with the rest, and nothing of the closed bus is used later.
TEST_F(Lead, FramesALeaderReadsWhileTheBusClosesAreForgottenWithTheRest) {
  int16_t late = shared_id("LATE");
  BusClient late_host(hub().get());
  m_bus.settle();
  Caller state(caller());
  state.done_after_reads(1);
  ASSERT_EQ(bus_command(caller(), m_id, "anyone?"), 0);
  std::future<int> led = std::async(std::launch::async, [&] { return state.lead(5000); });
  ASSERT_TRUE(state.wait_leading());
  std::future<int> closed =
      std::async(std::launch::async, [&] { return lmqServerBusClose(m_peer.get()); });
  EXPECT_EQ(closed.wait_for(30ms), std::future_status::timeout) << "the close waits for the leader";
  EXPECT_EQ(m_peer.status().role, LMQ_BUS_PEER) << "nothing is forgotten while a leader reads";

  // The hub tells the peer of a new host; the leader reads that and is done.
  ASSERT_EQ(lmqHostService(late_host.get(), late, 0), 0);
  EXPECT_EQ(led.get(), 0);
  EXPECT_EQ(closed.get(), 0);
  EXPECT_EQ(m_peer.status().role, LMQ_BUS_NONE);
  BusClient sender(m_peer.get());
  EXPECT_EQ(bus_command(sender.get(), late, "anyone here?"), -113);
  EXPECT_EQ(lmqClientLeadBus(caller(), 20, Caller::done, &state), -107);
}

// Many rounds of a command and its reply, each one led: every reply is
// taken exactly once, in the leading thread, and a notification for
// another client in front of each reply arrives too.
TEST_F(Lead, ManyRoundsOfSendAndLead) {
  constexpr int kRounds = 200;
  int16_t news = shared_id("NEWS");
  BusClient other(m_peer.get());
  BusClient notifier(hub().get());
  ASSERT_EQ(lmqSubscribeService(other.get(), news, 0), 0);
  m_bus.settle();

  Caller state(caller());
  ASSERT_EQ(state.install(), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host answering(host(), [&](int index, const std::string &) {
    if (!state.wait_round(index)) return false;
    EXPECT_EQ(bus_notify(notifier.get(), news, "n" + std::to_string(index)), 0);
    return true;
  });

  for (int i = 0; i < kRounds; i++) {
    state.next_round(i);
    ASSERT_EQ(bus_command(caller(), m_id, "q" + std::to_string(i)), 0);
    ASSERT_EQ(state.lead(5000), 0) << i;
  }
  ASSERT_EQ(state.offers(), kRounds);
  pid_t self = testsupport::current_tid();
  for (int i = 0; i < kRounds; i++) {
    Caller::Offer offer = state.offer_at(static_cast<size_t>(i));
    EXPECT_EQ(offer.bytes, "re:q" + std::to_string(i));
    EXPECT_EQ(offer.tid, self) << i;
    BusReceived n = bus_receive(other.get(), 0);
    EXPECT_EQ(n.data, "n" + std::to_string(i));
  }
  EXPECT_TRUE(testsupport::bus_empty(other.get()));

  EXPECT_FALSE(receiver.done_within(0ms)) << "no reply reached the receiver";
  ASSERT_EQ(notify_self(caller(), "stop"), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.take(), "stop");
  EXPECT_TRUE(testsupport::bus_empty(caller()));
}

}  // namespace
