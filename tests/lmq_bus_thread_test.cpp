// Tests of the lmq bus with several threads: senders on one node, hosts on
// others, membership changing while messages flow, peers coming and going,
// and receivers woken by remote messages and by the uptime clock's test
// hook. All servers live in this process, joined through a real socket.
// Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/csp_osal.h"
#include "platform/lmq.h"
#include "support/bus_fixture.h"
#include "support/lmq_client.h"
#include "support/stamped_message.h"

namespace {

using testsupport::Bus;
using testsupport::bus_command;
using testsupport::bus_empty;
using testsupport::bus_receive;
using testsupport::BusClient;
using testsupport::BusReceived;
using testsupport::BusServer;

constexpr _cspOsalTime_struct kExpectWait{30, 0};

// --- Messages that check themselves ---------------------------------------------

using testsupport::check_stamped_message;
using testsupport::send_stamped_retrying;
using testsupport::Stamp;

std::vector<uint8_t> make_message(uint32_t sender, uint32_t seq) {
  return testsupport::make_stamped_message(sender, seq, 1500u);
}

// Receives kTotal checked messages on one client; per sender in order.
void drain_checked(lmq_client *client, uint32_t total, uint32_t senders,
                   std::vector<uint32_t> *per_sender, std::atomic<int> *failures) {
  std::vector<uint8_t> buffer(8192);
  lmq_iovec entry{buffer.data(), static_cast<uint32_t>(buffer.size())};
  per_sender->assign(senders, 0);
  for (uint32_t n = 0; n < total; n++) {
    lmq_rx_info info{};
    int rc = lmqCXReceive(client, &entry, 1, &info, &kExpectWait);
    Stamp s{};
    if (rc <= 0 || !check_stamped_message(buffer.data(), rc, &s) || s.sender >= senders ||
        s.seq != (*per_sender)[s.sender]) {
      failures->fetch_add(1);
      ADD_FAILURE() << "receive " << rc << " after " << n;
      return;
    }
    (*per_sender)[s.sender]++;
  }
}

// Several threads of one node, each with its own client, send to hosts on
// the hub and on another peer: every host gets every message, whole, and
// per sender in order.
TEST(LmqBusThreadTest, ManySendersAcrossTheBus) {
  constexpr uint32_t kSenders = 4;
  constexpr uint32_t kPerSender = 400;
  Bus bus;
  BusServer &a = bus.add_peer();
  BusServer &b = bus.add_peer();
  BusClient hub_host(bus.hub().get(), 4u << 20), b_host(b.get(), 4u << 20);
  int16_t id = a.register_id("FLOOD");
  ASSERT_EQ(b.register_id("FLOOD"), id);
  ASSERT_EQ(bus.hub().register_id("FLOOD"), id);
  ASSERT_EQ(lmqHostService(hub_host.get(), id, 0), 0);
  ASSERT_EQ(lmqHostService(b_host.get(), id, 0), 0);
  bus.settle();

  std::atomic<int> failures{0};
  std::vector<uint32_t> got_hub, got_b;
  std::thread drain_hub(drain_checked, hub_host.get(), kSenders * kPerSender, kSenders, &got_hub,
                        &failures);
  std::thread drain_b(drain_checked, b_host.get(), kSenders * kPerSender, kSenders, &got_b,
                      &failures);
  std::vector<std::unique_ptr<BusClient>> senders;
  for (uint32_t s = 0; s < kSenders; s++) senders.emplace_back(new BusClient(a.get()));
  std::vector<std::thread> threads;
  for (uint32_t s = 0; s < kSenders; s++) {
    threads.emplace_back([&, s] {
      for (uint32_t i = 0; i < kPerSender; i++) {
        if (send_stamped_retrying(senders[s]->get(), id, make_message(s, i)) != 0) {
          failures.fetch_add(1);
          return;
        }
      }
    });
  }
  for (auto &t : threads) t.join();
  drain_hub.join();
  drain_b.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(got_hub, std::vector<uint32_t>(kSenders, kPerSender));
  EXPECT_EQ(got_b, std::vector<uint32_t>(kSenders, kPerSender));
  bus.settle();
  EXPECT_TRUE(bus_empty(hub_host.get()));
  EXPECT_TRUE(bus_empty(b_host.get()));
}

// Command and reply between threads of two peers, through the hub: no
// wake-up is lost.
TEST(LmqBusThreadTest, CommandReplyPingPongAcrossNodes) {
  constexpr uint32_t kRounds = 2000;
  Bus bus;
  BusServer &a = bus.add_peer();
  BusServer &b = bus.add_peer();
  BusClient server_side(b.get()), client_side(a.get());
  int16_t id = b.register_id("PINGPONG");
  ASSERT_EQ(a.register_id("PINGPONG"), id);
  ASSERT_EQ(lmqHostService(server_side.get(), id, 0), 0);
  bus.settle();

  std::thread server_thread(
      [&] { testsupport::answer_increments(server_side.get(), kRounds, &kExpectWait); });
  uint32_t value = 0;
  lmq_iovec entry{&value, sizeof(value)};
  for (uint32_t i = 0; i < kRounds; i++) {
    value = i * 2;
    ASSERT_EQ(lmqCXSendCommand(client_side.get(), id, &entry, 1, 0), 0);
    lmq_rx_info info{};
    ASSERT_EQ(lmqCXReceive(client_side.get(), &entry, 1, &info, &kExpectWait), 4);
    ASSERT_EQ(value, i * 2 + 1);
    ASSERT_EQ(info.reply.kind, LMQ_KIND_REPLY);
    ASSERT_EQ(info.reply.node, b.node());
  }
  server_thread.join();
}

// A receiver waiting for a remote message is woken by it; one waiting with
// a long timeout ends by the uptime clock's hook as without a bus.
TEST(LmqBusThreadTest, RemoteMessageAndClockHookWakeReceivers) {
  Bus bus;
  BusServer &a = bus.add_peer();
  BusClient waiter(a.get()), idle(a.get()), sender(bus.hub().get());
  int16_t id = bus.hub().register_id("WAKE");
  ASSERT_EQ(a.register_id("WAKE"), id);
  ASSERT_EQ(lmqHostService(waiter.get(), id, 0), 0);
  bus.settle();

  auto woken = std::async(std::launch::async, [&] { return bus_receive(waiter.get()); });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(bus_command(sender.get(), id, "wake up"), 0);
  BusReceived r = woken.get();
  EXPECT_EQ(r.data, "wake up");

  auto timed = std::async(std::launch::async, [&] {
    auto start = std::chrono::steady_clock::now();
    _cspOsalTime_struct five_minutes{300, 0};
    char buffer[64];
    lmq_iovec entry{buffer, sizeof(buffer)};
    lmq_rx_info info{};
    int rc = lmqCXReceive(idle.get(), &entry, 1, &info, &five_minutes);
    return std::make_pair(rc, std::chrono::steady_clock::now() - start);
  });
  _cspOsalTime_struct ten_minutes{600, 0};
  while (timed.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
    ASSERT_EQ(cspOsalTestAdvanceUptime(&ten_minutes), 0);
  }
  auto result = timed.get();
  EXPECT_EQ(result.first, LMQ_TIMEOUT);
  EXPECT_LT(result.second, std::chrono::seconds(10));
}

// One thread of a peer hosts and unhosts again and again while a thread of
// another peer sends commands; a subscriber elsewhere hears of every
// hosting exactly once, and every send gives a documented result.
TEST(LmqBusThreadTest, MembershipChangesWhileMessagesFlow) {
  constexpr int kRounds = 150;
  Bus bus;
  BusServer &a = bus.add_peer();
  BusServer &b = bus.add_peer();
  BusClient host(a.get(), 1u << 20), sender(b.get()), subscriber(bus.hub().get(), 1u << 20);
  int16_t id = a.register_id("CHURN");
  ASSERT_EQ(b.register_id("CHURN"), id);
  ASSERT_EQ(bus.hub().register_id("CHURN"), id);
  ASSERT_EQ(lmqSubscribeService(subscriber.get(), id, 0), 0);
  bus.settle();

  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::atomic<int> delivered{0};
  std::thread churn([&] {
    for (int i = 0; i < kRounds; i++) {
      if (lmqHostService(host.get(), id, 0) != 0) bad.fetch_add(1);
      std::this_thread::yield();
      if (lmqUnHostService(host.get(), id) != 0) bad.fetch_add(1);
    }
    done.store(true);
  });
  std::thread send([&] {
    while (!done.load()) {
      int rc = bus_command(sender.get(), id, "work");
      if (rc == 0) delivered.fetch_add(1);
      if (rc != 0 && rc != -113 && rc != -105) bad.fetch_add(1);
    }
  });
  churn.join();
  send.join();
  EXPECT_EQ(bad.load(), 0);
  bus.settle();

  int present = 0;
  for (;;) {
    BusReceived r = bus_receive(subscriber.get(), 0);
    if (r.rc == LMQ_TIMEOUT) break;
    EXPECT_TRUE(testsupport::is_sysmsg(r, LMQ_SYSMSG_HOST_PRESENT, id, a.node(), host.number()));
    present++;
  }
  EXPECT_EQ(present, kRounds);
  // The host heard of the subscriber at most once per hosting, and got no
  // more commands than were taken.
  int to_host = 0, commands = 0;
  for (;;) {
    BusReceived r = bus_receive(host.get(), 0);
    if (r.rc == LMQ_TIMEOUT) break;
    if (r.info.reply.kind == LMQ_KIND_SYSTEM) to_host++;
    if (r.info.reply.kind == LMQ_KIND_COMMAND) commands++;
  }
  EXPECT_LE(to_host, kRounds);
  EXPECT_LE(commands, delivered.load());
  // In the end nobody hosts.
  EXPECT_EQ(bus_command(sender.get(), id, "late"), -113);
}

// Peers connect, host, send and leave in a loop while a peer that stays
// sends to the service: every result is a documented one, and the hub
// ends with the one peer.
TEST(LmqBusThreadTest, PeersComeAndGoWhileOthersSend) {
  constexpr int kRounds = 20;
  Bus bus;
  BusServer &stay = bus.add_peer();
  BusClient sender(stay.get());
  int16_t id = stay.register_id("VISIT");
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::thread visitor([&] {
    for (int i = 0; i < kRounds; i++) {
      BusServer peer;
      if (peer.connect(bus.path()) != 0) bad.fetch_add(1);
      BusClient host(peer.get());
      if (peer.register_id("VISIT") != id) bad.fetch_add(1);
      if (lmqHostService(host.get(), id, 0) != 0) bad.fetch_add(1);
      BusReceived r = bus_receive(host.get(), 50);
      if (r.rc != LMQ_TIMEOUT && r.rc != 5) bad.fetch_add(1);
      host.remove();
      if (i % 2 == 0 && lmqServerBusClose(peer.get()) != 0) bad.fetch_add(1);
    }  // odd rounds: destroyed while on the bus
    done.store(true);
  });
  while (!done.load()) {
    int rc = bus_command(sender.get(), id, "knock");
    if (rc != 0 && rc != -113 && rc != -105) bad.fetch_add(1);
    std::this_thread::yield();
  }
  visitor.join();
  EXPECT_EQ(bad.load(), 0);
  ASSERT_TRUE(bus.hub_has_peers(1));
  bus.settle();
  EXPECT_EQ(bus_command(sender.get(), id, "anyone"), -113);
}

}  // namespace
