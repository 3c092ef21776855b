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
#include "support/idle_offer.h"
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

using Clock = std::chrono::steady_clock;

constexpr _cspOsalTime_struct kExpectWait{30, 0};

long long ms_since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

int notify_self(lmq_client *client, const std::string &text) {
  lmq_iovec entry{const_cast<char *>(text.data()), static_cast<uint32_t>(text.size())};
  return lmqCXNotifySelf(client, &entry, 1, 0);
}

int never_done(void *) { return 0; }

// The leading side of one client: its idle handler, which records every
// offer and answers `answer`, and the done test given to lmqClientLeadBus,
// which is true once the handler has taken a reply in the current round
// (or, with done_after_reads(n), once it has been asked n + 1 times).
// Every call of the done test is counted and published, so that other
// threads know that a leader has taken the connection.
class Caller {
 public:
  struct Offer {
    std::string bytes;
    lmq_address from;
    pid_t tid;
    std::string thread;
    int lead_rc;  // what lmqClientLeadBus gave inside the handler; 1: not tried
  };

  explicit Caller(lmq_client *client, int answer = 1) : m_client(client), m_answer(answer) {}

  // Sets the handler on the client, for replies (and the kinds given).
  int install(uint32_t kinds = LMQ_IDLE_REPLIES) {
    return lmqClientSetIdleHandler(m_client, kinds, handler, this);
  }
  // The handler tries to lead, too.
  void lead_in_handler() { m_lead_in_handler = true; }
  void done_after_reads(int reads) { m_done_after = reads; }

  int lead(uint32_t timeout_ms) { return lmqClientLeadBus(m_client, timeout_ms, done, this); }

  // A new round: nothing taken yet.
  void next_round(int round) {
    m_taken.store(0);
    m_round.store(round);
  }

  static int handler(void *context, void *message, uint32_t size, uint32_t,
                     const lmq_address *from) {
    auto *self = static_cast<Caller *>(context);
    pid_t tid = testsupport::current_tid();
    Offer offer{std::string(static_cast<const char *>(message), size), *from, tid,
                testsupport::thread_name(tid), 1};
    if (self->m_lead_in_handler) {
      offer.lead_rc = lmqClientLeadBus(self->m_client, 10, never_done, nullptr);
    }
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_offers.push_back(offer);
    if (self->m_answer == 1 && from->kind == LMQ_KIND_REPLY) self->m_taken.store(1);
    self->m_cond.notify_all();
    return self->m_answer;
  }

  static int done(void *context) {
    auto *self = static_cast<Caller *>(context);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_done_calls++;
    self->m_leading_round = self->m_round.load();
    self->m_cond.notify_all();
    if (self->m_done_after > 0 && self->m_done_calls > self->m_done_after) return 1;
    return self->m_taken.load();
  }

  // Waits until the done test has been asked `calls` times: a leader has
  // taken the connection from the bus thread by then.
  bool wait_leading(int calls = 1) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, 10s, [&] { return m_done_calls >= calls; });
  }
  // Waits until the leader of round `round` has asked the done test.
  bool wait_round(int round) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, 10s, [&] { return m_done_calls > 0 && m_leading_round >= round; });
  }
  bool wait_offers(int n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, 10s, [&] { return static_cast<int>(m_offers.size()) >= n; });
  }
  int offers() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_offers.size());
  }
  Offer offer_at(size_t i) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_offers.at(i);
  }
  int done_calls() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_done_calls;
  }

 private:
  lmq_client *m_client;
  int m_answer;
  bool m_lead_in_handler = false;
  int m_done_after = 0;
  std::atomic<int> m_taken{0};
  std::atomic<int> m_round{0};
  std::mutex m_mutex;
  std::condition_variable m_cond;
  int m_done_calls = 0;
  int m_leading_round = -1;
  std::vector<Offer> m_offers;
};

// The hub side: a thread that takes the commands of a host client and
// answers each one with "re:" and its text. before(index, text) runs
// between taking the index-th command and answering it; false means the
// command stays unanswered.
class Host {
 public:
  using Before = std::function<bool(int index, const std::string &text)>;

  Host(lmq_client *client, Before before) : m_client(client), m_before(std::move(before)) {
    m_thread = std::thread([this] { run(); });
  }
  ~Host() { stop(); }
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  void stop() {
    if (!m_thread.joinable()) return;
    EXPECT_EQ(notify_self(m_client, "quit"), 0);
    m_thread.join();
  }

 private:
  void run() {
    for (int index = 0;;) {
      BusReceived r = bus_receive(m_client);
      if (r.rc == LMQ_TIMEOUT) continue;
      if (r.rc <= 0) {
        ADD_FAILURE() << "host receive " << r.rc;
        return;
      }
      if (r.info.reply.kind == LMQ_KIND_SELF) return;
      if (r.info.reply.kind != LMQ_KIND_COMMAND) continue;
      if (m_before && !m_before(index++, r.data)) continue;
      EXPECT_EQ(bus_reply(m_client, r.info.reply, "re:" + r.data), 0) << r.data;
    }
  }

  lmq_client *m_client;
  Before m_before;
  std::thread m_thread;
};

// A gate that a host waits at, bounded.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_cond.notify_all();
  }
  bool wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, 10s, [&] { return m_open; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cond;
  bool m_open = false;
};

// Bounded, so that a lost wake-up fails the test instead of hanging it.
class Receiver : public testsupport::BlockedReceiver {
 public:
  explicit Receiver(lmq_client *client) : BlockedReceiver(client, &kExpectWait) {}
};

// A hub with a host of "LEAD", and a peer with the caller's client.
class Lead : public ::testing::Test {
 protected:
  void SetUp() override {
    m_id = m_bus.hub().register_id("LEAD");
    ASSERT_EQ(m_peer.register_id("LEAD"), m_id);
    ASSERT_EQ(lmqHostService(m_host.get(), m_id, 0), 0);
    m_bus.settle();
  }
  lmq_client *caller() { return m_caller.get(); }
  lmq_client *host() { return m_host.get(); }
  testsupport::BusServer &hub() { return m_bus.hub(); }
  // The name registered on hub and peer alike.
  int16_t shared_id(const std::string &name) {
    int16_t id = hub().register_id(name);
    EXPECT_EQ(m_peer.register_id(name), id);
    return id;
  }

  testsupport::Bus m_bus;
  testsupport::BusServer &m_peer = m_bus.add_peer();
  BusClient m_host{m_bus.hub().get()};
  BusClient m_caller{m_peer.get()};
  int16_t m_id = 0;
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
TEST_F(Lead, TimesOutAndTheBusThreadReadsAgainAfterwards) {
  int16_t news = shared_id("NEWS");
  ASSERT_EQ(lmqSubscribeService(caller(), news, 0), 0);
  BusClient notifier(hub().get());
  m_bus.settle();
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

  ASSERT_EQ(bus_notify(notifier.get(), news, "bulletin"), 0);
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

TEST_F(Lead, StopsWithEagainWhenMailIsAlreadyQueued) {
  int16_t news = shared_id("NEWS");
  ASSERT_EQ(lmqSubscribeService(caller(), news, 0), 0);
  BusClient notifier(hub().get());
  m_bus.settle();
  ASSERT_EQ(bus_notify(notifier.get(), news, "waiting"), 0);
  m_bus.settle();

  Caller state(caller());
  ASSERT_EQ(bus_command(caller(), m_id, "question"), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(state.lead(5000), -11);
  EXPECT_LT(ms_since(start), 2000);
  EXPECT_EQ(bus_receive(caller(), 0).data, "waiting");
  EXPECT_TRUE(testsupport::bus_empty(caller()));
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
TEST_F(Lead, NotificationsForTheCallerAreOfferedInTheLeadingThreadToo) {
  int16_t news = shared_id("NEWS");
  ASSERT_EQ(lmqSubscribeService(caller(), news, 0), 0);
  BusClient notifier(hub().get());
  m_bus.settle();
  Caller state(caller());
  ASSERT_EQ(state.install(LMQ_IDLE_REPLIES | LMQ_IDLE_NOTIFICATIONS), 0);
  Receiver receiver(caller());
  ASSERT_TRUE(receiver.blocked());
  Host answering(host(), [&](int, const std::string &) {
    if (!state.wait_leading()) return false;
    EXPECT_EQ(bus_notify(notifier.get(), news, "first the news"), 0);
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
