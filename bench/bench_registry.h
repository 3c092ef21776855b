// What the registry benchmarks share: the key they use and a client that
// is ready to send straight to its server.
#ifndef BENCH_BENCH_REGISTRY_H
#define BENCH_BENCH_REGISTRY_H

#include <chrono>
#include <cstdint>
#include <thread>

#include "loreg/lorc.h"
#include "platform/lmq.h"

namespace benchsupport {

constexpr char kPath[] = "/com/norvi/tuner/snr";  // 20 bytes
constexpr char kValue[] = "0123456789";           // 10 bytes
constexpr uint32_t kPlain = 0x30400;

// Starts a client with its own thread on lmq and waits, at most wait_ms,
// until it knows a valid root, so that its commands go straight to the
// server; then sets the benchmark's key once. Returns the client, or null
// (a client that started but did not get ready is shut down).
inline lorc_client *start_ready_client(lmq_server *lmq, int wait_ms) {
  lorc_init_params params{};
  params.lmqServer = lmq;
  params.rcvQueueKBytes = 256;
  lorc_client *client = nullptr;
  if (lorc_init(&client, &params) != 0) return nullptr;
  for (int i = 0; i < wait_ms; i++) {
    char path[64];
    uint32_t flags = 0;
    if (lorc_root_query(client, 0, &flags, path, sizeof path) > 0 &&
        (flags & LORC_ROOT_STALE) == 0) {
      if (lorc_value_set(client, 0, kPath, kValue, 10, kPlain, 5) == 0) return client;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  lorc_shutdown(client);
  return nullptr;
}

}  // namespace benchsupport

#endif
