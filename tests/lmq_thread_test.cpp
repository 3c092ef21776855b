// Tests of lmq with several threads: concurrent senders, receivers woken
// by sends and by the uptime clock's test hook, and clients that attach
// and detach while others send. Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/lmq_client.h"
#include "support/stamped_message.h"
#include "support/thread_state.h"

namespace {

using testsupport::LmqClient;
using namespace std::chrono_literals;

constexpr _cspOsalTime_struct kNoWait{0, 0};
// Bound of every wait for a message that is expected: a failing test ends
// instead of hanging.
constexpr _cspOsalTime_struct kExpectWait{30, 0};

// A thread that runs one lmqCXReceive and reports its result.
class Receiver {
 public:
  Receiver(lmq_client *client, const _cspOsalTime_struct *timeout)
      : m_timed(timeout != nullptr), m_future(m_result.get_future()) {
    m_thread = std::thread([this, client, timeout] {
      m_tid.store(testsupport::current_tid());
      lmq_iovec entry{m_buffer, sizeof(m_buffer)};
      auto start = std::chrono::steady_clock::now();
      int rc = lmqCXReceive(client, &entry, 1, &m_info, timeout);
      m_elapsed = std::chrono::steady_clock::now() - start;
      m_result.set_value(rc);
    });
  }
  ~Receiver() {
    // A test that failed early leaves a timed receiver waiting: end it by
    // the clock rather than hang.
    _cspOsalTime_struct hour{3600, 0};
    for (int i = 0; m_timed && m_thread.joinable() && i < 1000 && !done_within(10ms); i++) {
      cspOsalTestAdvanceUptime(&hour);
    }
    if (m_thread.joinable()) m_thread.join();
  }
  // True once the thread sleeps in the kernel after it announced that it
  // enters lmqCXReceive: that is its wait on the client's condition.
  bool blocked() const { return testsupport::wait_until_sleeping(m_tid); }
  bool done_within(std::chrono::milliseconds wait) {
    return m_future.wait_for(wait) == std::future_status::ready;
  }
  int result() {
    int rc = m_future.get();
    m_thread.join();
    return rc;
  }
  std::string data(int rc) const { return std::string(m_buffer, rc > 0 ? rc : 0); }
  const lmq_rx_info &info() const { return m_info; }
  std::chrono::steady_clock::duration elapsed() const { return m_elapsed; }

 private:
  bool m_timed;
  std::promise<int> m_result;
  std::future<int> m_future;
  std::atomic<pid_t> m_tid{0};
  std::thread m_thread;
  char m_buffer[256];
  lmq_rx_info m_info{};
  std::chrono::steady_clock::duration m_elapsed{};
};

class LmqThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(lmqServerCreate(&m_server), 0);
    ASSERT_EQ(lmqRegisterPlainId(m_server, "THREADS", 8, &m_id), 0);
  }
  void TearDown() override {
    EXPECT_EQ(lmqUnRegisterPlainId(m_server, m_id), 0);
    EXPECT_EQ(lmqServerDestroy(m_server), 0);
  }
  lmq_server *m_server = nullptr;
  int16_t m_id = 0;
};

// --- Messages that check themselves ----------------------------------------

using testsupport::check_stamped_message;
using testsupport::send_stamped_retrying;
using testsupport::Stamp;

std::vector<uint8_t> make_message(uint32_t sender, uint32_t seq) {
  return testsupport::make_stamped_message(sender, seq, 600u);
}

// --- Tests -------------------------------------------------------------------

// Several threads, each with its own client, send to one receiver whose
// small queue runs full again and again: nothing is lost, torn or
// reordered per sender.
TEST_F(LmqThreadTest, ManySendersOneReceiver) {
  constexpr uint32_t kSenders = 4;
  constexpr uint32_t kPerSender = 2000;
  LmqClient receiver(m_server, 2048);
  ASSERT_EQ(lmqHostService(receiver.get(), m_id, 0), 0);
  std::vector<std::unique_ptr<LmqClient>> senders;
  std::map<uint32_t, uint32_t> sender_of_number;
  for (uint32_t t = 0; t < kSenders; t++) {
    senders.push_back(std::make_unique<LmqClient>(m_server));
    sender_of_number[senders.back()->number()] = t;
  }

  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kSenders; t++) {
    threads.emplace_back([&, t] {
      for (uint32_t seq = 0; seq < kPerSender; seq++) {
        if (send_stamped_retrying(senders[t]->get(), m_id, make_message(t, seq)) != 0) failures++;
      }
    });
  }

  std::vector<uint32_t> next_seq(kSenders, 0);
  std::vector<uint32_t> last_sequence(kSenders, 0);
  std::vector<uint8_t> buffer(LMQ_MAX_MESSAGE_SIZE);
  lmq_iovec entry{buffer.data(), static_cast<uint32_t>(buffer.size())};
  for (uint32_t n = 1; n <= kSenders * kPerSender; n++) {
    lmq_rx_info info{};
    int rc = lmqCXReceive(receiver.get(), &entry, 1, &info, &kExpectWait);
    ASSERT_GT(rc, 0) << "message " << n;
    Stamp s;
    ASSERT_TRUE(check_stamped_message(buffer.data(), rc, &s));
    ASSERT_LT(s.sender, kSenders);
    ASSERT_EQ(s.seq, next_seq[s.sender]) << "sender " << s.sender;
    next_seq[s.sender]++;
    EXPECT_EQ(info.count, n);
    EXPECT_EQ(info.size, static_cast<uint32_t>(rc));
    EXPECT_EQ(info.reply.kind, LMQ_KIND_COMMAND);
    EXPECT_EQ(info.reply.service_id, m_id);
    ASSERT_EQ(sender_of_number.at(info.reply.client), s.sender);
    EXPECT_GT(info.reply.sequence, last_sequence[s.sender]);
    last_sequence[s.sender] = info.reply.sequence;
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  lmq_rx_info info{};
  EXPECT_EQ(lmqCXReceive(receiver.get(), &entry, 1, &info, &kNoWait), LMQ_TIMEOUT);
}

// Several threads send through one shared client: every send gets its own
// sequence number, and each thread's messages stay in its order.
TEST_F(LmqThreadTest, ThreadsShareOneSendingClient) {
  constexpr uint32_t kThreads = 3;
  constexpr uint32_t kPerThread = 1000;
  LmqClient receiver(m_server, 4096);
  LmqClient shared(m_server);
  ASSERT_EQ(lmqHostService(receiver.get(), m_id, 0), 0);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (uint32_t seq = 0; seq < kPerThread; seq++) {
        EXPECT_EQ(send_stamped_retrying(shared.get(), m_id, make_message(t, seq)), 0);
      }
    });
  }
  std::vector<uint32_t> next_seq(kThreads, 0);
  std::set<uint32_t> sequences;
  std::vector<uint8_t> buffer(LMQ_MAX_MESSAGE_SIZE);
  lmq_iovec entry{buffer.data(), static_cast<uint32_t>(buffer.size())};
  for (uint32_t n = 0; n < kThreads * kPerThread; n++) {
    lmq_rx_info info{};
    int rc = lmqCXReceive(receiver.get(), &entry, 1, &info, &kExpectWait);
    ASSERT_GT(rc, 0);
    Stamp s;
    ASSERT_TRUE(check_stamped_message(buffer.data(), rc, &s));
    ASSERT_EQ(s.seq, next_seq[s.sender]++);
    EXPECT_EQ(info.reply.client, shared.number());
    EXPECT_TRUE(sequences.insert(info.reply.sequence).second) << info.reply.sequence;
  }
  for (auto &t : threads) t.join();
}

TEST_F(LmqThreadTest, ReceiverOnAnotherThreadIsWokenBySend) {
  LmqClient host(m_server), sender(m_server);
  ASSERT_EQ(lmqHostService(host.get(), m_id, 0), 0);
  for (int round = 0; round < 5; round++) {
    Receiver receiver(host.get(), nullptr);  // waits for ever
    ASSERT_TRUE(receiver.blocked());
    EXPECT_FALSE(receiver.done_within(0ms));
    std::string text = "wake " + std::to_string(round);
    lmq_iovec entry{&text[0], static_cast<uint32_t>(text.size())};
    ASSERT_EQ(lmqCXSendCommand(sender.get(), m_id, &entry, 1, 0), 0);
    ASSERT_TRUE(receiver.done_within(10s));
    int rc = receiver.result();
    EXPECT_EQ(rc, static_cast<int>(text.size()));
    EXPECT_EQ(receiver.data(rc), text);
    EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_COMMAND);
  }
}

// Another thread stops a loop by a message to the loop's own client.
TEST_F(LmqThreadTest, SelfNotificationFromAnotherThreadWakesReceiver) {
  LmqClient loop(m_server);
  _cspOsalTime_struct ten_minutes{600, 0};
  Receiver receiver(loop.get(), &ten_minutes);
  ASSERT_TRUE(receiver.blocked());
  char stop[] = "stop";
  lmq_iovec entry{stop, 4};
  ASSERT_EQ(lmqCXNotifySelf(loop.get(), &entry, 1, 0), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  int rc = receiver.result();
  EXPECT_EQ(receiver.data(rc), "stop");
  EXPECT_EQ(receiver.info().reply.kind, LMQ_KIND_SELF);
  EXPECT_EQ(receiver.info().reply.service_id, -1);
}

// A 10-minute timeout ends as soon as the uptime clock is moved by 10
// minutes; wake-ups that do not reach the deadline (a zero move, half of
// the time) neither end the wait nor make it return without a message.
TEST_F(LmqThreadTest, ClockHookEndsLongTimeout) {
  LmqClient client(m_server);
  _cspOsalTime_struct ten_minutes{600, 0};
  _cspOsalTime_struct zero{0, 0};
  _cspOsalTime_struct five_minutes{300, 0};
  Receiver receiver(client.get(), &ten_minutes);
  ASSERT_TRUE(receiver.blocked());

  for (int i = 0; i < 3; i++) ASSERT_EQ(cspOsalTestAdvanceUptime(&zero), 0);
  EXPECT_FALSE(receiver.done_within(20ms));
  ASSERT_EQ(cspOsalTestAdvanceUptime(&five_minutes), 0);
  EXPECT_FALSE(receiver.done_within(20ms));
  ASSERT_TRUE(receiver.blocked());

  ASSERT_EQ(cspOsalTestAdvanceUptime(&five_minutes), 0);
  ASSERT_TRUE(receiver.done_within(10s));
  EXPECT_EQ(receiver.result(), LMQ_TIMEOUT);
  EXPECT_LT(receiver.elapsed(), 10s);
}

// Two threads play command and reply; no wake-up is lost.
TEST_F(LmqThreadTest, CommandReplyPingPong) {
  constexpr uint32_t kRounds = 5000;
  LmqClient server_side(m_server), client_side(m_server);
  ASSERT_EQ(lmqHostService(server_side.get(), m_id, 0), 0);
  std::thread server_thread(
      [&] { testsupport::answer_increments(server_side.get(), kRounds, &kExpectWait); });
  uint32_t value = 0;
  lmq_iovec entry{&value, sizeof(value)};
  for (uint32_t i = 0; i < kRounds; i++) {
    value = i * 2;
    ASSERT_EQ(lmqCXSendCommand(client_side.get(), m_id, &entry, 1, 0), 0);
    lmq_rx_info info{};
    ASSERT_EQ(lmqCXReceive(client_side.get(), &entry, 1, &info, &kExpectWait), 4);
    ASSERT_EQ(value, i * 2 + 1);
    ASSERT_EQ(info.reply.kind, LMQ_KIND_REPLY);
    ASSERT_EQ(info.reply.service_id, m_id);
  }
  server_thread.join();
}

// One thread attaches, hosts, subscribes and detaches clients in a loop
// while another sends commands, notifications and replies to whatever
// it last heard of, and the main thread moves the uptime clock: every
// result is one of the documented ones and nothing is left behind.
TEST_F(LmqThreadTest, AttachDetachWhileOthersSend) {
  LmqClient peer(m_server, 16384);
  ASSERT_EQ(lmqSubscribeService(peer.get(), m_id, 0), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> unexpected{0};

  std::thread churn([&] {
    std::vector<unsigned char> queue(512);
    for (int i = 0; i < 300; i++) {
      lmq_client client{};
      if (lmqClientInit(&client, queue.data(), 512) != 0 ||
          lmqServerAddClient(m_server, &client) != 0 || lmqHostService(&client, m_id, 0) != 0 ||
          lmqSubscribeService(&client, m_id, 0) != 0) {
        unexpected++;
      }
      char buffer[64];
      lmq_iovec entry{buffer, sizeof(buffer)};
      lmq_rx_info info{};
      while (lmqCXReceive(&client, &entry, 1, &info, &kNoWait) > 0) {
      }
      if (i % 2 == 0 && (lmqUnHostService(&client, m_id) != 0 ||
                         lmqUnSubscribeService(&client, m_id) != 0)) {
        unexpected++;
      }
      if (lmqServerRemoveClient(m_server, &client) != 0 || lmqClientRelease(&client) != 0) {
        unexpected++;
      }
    }
    stop = true;
  });

  std::thread sender([&] {
    char text[] = "traffic";
    lmq_iovec out{text, sizeof(text)};
    char buffer[64];
    lmq_iovec in{buffer, sizeof(buffer)};
    lmq_address last{};
    bool have_last = false;
    while (!stop) {
      int rc = lmqCXSendCommand(peer.get(), m_id, &out, 1, 0);
      if (rc != 0 && rc != -113 && rc != -105) unexpected++;
      rc = lmqCXNotify(peer.get(), m_id, &out, 1, 0);
      if (rc != 0 && rc != -105) unexpected++;
      lmq_rx_info info{};
      while (lmqCXReceive(peer.get(), &in, 1, &info, &kNoWait) > 0) {
        last = info.reply;
        have_last = true;
      }
      if (have_last) {
        rc = lmqCXReply(peer.get(), &last, &out, 1, 0);
        if (rc != 0 && rc != -113 && rc != -105) unexpected++;
      }
    }
  });

  _cspOsalTime_struct zero{0, 0};
  while (!stop) {
    ASSERT_EQ(cspOsalTestAdvanceUptime(&zero), 0);
    std::this_thread::yield();
  }
  churn.join();
  sender.join();
  EXPECT_EQ(unexpected.load(), 0);
}

// Receivers with timeouts keep running while the clock moves and a sender
// sends: messages arrive in order between the timeouts.
TEST_F(LmqThreadTest, TimeoutsAndMessagesInterleave) {
  constexpr uint32_t kMessages = 500;
  LmqClient host(m_server), sender(m_server);
  ASSERT_EQ(lmqHostService(host.get(), m_id, 0), 0);
  std::atomic<bool> done{false};
  std::thread receiver([&] {
    _cspOsalTime_struct one_second{1, 0};
    uint32_t expected = 0;
    uint32_t value = 0;
    lmq_iovec entry{&value, sizeof(value)};
    auto start = std::chrono::steady_clock::now();
    while (expected < kMessages && std::chrono::steady_clock::now() - start < 60s) {
      lmq_rx_info info{};
      int rc = lmqCXReceive(host.get(), &entry, 1, &info, &one_second);
      if (rc == LMQ_TIMEOUT) continue;
      if (rc != 4 || value != expected) {
        ADD_FAILURE() << "rc " << rc << " value " << value << " expected " << expected;
        break;
      }
      expected++;
    }
    EXPECT_EQ(expected, kMessages);
    done = true;
  });
  std::thread clock([&] {
    _cspOsalTime_struct step{0, 700000};
    while (!done) {
      cspOsalTestAdvanceUptime(&step);
      std::this_thread::sleep_for(100us);
    }
  });
  for (uint32_t i = 0; i < kMessages; i++) {
    lmq_iovec entry{&i, sizeof(i)};
    ASSERT_EQ(lmqCXSendCommand(sender.get(), m_id, &entry, 1, 0), 0);
    if (i % 16 == 0) std::this_thread::sleep_for(200us);
  }
  receiver.join();
  clock.join();
}

}  // namespace
