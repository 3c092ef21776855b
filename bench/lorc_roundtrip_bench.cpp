// Registry client round trips through a real repository server in this
// process, against raw lmq round trips of the same sizes.
//
// BM_LorcValueSetSync / BM_LorcValueQuerySync: the benchmark's thread
// calls lorc_value_set (20-byte path, 10-byte value) or lorc_value_query
// synchronously; the server ("lorsmain", LORS_OPT_NO_PERSIST) answers.
// Both find the server and the client thread ("lorcmain") idle: the
// calling thread serves its own command (the idle request path), takes
// the set's key update (no subscriber acts on it) and completes its job
// with the reply (the idle reply path), with no thread switch at all.
//
// BM_RawLmqRoundTrip/<request>/<reply>: two threads and lmq alone, with
// messages of the sizes that the registry sends for a set (92 and 62
// bytes) and for a query (82 and 72 bytes): lmqCXSendCommand, lmqCXReceive
// and lmqCXReply, no registry code.
//
// BM_RawLmqViaReceiverThread/92/62: the same with the reply taken by a
// third thread that wakes the caller, as the client thread does.
//
// BM_LorcValueSetAsync64: lorc_value_set with a job callback, keeping 64
// jobs in flight; the callback (on the client thread) frees a slot. One
// iteration is one completed set, so its time compares directly with the
// synchronous figure.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_registry.h"
#include "loreg/lorc.h"
#include "loreg/lors.h"
#include "platform/lmq.h"

namespace {

using benchsupport::kPath;
using benchsupport::kPlain;
using benchsupport::kValue;
constexpr uint32_t kBufferSize = 0x2000;

// A server with its own thread and a client with its own thread, both on a
// fresh lmq server, with the client knowing the server's root.
class Registry {
 public:
  Registry() {
    if (lmqServerCreate(&m_lmq) != 0) return;
    lors_params params{};
    params.lmq_server = m_lmq;
    params.queue_kib = 256;
    params.root_path = "/com/norvi";
    params.options = LORS_OPT_NO_PERSIST;
    if (lors_init(&m_server, &params) != 0) {
      m_server = nullptr;
      return;
    }
    m_client = benchsupport::start_ready_client(m_lmq, 5000);
    m_ok = m_client != nullptr;
  }
  ~Registry() {
    if (m_client != nullptr) lorc_shutdown(m_client);
    if (m_server != nullptr) lors_shutdown(m_server);
    if (m_lmq != nullptr) lmqServerDestroy(m_lmq);
  }
  bool ok() const { return m_ok; }
  lorc_client *client() { return m_client; }

 private:
  lmq_server *m_lmq = nullptr;
  lors_ctx *m_server = nullptr;
  lorc_client *m_client = nullptr;
  bool m_ok = false;
};

void BM_LorcValueSetSync(benchmark::State &state) {
  Registry registry;
  if (!registry.ok()) {
    state.SkipWithError("set-up failed");
    return;
  }
  int failures = 0;
  for (auto _ : state) {
    if (lorc_value_set(registry.client(), 0, kPath, kValue, 10, kPlain, 5) != 0) failures++;
  }
  if (failures != 0) state.SkipWithError("a set failed");
  state.SetItemsProcessed(state.iterations());
}

void BM_LorcValueQuerySync(benchmark::State &state) {
  Registry registry;
  if (!registry.ok()) {
    state.SkipWithError("set-up failed");
    return;
  }
  int failures = 0;
  char buffer[32];
  for (auto _ : state) {
    if (lorc_value_query(registry.client(), 0, kPath, buffer, sizeof buffer, 5) != 10) failures++;
    benchmark::DoNotOptimize(buffer);
  }
  if (failures != 0) state.SkipWithError("a query failed");
  state.SetItemsProcessed(state.iterations());
}

// --- Raw lmq ---------------------------------------------------------------

struct RawPair {
  lmq_server *lmq = nullptr;
  lmq_client host{};
  lmq_client client{};
  std::vector<unsigned char> hostQueue = std::vector<unsigned char>(256 * 1024);
  std::vector<unsigned char> clientQueue = std::vector<unsigned char>(256 * 1024);
  int16_t service = 0;
  bool ok = false;

  RawPair() {
    ok = lmqServerCreate(&lmq) == 0 &&
         lmqClientInit(&host, hostQueue.data(), static_cast<uint32_t>(hostQueue.size())) == 0 &&
         lmqClientInit(&client, clientQueue.data(), static_cast<uint32_t>(clientQueue.size())) ==
             0 &&
         lmqServerAddClient(lmq, &host) == 0 && lmqServerAddClient(lmq, &client) == 0 &&
         lmqRegisterPlainId(lmq, "RAW", 4, &service) == 0 &&
         lmqHostService(&host, service, 0) == 0;
  }
  ~RawPair() {
    lmqUnHostService(&host, service);
    lmqUnRegisterPlainId(lmq, service);
    lmqServerRemoveClient(lmq, &host);
    lmqServerRemoveClient(lmq, &client);
    lmqClientRelease(&host);
    lmqClientRelease(&client);
    lmqServerDestroy(lmq);
  }
};

// The host's side: answer every command with a reply of reply_size bytes,
// until a command of one byte.
void raw_serve(RawPair *pair, uint32_t reply_size, std::atomic<int> *failures) {
  std::vector<unsigned char> buffer(kBufferSize);
  std::vector<unsigned char> reply(reply_size, 0x5A);
  lmq_iovec in{buffer.data(), kBufferSize - 1};
  lmq_iovec out{reply.data(), reply_size};
  for (;;) {
    lmq_rx_info info;
    int rc = lmqCXReceive(&pair->host, &in, 1, &info, nullptr);
    if (rc <= 0) {
      failures->fetch_add(1);
      continue;
    }
    if (info.reply.kind == LMQ_KIND_SYSTEM) continue;
    if (rc == 1) return;
    if (lmqCXReply(&pair->host, &info.reply, &out, 1, 0) != 0) failures->fetch_add(1);
  }
}

void BM_RawLmqRoundTrip(benchmark::State &state) {
  const uint32_t request_size = static_cast<uint32_t>(state.range(0));
  const uint32_t reply_size = static_cast<uint32_t>(state.range(1));
  RawPair pair;
  if (!pair.ok) {
    state.SkipWithError("lmq set-up failed");
    return;
  }
  std::atomic<int> failures{0};
  std::thread host(raw_serve, &pair, reply_size, &failures);
  std::vector<unsigned char> request(request_size, 0xA5);
  std::vector<unsigned char> buffer(kBufferSize);
  lmq_iovec out{request.data(), request_size};
  lmq_iovec in{buffer.data(), kBufferSize - 1};
  for (auto _ : state) {
    if (lmqCXSendCommand(&pair.client, pair.service, &out, 1, 0) != 0) failures++;
    lmq_rx_info info;
    int rc;
    do {
      rc = lmqCXReceive(&pair.client, &in, 1, &info, nullptr);
    } while (rc > 0 && info.reply.kind == LMQ_KIND_SYSTEM);
    if (rc != static_cast<int>(reply_size)) failures++;
    benchmark::DoNotOptimize(buffer.data());
  }
  unsigned char stop = 0;
  lmq_iovec stop_vector{&stop, 1};
  lmqCXSendCommand(&pair.client, pair.service, &stop_vector, 1, 0);
  host.join();
  if (failures.load() != 0) state.SkipWithError("a raw round trip failed");
  state.SetItemsProcessed(state.iterations());
}

// The shape of a synchronous client call with lmq alone: the caller sends
// the command, the host answers to a third thread (the client's receiving
// thread), which hands the reply to the waiting caller through a mutex and
// a condition variable. The registry adds its work to these three hops.
struct Handoff {
  std::mutex mutex;
  std::condition_variable cond;
  uint64_t delivered = 0;
};

void raw_receive(RawPair *pair, Handoff *handoff, std::atomic<int> *failures) {
  std::vector<unsigned char> buffer(kBufferSize);
  lmq_iovec in{buffer.data(), kBufferSize - 1};
  for (;;) {
    lmq_rx_info info;
    int rc = lmqCXReceive(&pair->client, &in, 1, &info, nullptr);
    if (rc <= 0) {
      failures->fetch_add(1);
      continue;
    }
    if (info.reply.kind == LMQ_KIND_SYSTEM) continue;
    if (rc == 1) return;
    std::lock_guard<std::mutex> lock(handoff->mutex);
    handoff->delivered++;
    handoff->cond.notify_one();
  }
}

void BM_RawLmqViaReceiverThread(benchmark::State &state) {
  const uint32_t request_size = static_cast<uint32_t>(state.range(0));
  const uint32_t reply_size = static_cast<uint32_t>(state.range(1));
  RawPair pair;
  if (!pair.ok) {
    state.SkipWithError("lmq set-up failed");
    return;
  }
  std::atomic<int> failures{0};
  Handoff handoff;
  std::thread host(raw_serve, &pair, reply_size, &failures);
  std::thread receiver(raw_receive, &pair, &handoff, &failures);
  std::vector<unsigned char> request(request_size, 0xA5);
  lmq_iovec out{request.data(), request_size};
  uint64_t sent = 0;
  for (auto _ : state) {
    if (lmqCXSendCommand(&pair.client, pair.service, &out, 1, 0) != 0) failures++;
    sent++;
    std::unique_lock<std::mutex> lock(handoff.mutex);
    handoff.cond.wait(lock, [&] { return handoff.delivered == sent; });
  }
  unsigned char stop = 0;
  lmq_iovec stop_vector{&stop, 1};
  lmqCXSendCommand(&pair.client, pair.service, &stop_vector, 1, 0);  // ends the host
  lmqCXNotifySelf(&pair.client, &stop_vector, 1, 0);                 // ends the receiver
  host.join();
  receiver.join();
  if (failures.load() != 0) state.SkipWithError("a raw round trip failed");
  state.SetItemsProcessed(state.iterations());
}

// --- Asynchronous, 64 in flight -----------------------------------------------

struct Window {
  std::mutex mutex;
  std::condition_variable cond;
  int inFlight = 0;
  std::atomic<int> failures{0};
};

void window_callback(lorc_client *, int32_t, int32_t, int32_t result, void *cookie) {
  auto *window = static_cast<Window *>(cookie);
  if (result != 0) window->failures.fetch_add(1);
  std::lock_guard<std::mutex> lock(window->mutex);
  window->inFlight--;
  window->cond.notify_one();
}

void BM_LorcValueSetAsync64(benchmark::State &state) {
  constexpr int kWindow = 64;
  Registry registry;
  if (!registry.ok()) {
    state.SkipWithError("set-up failed");
    return;
  }
  Window window;
  int callback = lorc_job_cb_register(registry.client(), window_callback, &window);
  if (callback <= 0) {
    state.SkipWithError("callback registration failed");
    return;
  }
  int failures = 0;
  for (auto _ : state) {
    {
      std::unique_lock<std::mutex> lock(window.mutex);
      window.cond.wait(lock, [&] { return window.inFlight < kWindow; });
      window.inFlight++;
    }
    if (lorc_value_set(registry.client(), 0, kPath, kValue, 10, kPlain, -callback) <= 0) {
      failures++;
      std::lock_guard<std::mutex> lock(window.mutex);
      window.inFlight--;
    }
  }
  // Drain the window before tearing down (outside the timing: at most 64
  // jobs against many thousands).
  {
    std::unique_lock<std::mutex> lock(window.mutex);
    window.cond.wait(lock, [&] { return window.inFlight == 0; });
  }
  if (failures != 0 || window.failures.load() != 0) state.SkipWithError("a set failed");
  lorc_job_cb_unregister(registry.client(), callback, 1);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_LorcValueSetSync)->UseRealTime();
BENCHMARK(BM_LorcValueQuerySync)->UseRealTime();
BENCHMARK(BM_RawLmqRoundTrip)->Args({92, 62})->Args({82, 72})->UseRealTime();
BENCHMARK(BM_RawLmqViaReceiverThread)->Args({92, 62})->UseRealTime();
BENCHMARK(BM_LorcValueSetAsync64)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
