// Round trip of a registry command and its reply between two threads
// through lmq, against a raw ping-pong of the same bytes between two
// threads with a mutex and a condition variable.
//
// BM_LoregRoundTrip: the client thread (the benchmark's) sends a value-set
// command (20-byte path, 10-byte value) with loreg_send_command; a server
// thread receives it with lmqCXReceive into a 0x2000-byte buffer, validates
// it and answers with loreg_send_reply; the client receives and validates
// the reply.
//
// BM_RawPingPong: the same two threads, the same request and reply sizes;
// each side copies its bytes into a shared slot, signals and waits.
//
// Both report allocs_per_rt, the heap allocations per round trip (counted
// by support/malloc_counter.h; -1 in sanitizer builds).
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "loreg/loreg_lmq.h"
#include "loreg/loreg_msg.h"
#include "platform/lmq.h"
#include "support/malloc_counter.h"

namespace {

constexpr char kValue[] = "0123456789";            // 10 bytes
constexpr char kPath[] = "/com/norvi/tuner/snr";   // 20 bytes
constexpr uint32_t kRequestSize = LOREG_MSG_MIN_SIZE + 10 + 20;
constexpr uint32_t kReplySize = LOREG_MSG_MIN_SIZE;
constexpr uint32_t kBufferSize = 0x2000;

loreg_msg make_request(uint32_t reqid) {
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

void report_allocations(benchmark::State &state, const testsupport::MallocCounter &counter) {
  double per_rt = -1.0;
  if (testsupport::kMallocCounting && state.iterations() > 0) {
    per_rt = static_cast<double>(counter.allocs() + counter.frees()) /
             static_cast<double>(state.iterations());
  }
  state.counters["allocs_per_rt"] = per_rt;
}

// The server's side: receive, validate, reply, until a stop command.
void serve(loreg_lmq_ctx *host, uint8_t *buffer, std::atomic<uint64_t> *failures) {
  lmq_iovec vector{buffer, kBufferSize - 1};
  for (;;) {
    lmq_rx_info info;
    if (lmqCXReceive(host->client, &vector, 1, &info, nullptr) <= 0) {
      failures->fetch_add(1);
      continue;
    }
    if (info.reply.kind == LMQ_KIND_SYSTEM) continue;
    loreg_msg msg;
    if (loreg_validate_msg(&msg, buffer, kBufferSize, &info) != 0) {
      failures->fetch_add(1);
      continue;
    }
    if (msg.header.msgtype == LOREG_MSG_STOP) return;
    msg.header.msgtype = LOREG_MSG_REPLY_TYPE(msg.header.msgtype);
    msg.header.result = 0;
    msg.header.len0 = 0;
    msg.header.len1 = 0;
    if (loreg_send_reply(host->client, &msg, &info.reply) != 0) failures->fetch_add(1);
  }
}

void BM_LoregRoundTrip(benchmark::State &state) {
  lmq_server *server = nullptr;
  loreg_lmq_ctx host;
  loreg_lmq_ctx client;
  if (lmqServerCreate(&server) != 0 ||
      loreg_lmq_init(&host, nullptr, server, nullptr, 0, 1) != 0 ||
      loreg_lmq_init(&client, nullptr, server, nullptr, 0, 0) != 0) {
    state.SkipWithError("lmq set-up failed");
    return;
  }
  std::atomic<uint64_t> failures{0};
  std::vector<uint8_t> server_buffer(kBufferSize);
  std::thread server_thread(serve, &host, server_buffer.data(), &failures);

  std::vector<uint8_t> buffer(kBufferSize);
  lmq_iovec vector{buffer.data(), kBufferSize - 1};
  uint32_t reqid = 0;
  testsupport::MallocCounter counter;
  for (auto _ : state) {
    loreg_msg request = make_request(++reqid);
    if (loreg_send_command(client.client, host.service_id, &request) != 0) failures++;
    lmq_rx_info info;
    int rc;
    do {
      rc = lmqCXReceive(client.client, &vector, 1, &info, nullptr);
    } while (rc > 0 && info.reply.kind == LMQ_KIND_SYSTEM);
    loreg_msg reply;
    if (rc <= 0 || loreg_validate_msg(&reply, buffer.data(), kBufferSize, &info) != 0 ||
        reply.header.reqid != reqid) {
      failures++;
    }
    benchmark::DoNotOptimize(reply);
  }
  counter.stop();
  report_allocations(state, counter);

  loreg_msg stop;
  std::memset(&stop, 0, sizeof stop);
  stop.header.msgtype = LOREG_MSG_STOP;
  loreg_send_command(client.client, host.service_id, &stop);
  server_thread.join();
  loreg_lmq_shutdown(&client, nullptr);
  loreg_lmq_shutdown(&host, nullptr);
  lmqServerDestroy(server);
  if (failures.load() != 0) state.SkipWithError("a round trip failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (kRequestSize + kReplySize));
}

// A slot shared by two threads: the client puts a request, the server
// takes it and puts the reply.
struct PingPong {
  enum State { kIdle, kRequest, kReply, kStop };
  std::mutex mutex;
  std::condition_variable cond;
  State state = kIdle;
  uint32_t size = 0;
  unsigned char slot[kBufferSize];
};

void pong(PingPong *pp) {
  unsigned char request[kBufferSize];
  unsigned char reply[kReplySize];
  std::memset(reply, 0x5A, sizeof reply);
  std::unique_lock<std::mutex> lock(pp->mutex);
  for (;;) {
    pp->cond.wait(lock, [&] { return pp->state == PingPong::kRequest || pp->state == PingPong::kStop; });
    if (pp->state == PingPong::kStop) return;
    std::memcpy(request, pp->slot, pp->size);
    benchmark::DoNotOptimize(request);
    std::memcpy(pp->slot, reply, sizeof reply);
    pp->size = sizeof reply;
    pp->state = PingPong::kReply;
    pp->cond.notify_all();
  }
}

void BM_RawPingPong(benchmark::State &state) {
  PingPong pp;
  std::thread server_thread(pong, &pp);
  unsigned char request[kRequestSize];
  unsigned char reply[kBufferSize];
  std::memset(request, 0xA5, sizeof request);
  testsupport::MallocCounter counter;
  for (auto _ : state) {
    std::unique_lock<std::mutex> lock(pp.mutex);
    std::memcpy(pp.slot, request, sizeof request);
    pp.size = sizeof request;
    pp.state = PingPong::kRequest;
    pp.cond.notify_all();
    pp.cond.wait(lock, [&] { return pp.state == PingPong::kReply; });
    std::memcpy(reply, pp.slot, pp.size);
    pp.state = PingPong::kIdle;
    benchmark::DoNotOptimize(reply);
  }
  counter.stop();
  report_allocations(state, counter);
  {
    std::lock_guard<std::mutex> lock(pp.mutex);
    pp.state = PingPong::kStop;
    pp.cond.notify_all();
  }
  server_thread.join();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (kRequestSize + kReplySize));
}

BENCHMARK(BM_LoregRoundTrip)->UseRealTime();
BENCHMARK(BM_RawPingPong)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
