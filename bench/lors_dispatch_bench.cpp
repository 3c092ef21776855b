// One request through the repository server's dispatch, on a tree of
// 100,000 keys: 1000 directories under the root with 100 keys each.
//
// The server runs without a thread of its own; the benchmark calls
// lors_dispatch_msg directly with a message built beforehand, as the
// receive loop would after validation. The reply goes into a client's lmq
// queue, which is drained with the timing paused every 256 requests so
// that it never fills. Requests cycle through 1024 keys spread over the
// whole tree, so that each search walks a directory list of 1000 entries
// and a key list of 100 (the lists are searched linearly).
//
// BM_ValueQuery:          type 0x0001 on an existing key.
// BM_ValueSetUnchanged:   type 0x0002 (0x30400) with the key's own value:
//                         search, log decision, broadcast (no subscriber),
//                         reply; no allocation.
// BM_ValueSetChanged:     the same with the value alternating between two
//                         texts, so that every set replaces the key's node.
//
// Each reports allocs_per_op, the heap allocations and frees per request
// (-1 in sanitizer builds).
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "loreg/loreg_msg.h"
#include "loreg/lors.h"
#include "platform/lmq.h"
#include "support/malloc_counter.h"

namespace {

constexpr int kDirs = 1000;
constexpr int kKeysPerDir = 100;
constexpr int kSpread = 1024;  // distinct keys the requests cycle through
constexpr int kDrainEvery = 256;
constexpr uint32_t kBufferSize = LORS_MSG_BUFFER_SIZE;

// A request as validation leaves it: header in host order, data0 and data1
// pointing at terminated texts.
struct Request {
  std::string path;
  std::string value;
  loreg_msg msg{};

  Request(uint16_t type, uint32_t arg0, std::string p, std::string v)
      : path(std::move(p)), value(std::move(v)) {
    msg.header.msgtype = type;
    msg.header.reqid = 1;
    msg.header.arg0 = arg0;
    msg.header.len0 = static_cast<uint16_t>(value.size());
    msg.header.len1 = static_cast<uint16_t>(path.size());
    msg.data0 = value.data();
    msg.data1 = path.data();
  }
  Request(const Request &) = delete;
  Request &operator=(const Request &) = delete;
};

std::string KeyPath(int dir, int key) {
  char path[64];
  std::snprintf(path, sizeof(path), "/com/norvi/dir%04d/key%03d", dir, key);
  return path;
}

// The server, its lmq client, and the client that receives the replies.
class Bench {
 public:
  Bench() {
    char templ[] = "/tmp/lors_dispatch_bench.XXXXXX";
    if (mkdtemp(templ) != nullptr) m_dir = templ;
    m_file0 = m_dir + "/loreg0.dat";
    m_file1 = m_dir + "/loreg1.dat";
    lmqServerCreate(&m_lmq);
    lmqClientInit(&m_server_client, m_server_queue.data(), static_cast<uint32_t>(m_server_queue.size()));
    lmqServerAddClient(m_lmq, &m_server_client);
    lmqClientInit(&m_client, m_client_queue.data(), static_cast<uint32_t>(m_client_queue.size()));
    lmqServerAddClient(m_lmq, &m_client);

    lors_fio fio = g_lors_default_fio;
    fio.file0 = m_file0.c_str();
    fio.file1 = m_file1.c_str();
    lors_params params{};
    params.lmq_server = m_lmq;
    params.lmq_client = &m_server_client;
    params.options = LORS_OPT_NO_PERSIST;
    params.fio = &fio;
    m_ok = lors_init(&m_server, &params) == 0;

    m_info.reply = Address();
    m_info.reply.service_id = lors_get_service_id(m_server);
    m_info.reply.kind = LMQ_KIND_COMMAND;

    // The tree, through the same dispatch.
    for (int dir = 0; m_ok && dir < kDirs; dir++) {
      for (int key = 0; key < kKeysPerDir; key++) {
        Request set(LOREG_MSG_VALUE_SET, 0x30400, KeyPath(dir, key), Value(dir, key, 0));
        if (lors_dispatch_msg(m_server, &set.msg, &m_info) != 0) m_ok = false;
        if (Drain() != 1) m_ok = false;
      }
    }
  }

  ~Bench() {
    if (m_server != nullptr) lors_shutdown(m_server);
    lmqServerRemoveClient(m_lmq, &m_client);
    lmqClientRelease(&m_client);
    lmqServerRemoveClient(m_lmq, &m_server_client);
    lmqClientRelease(&m_server_client);
    lmqServerDestroy(m_lmq);
    if (!m_dir.empty()) {
      std::remove(m_file0.c_str());
      std::remove(m_file1.c_str());
      std::remove(m_dir.c_str());
    }
  }

  static std::string Value(int dir, int key, int generation) {
    char value[32];
    std::snprintf(value, sizeof(value), "%c-value-%d-%d", generation ? 'b' : 'a', dir, key);
    return value;
  }

  // The i-th key of the cycle: spread over all directories and positions.
  static void Spread(int i, int *dir, int *key) {
    *dir = (i * 397) % kDirs;
    *key = (i * 31 + i / kDirs) % kKeysPerDir;
  }

  // Takes every reply queued for the client; returns how many, or -1 if
  // one of them reports a failure.
  int Drain() {
    int n = 0;
    bool failed = false;
    const _cspOsalTime_struct now = {0, 0};
    for (;;) {
      lmq_iovec vector{m_buffer, kBufferSize - 1};
      lmq_rx_info info;
      if (lmqCXReceive(&m_client, &vector, 1, &info, &now) <= 0) break;
      loreg_msg msg;
      if (loreg_validate_msg(&msg, m_buffer, kBufferSize, &info) != 0 || msg.header.result != 0) {
        failed = true;
      }
      n++;
    }
    return failed ? -1 : n;
  }

  bool ok() const { return m_ok; }
  lors_ctx *server() { return m_server; }
  const lmq_rx_info *info() const { return &m_info; }

 private:
  lmq_address Address() {
    lmq_address address{};
    lmqClientAddress(&m_client, &address);
    return address;
  }

  std::string m_dir, m_file0, m_file1;
  lmq_server *m_lmq = nullptr;
  lmq_client m_server_client{};
  lmq_client m_client{};
  std::vector<unsigned char> m_server_queue = std::vector<unsigned char>(64 * 1024);
  std::vector<unsigned char> m_client_queue = std::vector<unsigned char>(256 * 1024);
  unsigned char m_buffer[kBufferSize];
  lors_ctx *m_server = nullptr;
  lmq_rx_info m_info{};
  bool m_ok = false;
};

Bench &Shared() {
  static Bench bench;
  return bench;
}

void Report(benchmark::State &state, const testsupport::MallocCounter &counter) {
  double per_op = -1.0;
  if (testsupport::kMallocCounting && state.iterations() > 0) {
    per_op = static_cast<double>(counter.allocs() + counter.frees()) /
             static_cast<double>(state.iterations());
  }
  state.counters["allocs_per_op"] = per_op;
  state.counters["keys"] = static_cast<double>(kDirs * kKeysPerDir);
}

// Runs requests[i % size] through the dispatch, draining replies aside.
void Run(benchmark::State &state, std::vector<std::unique_ptr<Request>> *batches[], int n_batches) {
  Bench &b = Shared();
  if (!b.ok()) {
    state.SkipWithError("server or tree could not be set up");
    return;
  }
  b.Drain();
  size_t i = 0;
  int batch = 0;
  int pending = 0;
  bool failed = false;
  testsupport::MallocCounter counter;
  for (auto _ : state) {
    Request &r = *(*batches[batch])[i];
    if (lors_dispatch_msg(b.server(), &r.msg, b.info()) != 0) failed = true;
    if (++i == kSpread) {
      i = 0;
      batch = (batch + 1) % n_batches;
    }
    if (++pending == kDrainEvery) {
      state.PauseTiming();
      if (b.Drain() != pending) failed = true;
      pending = 0;
      state.ResumeTiming();
    }
  }
  Report(state, counter);
  if (b.Drain() != pending) failed = true;
  if (failed) state.SkipWithError("a request failed or a reply is missing");
}

std::vector<std::unique_ptr<Request>> Requests(uint16_t type, int generation) {
  std::vector<std::unique_ptr<Request>> out;
  for (int i = 0; i < kSpread; i++) {
    int dir, key;
    Bench::Spread(i, &dir, &key);
    uint32_t arg0 = type == LOREG_MSG_VALUE_SET ? 0x30400u : 0u;
    std::string value = type == LOREG_MSG_VALUE_SET ? Bench::Value(dir, key, generation) : "";
    out.push_back(std::make_unique<Request>(type, arg0, KeyPath(dir, key), value));
  }
  return out;
}

void BM_ValueQuery(benchmark::State &state) {
  auto queries = Requests(LOREG_MSG_VALUE_QUERY, 0);
  std::vector<std::unique_ptr<Request>> *batches[] = {&queries};
  Run(state, batches, 1);
}

void BM_ValueSetUnchanged(benchmark::State &state) {
  // Make sure the keys hold the generation that is set.
  auto sets = Requests(LOREG_MSG_VALUE_SET, 0);
  for (auto &r : sets) lors_dispatch_msg(Shared().server(), &r->msg, Shared().info());
  Shared().Drain();
  std::vector<std::unique_ptr<Request>> *batches[] = {&sets};
  Run(state, batches, 1);
}

void BM_ValueSetChanged(benchmark::State &state) {
  // The keys start in generation 0 and the two batches alternate, so
  // every set changes the value.
  auto first = Requests(LOREG_MSG_VALUE_SET, 1);
  auto second = Requests(LOREG_MSG_VALUE_SET, 0);
  for (auto &r : second) lors_dispatch_msg(Shared().server(), &r->msg, Shared().info());
  Shared().Drain();
  std::vector<std::unique_ptr<Request>> *batches[] = {&first, &second};
  Run(state, batches, 2);
}

BENCHMARK(BM_ValueQuery);
BENCHMARK(BM_ValueSetUnchanged);
BENCHMARK(BM_ValueSetChanged);

}  // namespace

BENCHMARK_MAIN();
