// Helpers of the tests that lead the bus (lmqClientLeadBus): a hub with a
// host client of "LEAD" and a peer with the caller's client, the caller's
// idle handler and done test, and a host thread that answers commands.
//
// Header-only; every test program may include it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
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

namespace testsupport {
namespace lead {

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

constexpr _cspOsalTime_struct kExpectWait{30, 0};

inline long long ms_since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

inline int notify_self(lmq_client *client, const std::string &text) {
  lmq_iovec entry{const_cast<char *>(text.data()), static_cast<uint32_t>(text.size())};
  return lmqCXNotifySelf(client, &entry, 1, 0);
}

inline int never_done(void *) { return 0; }

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
class LeadFixture : public ::testing::Test {
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

}  // namespace lead
}  // namespace testsupport
