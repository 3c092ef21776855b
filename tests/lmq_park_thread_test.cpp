// Tests of parking: a leader whose answer came, and whose thread had
// announced that it leads after its send (lmqClientLeadNext), leaves the
// peer's hub connection to the next leader instead of giving it back to
// the bus thread. Any other send gives it back at once, leaders that did
// not get their answer or were contended give it back, and the bus thread
// takes it back after the server's parking time. The hub side hosts the
// service; the leading client lives on a peer. Run under ThreadSanitizer
// too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "platform/lmq.h"
#include "support/bus_fixture.h"
#include "support/lead_fixture.h"
#include "support/thread_state.h"

namespace {

using testsupport::bus_command;
using testsupport::bus_notify;
using testsupport::bus_receive;
using testsupport::bus_wait_until;
using testsupport::BusClient;
using testsupport::BusReceived;
using namespace std::chrono_literals;
using namespace testsupport::lead;

// Longer than any test: only what the tests do ends a park.
constexpr uint32_t kLongPark = 30000000u;
// A wait for something that must not come while the connection is parked.
constexpr int kQuietMs = 50;

class Park : public LeadFixture {
 protected:
  void SetUp() override {
    LeadFixture::SetUp();
    ASSERT_EQ(lmqServerBusSetParking(m_peer.get(), kLongPark), 0);
  }
  uint32_t parked() { return m_peer.status().parked; }
  bool parked_soon(uint32_t expected) {
    return bus_wait_until([&] { return parked() == expected; });
  }
  // One announced round: the command, then leading; returns the lead's
  // answer.
  int announced_round(Caller &state, const std::string &text) {
    state.next_round(m_round++);
    EXPECT_EQ(lmqClientLeadNext(caller(), 1), 0);
    EXPECT_EQ(bus_command(caller(), m_id, text), 0);
    return state.lead(5000);
  }
  // Announced rounds until the connection is parked. The set-up sent
  // unannounced (registration, sync), so the first leader gives it back
  // and only the second one parks.
  void park(Caller &state) {
    ASSERT_EQ(announced_round(state, "first"), 0);
    EXPECT_EQ(parked(), 0u) << "the set-up's own sends came first";
    ASSERT_EQ(announced_round(state, "second"), 0);
    ASSERT_EQ(parked(), 1u);
  }
  // A client of the peer that follows "NEWS", and one of the hub that
  // notifies it.
  void add_news() {
    m_news = shared_id("NEWS");
    ASSERT_EQ(lmqSubscribeService(m_reader.get(), m_news, 0), 0);
    m_bus.settle();
  }

  BusClient m_reader{m_peer.get()};
  BusClient m_notifier{hub().get()};
  int16_t m_news = 0;
  int m_round = 0;
};

// The caller side of a round, with its handler installed and its receiver
// blocked, so that replies are offered.
struct Rounds {
  explicit Rounds(lmq_client *client) : state(client), receiver(client) {
    EXPECT_EQ(state.install(), 0);
    EXPECT_TRUE(receiver.blocked());
  }
  Caller state;
  Receiver receiver;
};

// A thread of its own that sends "early" through a client of the peer,
// announced, and leads only when told to: its send goes before those that
// follow, its lead after them.
class EarlyLeader {
 public:
  EarlyLeader(lmq_client *client, int16_t id) : m_rounds(client) {
    m_led = std::async(std::launch::async, [this, client, id] {
      m_rounds.state.next_round(0);
      EXPECT_EQ(lmqClientLeadNext(client, 1), 0);
      EXPECT_EQ(bus_command(client, id, "early"), 0);
      m_sent.open();
      EXPECT_TRUE(m_go.wait());
      return m_rounds.state.lead(5000);
    });
  }
  bool sent() { return m_sent.wait(); }
  bool answered() { return m_rounds.state.wait_offers(1); }
  // Lets it lead; returns what the lead gave.
  int lead() {
    m_go.open();
    return m_led.get();
  }

 private:
  Rounds m_rounds;
  Gate m_sent;
  Gate m_go;
  std::future<int> m_led;
};

TEST_F(Park, AnAnsweredAnnouncedLeaderParksAndTheNextLeaderTakesItOver) {
  add_news();
  Rounds rounds(caller());
  Host answering(host(), [&](int index, const std::string &) {
    return rounds.state.wait_round(index);
  });
  EXPECT_EQ(parked(), 0u);
  park(rounds.state);

  // Nobody reads the parked connection: a notification waits in it.
  ASSERT_EQ(bus_notify(m_notifier.get(), m_news, "news"), 0);
  EXPECT_EQ(bus_receive(m_reader.get(), kQuietMs).rc, LMQ_TIMEOUT);
  EXPECT_EQ(parked(), 1u);

  // The next leader reads it, and its own reply, in its own thread.
  ASSERT_EQ(announced_round(rounds.state, "third"), 0);
  BusReceived news = bus_receive(m_reader.get(), 0);
  EXPECT_EQ(news.data, "news");
  ASSERT_EQ(rounds.state.offers(), 3);
  EXPECT_EQ(rounds.state.offer_at(2).bytes, "re:third");
  EXPECT_EQ(rounds.state.offer_at(2).tid, testsupport::current_tid());
  EXPECT_EQ(parked(), 1u);
}

TEST_F(Park, WithoutAnAnnouncementTheLeaderGivesTheConnectionBack) {
  Rounds rounds(caller());
  Host answering(host(), [&](int index, const std::string &) {
    return rounds.state.wait_round(index);
  });

  ASSERT_EQ(bus_command(caller(), m_id, "plain"), 0);
  ASSERT_EQ(rounds.state.lead(5000), 0);
  EXPECT_EQ(parked(), 0u);

  // Withdrawn, the announcement does not count either.
  rounds.state.next_round(1);
  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(lmqClientLeadNext(caller(), 0), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "withdrawn"), 0);
  ASSERT_EQ(rounds.state.lead(5000), 0);
  EXPECT_EQ(parked(), 0u);
}

// A send that no lead follows must get its answer without a leader: the
// parked connection goes back to the bus thread at once, whichever thread
// or client sends.
TEST_F(Park, AnUnannouncedSendGivesAParkedConnectionBack) {
  Rounds rounds(caller());
  Host answering(host(), [](int, const std::string &) { return true; });
  BusClient asker(m_peer.get());

  park(rounds.state);
  std::thread other([&] { EXPECT_EQ(bus_command(asker.get(), m_id, "from another thread"), 0); });
  other.join();
  BusReceived reply = bus_receive(asker.get());
  EXPECT_EQ(reply.data, "re:from another thread");
  EXPECT_TRUE(parked_soon(0u));

  // From the leading thread itself: an announcement is used up by one
  // send. (The connection went back to the bus thread after the last
  // unannounced send, so the next leader parks at once.)
  ASSERT_EQ(announced_round(rounds.state, "again"), 0);
  ASSERT_EQ(parked(), 1u);
  ASSERT_EQ(bus_command(asker.get(), m_id, "same thread"), 0);
  reply = bus_receive(asker.get());
  EXPECT_EQ(reply.data, "re:same thread");
  EXPECT_TRUE(parked_soon(0u));
}

// A thread that announced its lead may find that it cannot lead after
// all: another thread of its client sent in between (here a notification
// to itself, as the registry client wakes its own thread), so that the
// client's last send is not the one waiting for its answer. The parked
// connection then goes back to the bus thread at once, which reads the
// answer, instead of keeping it until the parking time runs out.
TEST_F(Park, AnAnnouncedSendThatCannotLeadGivesAParkedConnectionBack) {
  Rounds rounds(caller());
  Host answering(host(), [](int, const std::string &) { return true; });
  park(rounds.state);

  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "announced"), 0);
  std::thread other([&] { EXPECT_EQ(notify_self(caller(), "local"), 0); });
  other.join();
  EXPECT_EQ(rounds.receiver.take(), "local");
  // Offers off: the answer is taken by a plain receive below.
  ASSERT_EQ(lmqClientSetIdleHandler(caller(), 0, Caller::handler, &rounds.state), 0);
  EXPECT_EQ(rounds.state.lead(5000), -11);
  BusReceived reply = bus_receive(caller(), 5000);
  EXPECT_EQ(reply.data, "re:announced");
  EXPECT_TRUE(parked_soon(0u));
}

// An unannounced send while a thread leads: that leader gives the
// connection back instead of parking it, so the other answer is read.
TEST_F(Park, ALeaderDoesNotParkAfterAnUnannouncedSend) {
  Rounds rounds(caller());
  Gate gate;
  Host slow(host(), [&](int index, const std::string &) { return index != 0 || gate.wait(); });
  BusClient asker(m_peer.get());

  rounds.state.next_round(0);
  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "slow"), 0);
  std::future<int> led = std::async(std::launch::async, [&] { return rounds.state.lead(5000); });
  ASSERT_TRUE(rounds.state.wait_leading());
  ASSERT_EQ(bus_command(asker.get(), m_id, "meanwhile"), 0);
  gate.open();
  EXPECT_EQ(led.get(), 0);
  EXPECT_EQ(parked(), 0u);
  EXPECT_EQ(bus_receive(asker.get()).data, "re:meanwhile");
}

// A thread refused because another leads waits its usual way: the first
// leader must give the connection back for that answer.
TEST_F(Park, ARefusedSecondLeaderKeepsTheFirstFromParking) {
  BusClient second(m_peer.get());
  Caller second_state(second.get());
  Rounds rounds(caller());
  Gate gate;
  Host slow(host(), [&](int index, const std::string &) { return index != 0 || gate.wait(); });

  rounds.state.next_round(0);
  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "first"), 0);
  std::future<int> led = std::async(std::launch::async, [&] { return rounds.state.lead(5000); });
  ASSERT_TRUE(rounds.state.wait_leading());

  ASSERT_EQ(lmqClientLeadNext(second.get(), 1), 0);
  ASSERT_EQ(bus_command(second.get(), m_id, "second"), 0);
  EXPECT_EQ(second_state.lead(5000), -16);
  gate.open();
  EXPECT_EQ(led.get(), 0);
  EXPECT_EQ(parked(), 0u);
  EXPECT_EQ(bus_receive(second.get()).data, "re:second");
}

// The refusal outlasts the first leader: a later leader whose own request
// went out before the refused thread's must not park either, or that
// thread's answer, which comes after the later leader's, would wait for
// the parking time with nobody reading.
TEST_F(Park, ALeaderWhoseRequestWentBeforeARefusedOneDoesNotPark) {
  BusClient early_client(m_peer.get());
  BusClient refused_client(m_peer.get());
  Rounds rounds(caller());
  Caller refused_state(refused_client.get());
  Gate first_gate;
  Gate last_gate;
  Host gated(host(), [&](int, const std::string &text) {
    if (text == "first") return first_gate.wait();
    if (text == "last") return last_gate.wait();
    return true;
  });

  rounds.state.next_round(0);
  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "first"), 0);
  std::future<int> led = std::async(std::launch::async, [&] { return rounds.state.lead(5000); });
  ASSERT_TRUE(rounds.state.wait_leading());

  // Sent while the first leader waits, each by its own thread: "early"
  // leads only later, "last" is refused at once.
  EarlyLeader early(early_client.get(), m_id);
  ASSERT_TRUE(early.sent());
  ASSERT_EQ(lmqClientLeadNext(refused_client.get(), 1), 0);
  ASSERT_EQ(bus_command(refused_client.get(), m_id, "last"), 0);
  EXPECT_EQ(refused_state.lead(5000), -16);

  first_gate.open();
  EXPECT_EQ(led.get(), 0);
  ASSERT_TRUE(early.answered());
  EXPECT_EQ(parked(), 0u);

  // The early thread's answer is in: it leads, is done at once, and gives
  // the connection back, for "last" is still to come.
  EXPECT_EQ(early.lead(), 0);
  EXPECT_EQ(parked(), 0u);
  last_gate.open();
  BusReceived got = bus_receive(refused_client.get());
  EXPECT_EQ(got.data, "re:last");
}

// Likewise for a thread whose own lead ended without its answer: it waits
// on, so a leader whose send went before its own does not park.
TEST_F(Park, ALeaderWhoseRequestWentBeforeAnUnansweredLeadDoesNotPark) {
  BusClient early_client(m_peer.get());
  BusClient slow_client(m_peer.get());
  Rounds slow(slow_client.get());
  Gate slow_gate;
  Host gated(host(), [&](int, const std::string &text) {
    return text != "slow" || slow_gate.wait();
  });

  EarlyLeader early(early_client.get(), m_id);
  ASSERT_TRUE(early.sent());
  slow.state.next_round(0);
  ASSERT_EQ(lmqClientLeadNext(slow_client.get(), 1), 0);
  ASSERT_EQ(bus_command(slow_client.get(), m_id, "slow"), 0);
  EXPECT_EQ(slow.state.lead(50), -110);
  ASSERT_TRUE(early.answered());
  EXPECT_EQ(parked(), 0u);

  EXPECT_EQ(early.lead(), 0);
  EXPECT_EQ(parked(), 0u);
  slow_gate.open();
  ASSERT_TRUE(slow.state.wait_offers(1));
  EXPECT_EQ(slow.state.offer_at(0).bytes, "re:slow");
}

TEST_F(Park, ALeaderWithoutItsAnswerGivesTheConnectionBack) {
  Caller state(caller());
  Host silent(host(), [](int, const std::string &) { return false; });

  // Out of time.
  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "unanswered"), 0);
  EXPECT_EQ(state.lead(30), -110);
  EXPECT_EQ(parked(), 0u);

  // Mail queued for the receiver.
  ASSERT_EQ(lmqClientLeadNext(caller(), 1), 0);
  ASSERT_EQ(bus_command(caller(), m_id, "unanswered too"), 0);
  ASSERT_EQ(notify_self(caller(), "mail"), 0);
  EXPECT_EQ(state.lead(5000), -11);
  EXPECT_EQ(parked(), 0u);
  EXPECT_EQ(bus_receive(caller(), 0).data, "mail");
}

TEST_F(Park, TheBusThreadTakesTheConnectionBackAfterTheParkingTime) {
  add_news();
  // Long enough for the checks of park(), short for the test.
  ASSERT_EQ(lmqServerBusSetParking(m_peer.get(), 300000u), 0);
  Rounds rounds(caller());
  Host answering(host(), [&](int index, const std::string &) {
    return rounds.state.wait_round(index);
  });

  park(rounds.state);
  ASSERT_EQ(bus_notify(m_notifier.get(), m_news, "late"), 0);
  // Read by the bus thread once the park ends, with no leader.
  EXPECT_EQ(bus_receive(m_reader.get()).data, "late");
  EXPECT_TRUE(parked_soon(0u));
}

TEST_F(Park, ParkingTimeZeroTurnsParkingOff) {
  ASSERT_EQ(lmqServerBusSetParking(m_peer.get(), 0u), 0);
  Rounds rounds(caller());
  Host answering(host(), [&](int index, const std::string &) {
    return rounds.state.wait_round(index);
  });

  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(announced_round(rounds.state, "round"), 0);
    EXPECT_EQ(parked(), 0u);
  }
}

TEST_F(Park, BadArgumentsAreRefused) {
  EXPECT_EQ(lmqServerBusSetParking(nullptr, 1000u), -22);
  EXPECT_EQ(lmqServerBusSetParking(m_peer.get(), LMQ_BUS_PARK_US_MAX + 1u), -22);
  EXPECT_EQ(lmqServerBusSetParking(m_peer.get(), LMQ_BUS_PARK_US_MAX), 0);
  EXPECT_EQ(lmqClientLeadNext(nullptr, 1), -22);
  lmq_client unattached{};
  EXPECT_EQ(lmqClientLeadNext(&unattached, 1), -22);
}

// The end of a parked connection still reaches the bus thread.
TEST_F(Park, TheHubGoingAwayWhileParkedIsNoticed) {
  Rounds rounds(caller());
  {
    Host answering(host(), [&](int index, const std::string &) {
      return rounds.state.wait_round(index);
    });
    park(rounds.state);
  }
  ASSERT_EQ(lmqServerBusClose(hub().get()), 0);
  EXPECT_TRUE(bus_wait_until([&] { return m_peer.status().peers == 0u; }));
  EXPECT_EQ(m_peer.status().hub_node, 0u);
  EXPECT_EQ(parked(), 0u);
}

TEST_F(Park, ClosingThePeersBusWhileParked) {
  Rounds rounds(caller());
  Host answering(host(), [&](int index, const std::string &) {
    return rounds.state.wait_round(index);
  });
  park(rounds.state);
  EXPECT_EQ(lmqServerBusClose(m_peer.get()), 0);
  lmq_bus_status status = m_peer.status();
  EXPECT_EQ(status.role, LMQ_BUS_NONE);
  EXPECT_EQ(status.parked, 0u);
}

// Many announced rounds with the default parking time, a notification for
// another client in front of each reply: every reply is taken once, in
// the leading thread, and every notification arrives, in order.
TEST_F(Park, ManyAnnouncedRounds) {
  constexpr int kRounds = 200;
  ASSERT_EQ(lmqServerBusSetParking(m_peer.get(), LMQ_BUS_PARK_US_DEFAULT), 0);
  add_news();
  Rounds rounds(caller());
  Host answering(host(), [&](int index, const std::string &) {
    if (!rounds.state.wait_round(index)) return false;
    EXPECT_EQ(bus_notify(m_notifier.get(), m_news, "n" + std::to_string(index)), 0);
    return true;
  });

  for (int i = 0; i < kRounds; i++) {
    ASSERT_EQ(announced_round(rounds.state, "q" + std::to_string(i)), 0) << i;
  }
  ASSERT_EQ(rounds.state.offers(), kRounds);
  for (int i = 0; i < kRounds; i++) {
    Caller::Offer offer = rounds.state.offer_at(static_cast<size_t>(i));
    EXPECT_EQ(offer.bytes, "re:q" + std::to_string(i));
    EXPECT_EQ(offer.tid, testsupport::current_tid()) << i;
    EXPECT_EQ(bus_receive(m_reader.get()).data, "n" + std::to_string(i));
  }
  EXPECT_TRUE(testsupport::bus_empty(m_reader.get()));
  EXPECT_FALSE(rounds.receiver.done_within(0ms)) << "no reply reached the receiver";
}

}  // namespace
