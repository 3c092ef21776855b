// Bulk jobs given up while the client thread works on them: a cancel, or a
// synchronous wait that expires, must leave the client thread no longer
// touching the job's container once it has returned, while key updates for
// the awaited keys keep arriving.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/lorc_notify_helpers.h"

namespace {

using testsupport::ClientFixture;

constexpr uint32_t kCreate = 0x30400;

TEST(LorcBulkThread, CancelledJobsContainersAreLeftAloneWhileUpdatesFlow) {
  ClientFixture f;
  // The rounds below start bulk jobs as fast as they can, with no wait for
  // the server: queues big enough for all of them, since a full queue is
  // not what this test is about.
  testsupport::ServerSetup server;
  server.queue_kib = 256;
  testsupport::ClientSetup client;
  client.queue_kib = 256;
  ASSERT_EQ(f.add_server(server), 0);
  ASSERT_EQ(f.add_client(client), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(f.wait_roots(0, 1));
  ASSERT_EQ(lorc_value_set(c, 0, "/com/norvi/bx/", "", 0, kCreate, 5), 0);

  std::atomic<bool> stop{false};
  std::atomic<int> errors{0};
  std::thread updater([&] {
    for (int i = 0; !stop.load(); i++) {
      std::string v = std::to_string(i);
      if (lorc_value_set(c, 0, "/com/norvi/bt/w1", v.data(), static_cast<uint32_t>(v.size()),
                         kCreate, 5) != 0)
        errors++;
    }
  });

  for (int round = 0; round < 200; round++) {
    lorkc_container *keys = lorkc_create(4096, nullptr);
    ASSERT_NE(keys, nullptr);
    lorc_key_struct k1{"/com/norvi/bt/w1", LORC_BULKOP_WAITUPDATE, nullptr, 0};
    lorc_key_struct k2{"/com/norvi/bt/w2", LORC_BULKOP_WAITUPDATE, nullptr, 0};
    // A transaction elsewhere, so that the updates are not held up by it.
    lorc_key_struct k3{"/com/norvi/bx/s", LORC_BULKOP_SET | kCreate, "x", 1};
    lorc_key_struct k4{"/com/norvi/bx/", LORC_BULKOP_TRANSACTION, nullptr, 0};
    ASSERT_EQ(lorkc_insert(keys, &k1), 0);
    ASSERT_EQ(lorkc_insert(keys, &k2), 0);
    ASSERT_EQ(lorkc_insert(keys, &k3), 0);
    ASSERT_EQ(lorkc_insert(keys, &k4), 0);
    int job = lorc_bulk_operation(c, keys, 0);
    ASSERT_GT(job, 0);
    // Let the job get going for a while in some rounds.
    if (round % 4 != 0) std::this_thread::yield();
    EXPECT_EQ(lorc_job_cancel(c, job), 0);
    // The container is the caller's again: change it, then destroy it.
    lorkc_it it;
    if (lorkc_it_first(keys, &it) == 1) lorkc_it_chflags(&it, 0);
    lorkc_destroy(keys);
  }
  stop = true;
  updater.join();
  EXPECT_EQ(errors.load(), 0);
  ASSERT_TRUE(f.sync());
}

}  // namespace
