// Tests of a leader's polling: before it sleeps in recv, a leader polls the
// peer's hub connection for the server's spin time, so that a quick answer
// is read without its processor going idle. Polls that keep finding
// nothing are skipped for a while. The hub side hosts the service; the
// leading client lives on a peer. Run under ThreadSanitizer too.
#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "platform/lmq.h"
#include "support/bus_fixture.h"
#include "support/lead_fixture.h"

namespace {

using testsupport::bus_command;
using testsupport::BusServer;
using namespace std::chrono_literals;
using namespace testsupport::lead;

// Far longer than a poll: an answer that comes this late is never read by
// one (short of the leader being held off its processor that long).
constexpr auto kLateAnswer = 20ms;
// A poll far shorter than kLateAnswer.
constexpr uint32_t kShortSpinUs = 50u;

class LeadSpin : public LeadFixture {
 protected:
  void SetUp() override {
    LeadFixture::SetUp();
    ASSERT_EQ(m_caller_side.install(), 0);
    ASSERT_TRUE(m_receiver.blocked());
  }
  // Makes the host answer every command after `delay`.
  void answer_after(std::chrono::milliseconds delay) {
    m_answers.emplace(host(), [delay](int, const std::string &) {
      std::this_thread::sleep_for(delay);
      return true;
    });
  }
  void answer_at_once() {
    m_answers.emplace(host(), [](int, const std::string &) { return true; });
  }
  // One command and its lead; returns the lead's result.
  int round(const std::string &text) {
    m_caller_side.next_round(m_round++);
    EXPECT_EQ(bus_command(caller(), m_id, text), 0);
    return m_caller_side.lead(5000);
  }
  uint32_t polls() {
    lmq_bus_status s = m_peer.status();
    return s.lead_spin_hits + s.lead_spin_misses;
  }

  Caller m_caller_side{caller()};
  Receiver m_receiver{caller()};
  std::optional<Host> m_answers;
  int m_round = 0;
};

TEST_F(LeadSpin, BadArgumentsAreRefused) {
  EXPECT_EQ(lmqServerBusSetLeadSpin(nullptr, 0), -22);
  EXPECT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), LMQ_BUS_LEAD_SPIN_US_MAX + 1u), -22);
  EXPECT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), LMQ_BUS_LEAD_SPIN_US_MAX), 0);
  EXPECT_EQ(m_peer.status().lead_spin_us, LMQ_BUS_LEAD_SPIN_US_MAX);
  EXPECT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), 0), 0);
  EXPECT_EQ(m_peer.status().lead_spin_us, 0u);
}

TEST_F(LeadSpin, WithoutASpinTimeLeadersDoNotPoll) {
  ASSERT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), 0), 0);
  answer_at_once();
  for (int i = 0; i < 20; i++) ASSERT_EQ(round("r" + std::to_string(i)), 0) << i;
  EXPECT_EQ(polls(), 0u);
  EXPECT_EQ(m_caller_side.offers(), 20);
}

TEST_F(LeadSpin, AnAnswerThatComesWhileTheLeaderPollsIsReadByThePoll) {
  ASSERT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), LMQ_BUS_LEAD_SPIN_US_MAX), 0);
  answer_at_once();
  // The host answers at once, so nearly every answer comes within the
  // poll; a busy machine may delay some beyond it.
  int rounds = 0;
  while (m_peer.status().lead_spin_hits == 0 && rounds < 300) {
    ASSERT_EQ(round("r" + std::to_string(rounds)), 0) << rounds;
    rounds++;
  }
  EXPECT_GE(m_peer.status().lead_spin_hits, 1u) << "after " << rounds << " rounds";
  EXPECT_EQ(m_caller_side.offers(), rounds);
  EXPECT_EQ(m_caller_side.offer_at(static_cast<size_t>(rounds - 1)).bytes,
            "re:r" + std::to_string(rounds - 1));
}

TEST_F(LeadSpin, AfterMissesInARowReadsSleepAtOnceThenPollAgain) {
  ASSERT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), kShortSpinUs), 0);
  answer_after(kLateAnswer);
  int round_no = 0;
  for (uint32_t i = 0; i < LMQ_BUS_LEAD_SPIN_MISS_LIMIT; i++) {
    ASSERT_EQ(round("late" + std::to_string(round_no++)), 0);
  }
  EXPECT_EQ(m_peer.status().lead_spin_misses, LMQ_BUS_LEAD_SPIN_MISS_LIMIT);
  // The next reads do not poll: every answer still comes.
  for (uint32_t i = 0; i < LMQ_BUS_LEAD_SPIN_SKIP; i++) {
    ASSERT_EQ(round("late" + std::to_string(round_no++)), 0);
  }
  EXPECT_EQ(m_peer.status().lead_spin_misses, LMQ_BUS_LEAD_SPIN_MISS_LIMIT);
  // Then polling is tried again.
  ASSERT_EQ(round("late" + std::to_string(round_no++)), 0);
  lmq_bus_status s = m_peer.status();
  EXPECT_EQ(s.lead_spin_misses, LMQ_BUS_LEAD_SPIN_MISS_LIMIT + 1u);
  EXPECT_EQ(s.lead_spin_hits, 0u);
  EXPECT_EQ(m_caller_side.offers(), round_no);
}

TEST_F(LeadSpin, ALeaderWithoutAnAnswerStillEndsAtItsTimeout) {
  ASSERT_EQ(lmqServerBusSetLeadSpin(m_peer.get(), LMQ_BUS_LEAD_SPIN_US_MAX), 0);
  m_answers.emplace(host(), [](int, const std::string &) { return false; });
  m_caller_side.next_round(0);
  ASSERT_EQ(bus_command(caller(), m_id, "unanswered"), 0);
  auto start = Clock::now();
  EXPECT_EQ(m_caller_side.lead(3), -110);
  auto took = Clock::now() - start;
  EXPECT_GE(took, 3ms);
  EXPECT_LT(took, 3s);
  EXPECT_GE(m_peer.status().lead_spin_misses, 1u);
  EXPECT_EQ(m_caller_side.offers(), 0);
}

// The default depends on the processors the creating thread may run on.
TEST(LeadSpinDefault, ANewServerPollsOnlyWhenItMayRunOnSeveralProcessors) {
  cpu_set_t all;
  ASSERT_EQ(sched_getaffinity(0, sizeof(all), &all), 0);
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
    if (CPU_ISSET(cpu, &all)) {
      CPU_SET(cpu, &one);
      break;
    }
  }
  uint32_t pinned = 1;
  std::thread([&] {
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    BusServer server;
    pinned = server.status().lead_spin_us;
  }).join();
  EXPECT_EQ(pinned, 0u);

  BusServer server;
  uint32_t expected = CPU_COUNT(&all) > 1 ? LMQ_BUS_LEAD_SPIN_US_DEFAULT : 0u;
  EXPECT_EQ(server.status().lead_spin_us, expected);
}

}  // namespace
