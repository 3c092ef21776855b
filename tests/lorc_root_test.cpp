// Tests of the client's root path tracking: the table of server roots, its
// validity, and what commands and subscribers make of it, against real
// servers and with key updates fed to a client in the external mode.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "loreg/lorc.h"
#include "loreg/lorc_client.h"
#include "loreg/lors.h"
#include "support/client_fixture.h"
#include "support/log_capture.h"
#include "support/lorc_notify_helpers.h"
#include "support/test_allocator.h"

namespace {

using testsupport::BulkKeys;
using testsupport::ClientFixture;
using testsupport::ServerSetup;
using testsupport::ClientSetup;
using testsupport::complete_job;
using testsupport::inject_key_update;
using testsupport::LogCapture;
using testsupport::NotifyRecorder;
using testsupport::server_address;
using testsupport::TestAllocator;

constexpr uint32_t kRootFlags = 0x28;  // KEYF_ROOT | KEYF_DIR, as a root announces itself

void advance_seconds(int64_t sec, int32_t usec = 0) {
  _cspOsalTime_struct delta = {sec, usec};
  ASSERT_EQ(cspOsalTestAdvanceUptime(&delta), 0);
}

ClientSetup external_client(const loreg_allocator *allocator = nullptr) {
  ClientSetup options;
  options.external = true;
  options.allocator = allocator;
  return options;
}

ServerSetup server_spec(const char *root, bool own_thread = true,
                             uint32_t options = LORS_OPT_NO_PERSIST) {
  ServerSetup server;
  server.root_path = root;
  server.own_thread = own_thread;
  server.options = options;
  return server;
}

std::string root_path_at(lorc_client *client, int32_t index) {
  char buffer[256];
  int rc = lorc_root_get_path(client, index, nullptr, nullptr, buffer, sizeof buffer);
  return rc >= 0 ? std::string(buffer, static_cast<size_t>(rc))
                 : std::string("<") + std::to_string(rc) + ">";
}

_cspOsalTime_struct root_updated(lorc_client *client, int32_t index) {
  _cspOsalTime_struct t = {0, 0};
  EXPECT_EQ(lorc_root_get_path(client, index, nullptr, &t, nullptr, 0), 0);
  return t;
}

int count_roots(lorc_client *client) {
  int n = 0;
  while (lorc_root_get_path(client, n, nullptr, nullptr, nullptr, 0) == 0) n++;
  return n;
}

// --- Validity --------------------------------------------------------------

TEST(LorcRootValidity, ExactlyOneHundredTwentySevenSecondsIsStillValid) {
  _cspOsalTime_struct updated = {1000, 250000};
  _cspOsalTime_struct now = {1127, 250000};
  EXPECT_NE(lorc_root_is_valid(&updated, &now), 0);
  now = {1127, 250001};
  EXPECT_EQ(lorc_root_is_valid(&updated, &now), 0);
  now = {1000, 250000};
  EXPECT_NE(lorc_root_is_valid(&updated, &now), 0);
  now = {999, 0};  // an announcement "from the future" is valid as well
  EXPECT_NE(lorc_root_is_valid(&updated, &now), 0);
  now = {1128, 0};
  EXPECT_EQ(lorc_root_is_valid(&updated, &now), 0);
}

TEST(LorcRootValidity, CountValidNeedsTheCurrentTime) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  EXPECT_EQ(lorc_root_count_valid(f.client(), nullptr), -22);
  EXPECT_TRUE(log.has_line("lorc_root_count_valid(): current time missing (pNow == NULL).\n"))
      << log.dump();
}

// --- The table, fed with key updates ------------------------------------

TEST(LorcRootTable, AnnouncementCreatesARootAndTellsSubscribersTwice) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/r/", &rec), 0);

  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_ADD, kRootFlags, "/r/", "v", 5), 0);

  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(root_path_at(c, 0), "/r/");
  uint32_t flags = 0;
  EXPECT_EQ(lorc_root_get_path(c, 0, &flags, nullptr, nullptr, 0), 0);
  EXPECT_EQ(flags, kRootFlags);

  // Once as "server available" (tid 0), once with its own reason.
  auto calls = rec.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].reason, LOREG_REASON_SERVER_AVAILABLE);
  EXPECT_EQ(calls[0].item_path, "/r/");
  EXPECT_EQ(calls[0].tid, 0);
  EXPECT_EQ(calls[0].value, "v");
  EXPECT_EQ(calls[1].reason, LOREG_REASON_KEY_ADD);
  EXPECT_EQ(calls[1].tid, 5);
}

TEST(LorcRootTable, RenewalUpdatesTimeFlagsAndSenderWithoutTellingSubscribers) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/r/x", &rec), 0);

  ASSERT_EQ(
      inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/r/", "", 0, server_address(11)),
      0);
  _cspOsalTime_struct first = root_updated(c, 0);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_AVAILABLE), 1u);

  advance_seconds(10);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_CHANGE, kRootFlags | 0x04, "/r/", "", 0,
                              server_address(12)),
            0);
  _cspOsalTime_struct second = root_updated(c, 0);
  EXPECT_GE(second.sec - first.sec, 10);
  uint32_t flags = 0;
  ASSERT_EQ(lorc_root_get_path(c, 0, &flags, nullptr, nullptr, 0), 0);
  EXPECT_EQ(flags, kRootFlags | 0x04);
  lmq_address txid{};
  ASSERT_EQ(lorc_root_get_txid(c, "/r/x/y", &txid, nullptr), 0);
  EXPECT_EQ(txid.client, 12u);

  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_AVAILABLE), 1u);

  // Another reason for a known root changes nothing.
  advance_seconds(3);
  ASSERT_EQ(
      inject_key_update(c, LOREG_REASON_TA_START, kRootFlags, "/r/", "", 0, server_address(13)), 0);
  _cspOsalTime_struct third = root_updated(c, 0);
  EXPECT_EQ(third.sec, second.sec);
  EXPECT_EQ(third.usec, second.usec);
  ASSERT_EQ(lorc_root_get_txid(c, "/r/", &txid, nullptr), 0);
  EXPECT_EQ(txid.client, 12u);
}

TEST(LorcRootTable, UpdateWithoutRootBitLeavesTheTableUnchanged) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/", &rec), 0);

  // A new path without bit 5: no root.
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_ADD, 0x0C, "/n/"), 0);
  EXPECT_EQ(count_roots(c), 0);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_AVAILABLE), 0u);

  // A known root: neither renewed nor removed by updates without bit 5.
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/r/"), 0);
  _cspOsalTime_struct before = root_updated(c, 0);
  advance_seconds(5);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_CHANGE, 0x0C, "/r/"), 0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_DELETE, 0x0C, "/r/"), 0);
  EXPECT_EQ(count_roots(c), 1);
  _cspOsalTime_struct after = root_updated(c, 0);
  EXPECT_EQ(after.sec, before.sec);
  EXPECT_EQ(after.usec, before.usec);
  uint32_t flags = 0;
  ASSERT_EQ(lorc_root_get_path(c, 0, &flags, nullptr, nullptr, 0), 0);
  EXPECT_EQ(flags, kRootFlags);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_GONE), 0u);
}

TEST(LorcRootTable, DeleteOfAKnownRootRemovesItAndTellsServerGone) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/r/a/b", &rec), 0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/q/"), 0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/r/"), 0);
  ASSERT_EQ(count_roots(c), 2);
  rec.clear();

  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_DELETE, kRootFlags, "/r/", "", 9), 0);
  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(root_path_at(c, 0), "/q/");
  auto gone = rec.calls(LOREG_REASON_SERVER_GONE);
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(gone[0].item_path, "/r/");
  EXPECT_EQ(gone[0].tid, 0);
  EXPECT_EQ(gone[0].sub_path, "/r/a/b");
  // The deletion itself (a directory key) reaches the subscriber below it too.
  EXPECT_EQ(rec.count(LOREG_REASON_KEY_DELETE), 1u);
  EXPECT_EQ(rec.count(), 2u);
}

TEST(LorcRootTable, DeleteOfAnUnknownRootDoesNothing) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/", &rec), 0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/q/"), 0);
  rec.clear();

  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_DELETE, kRootFlags, "/r/"), 0);
  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(root_path_at(c, 0), "/q/");
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_GONE), 0u);
  // Only the subscribers' own delivery of the deletion took place.
  ASSERT_EQ(rec.count(), 1u);
  EXPECT_EQ(rec.calls()[0].reason, LOREG_REASON_KEY_DELETE);
}

TEST(LorcRootTable, FailedAllocationCostsTheEntryNotTheAnnouncement) {
  LogCapture log;
  TestAllocator alloc;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client(alloc.handle())), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/", &rec), 0);

  alloc.fail_at(1);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/rootpath/"), 0);
  EXPECT_TRUE(alloc.failed());
  alloc.disarm();
  const std::string line = "lorc_root_create(): failed to alloc " +
                           std::to_string(sizeof(lorc_root_node) + strlen("/rootpath/") + 1) +
                           " bytes for new root path node\n";
  EXPECT_TRUE(log.has_line(line)) << log.dump();
  EXPECT_EQ(count_roots(c), 0);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_AVAILABLE), 1u);

  // The next announcement creates it.
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/rootpath/"), 0);
  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_AVAILABLE), 2u);

  ASSERT_EQ(f.stop_client(0), 0);
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST(LorcRootTable, GetPathCountsStaleRootsAndCutsToTheBuffer) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();

  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/abcdef"), 0);
  advance_seconds(100);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags | 0x04, "/x/"), 0);
  advance_seconds(30);  // the first root is 130 s old now, the second 30 s

  _cspOsalTime_struct now;
  ASSERT_EQ(cspOsalGetUptime(&now), 0);
  EXPECT_EQ(lorc_root_count_valid(c, &now), 1);

  // The count of lorc_root_get_path is that of all nodes, stale ones included.
  char buffer[8];
  EXPECT_EQ(lorc_root_get_path(c, 2, nullptr, nullptr, buffer, sizeof buffer), -2);
  EXPECT_EQ(lorc_root_get_path(c, 1, nullptr, nullptr, buffer, sizeof buffer), 3);
  EXPECT_STREQ(buffer, "/x/");

  std::memset(buffer, 'Z', sizeof buffer);
  uint32_t flags = 0;
  _cspOsalTime_struct updated = {0, 0};
  EXPECT_EQ(lorc_root_get_path(c, 0, &flags, &updated, buffer, 4), 3);
  EXPECT_EQ(std::string(buffer, 4), std::string("/ab\0", 4));
  EXPECT_EQ(buffer[4], 'Z');
  EXPECT_EQ(flags, kRootFlags);
  EXPECT_EQ(lorc_root_is_valid(&updated, &now), 0);

  // Without a buffer: 0, and only the outputs.
  EXPECT_EQ(lorc_root_get_path(c, 0, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(lorc_root_get_path(c, 0, nullptr, nullptr, buffer, 1), 0);
  EXPECT_EQ(buffer[0], '\0');

  // The public form marks the stale root.
  flags = 0;
  EXPECT_EQ(lorc_root_query(c, 0, &flags, buffer, sizeof buffer), 7);
  EXPECT_EQ(flags, kRootFlags | LORC_ROOT_STALE);
  flags = 0;
  EXPECT_EQ(lorc_root_query(c, 1, &flags, buffer, sizeof buffer), 3);
  EXPECT_EQ(flags, kRootFlags | 0x04);
  EXPECT_EQ(lorc_root_query(c, 2, &flags, buffer, sizeof buffer), -2);
}

TEST(LorcRootTable, GetPathRefusesBadArguments) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/r/"), 0);

  EXPECT_EQ(lorc_root_get_path(c, -1, nullptr, nullptr, nullptr, 0), -22);
  EXPECT_TRUE(log.has_line("lorc_root_get_path(): invalid index -1\n")) << log.dump();
  EXPECT_EQ(lorc_root_get_path(c, 0, nullptr, nullptr, nullptr, 4), -22);
  EXPECT_TRUE(log.has_line("lorc_root_get_path(): invalid buffer given.\n")) << log.dump();
}

TEST(LorcRootTable, TxidLookupNeedsARootCoveringThePath) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  ASSERT_EQ(
      inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/a/b/", "", 0, server_address(21)),
      0);
  ASSERT_EQ(
      inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/c/", "", 0, server_address(22)),
      0);

  lmq_address txid{};
  _cspOsalTime_struct updated = {0, 0};
  EXPECT_EQ(lorc_root_get_txid(c, "/a/b/k", &txid, &updated), 0);
  EXPECT_EQ(txid.client, 21u);
  EXPECT_GT(updated.sec + updated.usec, 0);
  EXPECT_EQ(lorc_root_get_txid(c, "/c/k", &txid, nullptr), 0);
  EXPECT_EQ(txid.client, 22u);
  EXPECT_EQ(lorc_root_get_txid(c, "/c/", nullptr, nullptr), 0);
  // A path above a root or beside it has no owner.
  EXPECT_EQ(lorc_root_get_txid(c, "/a/", &txid, nullptr), -2);
  EXPECT_EQ(lorc_root_get_txid(c, "/c", &txid, nullptr), -2);
  EXPECT_EQ(lorc_root_get_txid(c, "/d/k", &txid, nullptr), -2);
}

TEST(LorcRootTable, NextMatchFindsRootsAboveAndBelowThePath) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  // Deeper first: an announcement below a known root renews that root.
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/a/b/c/d/"), 0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/x/"), 0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/a/b/"), 0);
  ASSERT_EQ(count_roots(c), 3);

  lstr path;
  lstr_cinit(&path, "/a/b/c/");
  ASSERT_EQ(pthread_mutex_lock(&c->mutex), 0);
  lorc_root_node *first = lorc_root_findNextMatch_nolock(c, nullptr, &path);
  lorc_root_node *second = first ? lorc_root_findNextMatch_nolock(c, first, &path) : nullptr;
  lorc_root_node *third = second ? lorc_root_findNextMatch_nolock(c, second, &path) : nullptr;
  lstr other;
  lstr_cinit(&other, "/y");
  lorc_root_node *none = lorc_root_findNextMatch_nolock(c, nullptr, &other);
  pthread_mutex_unlock(&c->mutex);

  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->path.ptr, "/a/b/c/d/");  // below the path
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second->path.ptr, "/a/b/");  // above it
  EXPECT_EQ(third, nullptr);
  EXPECT_EQ(none, nullptr);
}

TEST(LorcRootTable, AnnouncementBelowAKnownRootRenewsThatRoot) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(external_client()), 0);
  lorc_client *c = f.client();
  ASSERT_EQ(
      inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags, "/a/", "", 0, server_address(31)),
      0);
  ASSERT_EQ(inject_key_update(c, LOREG_REASON_KEY_UPDATE, kRootFlags | 0x04, "/a/b/", "", 0,
                              server_address(32)),
            0);
  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(root_path_at(c, 0), "/a/");
  uint32_t flags = 0;
  ASSERT_EQ(lorc_root_get_path(c, 0, &flags, nullptr, nullptr, 0), 0);
  EXPECT_EQ(flags, kRootFlags | 0x04);
  lmq_address txid{};
  ASSERT_EQ(lorc_root_get_txid(c, "/a/k", &txid, nullptr), 0);
  EXPECT_EQ(txid.client, 32u);
}

// --- Several servers ------------------------------------------------------

TEST(LorcRootServers, EachCommandReachesTheServerOwningItsPath) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/com/norvi/", &rec), 0);
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/a")), 0);
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/b")), 1);
  ASSERT_TRUE(f.wait_roots(0, 2));

  // "server available" for each root, on the client thread.
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 2));
  ASSERT_TRUE(f.sync());
  auto avail = rec.calls(LOREG_REASON_SERVER_AVAILABLE);
  ASSERT_EQ(avail.size(), 2u);
  std::vector<std::string> paths = {avail[0].item_path, avail[1].item_path};
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::string>{"/com/norvi/a/", "/com/norvi/b/"}));
  for (const auto &call : avail) {
    EXPECT_TRUE(call.on_client_thread);
    EXPECT_EQ(call.tid, 0);
    EXPECT_NE(call.item_flags & 0x20, 0u);
  }

  // Each root's sender is its own server.
  lmq_address a{}, b{}, txid{};
  ASSERT_EQ(lmqClientAddress(f.server(0)->lmq.client, &a), 0);
  ASSERT_EQ(lmqClientAddress(f.server(1)->lmq.client, &b), 0);
  ASSERT_EQ(lorc_root_get_txid(c, "/com/norvi/a/x", &txid, nullptr), 0);
  EXPECT_EQ(txid.client, a.client);
  ASSERT_EQ(lorc_root_get_txid(c, "/com/norvi/b/y", &txid, nullptr), 0);
  EXPECT_EQ(txid.client, b.client);

  log.clear();
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/a/x", "ax", 2, 0x30400, 5), 0);
  EXPECT_EQ(lorc_value_set(c, 0, "/com/norvi/b/y", "by", 2, 0x30400, 5), 0);
  char value[16] = {0};
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/a/x", value, sizeof value, 5), 2);
  EXPECT_STREQ(value, "ax");
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/b/y", value, sizeof value, 5), 2);
  EXPECT_STREQ(value, "by");
  EXPECT_EQ(log.count("): send as reply\n"), 4u) << log.dump();
  EXPECT_EQ(log.count("): send as command\n"), 0u) << log.dump();
  // Each key lives in its owner only.
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/b/x", value, sizeof value, 5), -2);
  EXPECT_EQ(lorc_value_query(c, 0, "/com/norvi/a/y", value, sizeof value, 5), -2);

  // A server that shuts down is gone for the subscribers and the table. Its
  // loop ends without that announcement if the stop flag rises while it is
  // still busy with the last reply: let it go back to its receive first.
  ASSERT_TRUE(f.sync());
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(f.stop_server(0), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_GONE, 1)) << log.dump();
  auto gone = rec.calls(LOREG_REASON_SERVER_GONE);
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(gone[0].item_path, "/com/norvi/a/");
  EXPECT_TRUE(gone[0].on_client_thread);
  ASSERT_TRUE(f.sync());
  EXPECT_EQ(count_roots(c), 1);
  EXPECT_EQ(root_path_at(c, 0), "/com/norvi/b/");
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_GONE), 1u);
}

TEST(LorcRootServers, SubscriberRegisteredLaterHearsEveryValidRoot) {
  LogCapture log;
  ClientFixture f;
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/a")), 0);
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/b")), 1);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(f.wait_roots(0, 2));
  ASSERT_TRUE(f.sync());  // the servers' announcements are all in

  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/com/", &rec), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 2));
  ASSERT_TRUE(f.sync());
  auto avail = rec.calls(LOREG_REASON_SERVER_AVAILABLE);
  ASSERT_EQ(avail.size(), 2u);
  EXPECT_EQ(avail[0].item_path, root_path_at(c, 0));
  EXPECT_EQ(avail[1].item_path, root_path_at(c, 1));
  for (const auto &call : avail) {
    EXPECT_TRUE(call.on_client_thread);
    EXPECT_EQ(call.sub_path, "/com/");
    EXPECT_TRUE(call.value_null);
    EXPECT_EQ(call.item_flags & 0x04, 0u);
    EXPECT_NE(call.item_flags & 0x20, 0u);
  }
  // Nothing else but renewals of the roots, which lie below "/com/".
  for (const auto &call : rec.calls()) {
    EXPECT_TRUE(call.reason == LOREG_REASON_SERVER_AVAILABLE ||
                call.reason == LOREG_REASON_KEY_UPDATE)
        << std::hex << call.reason;
  }
}

TEST(LorcRootServers, RepositoryStoreWaitsForEveryServerAndKeepsTheFirstError) {
  LogCapture log;
  ClientFixture f;
  // Persisting servers fed by the test thread: the test orders the replies.
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/a", false, 0)), 0);
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/b", false, 0)), 1);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    f.pump_server(0);
    f.pump_server(1);
    return f.valid_roots(0) >= 2;
  }));

  // An active transaction makes server b refuse the store with -13.
  int job = lorc_transaction_start(c, "/com/norvi/b/", 0);
  ASSERT_GT(job, 0);
  int tid = complete_job(f, job);
  ASSERT_GT(tid, 0);

  for (int order = 0; order < 2; order++) {
    SCOPED_TRACE(order == 0 ? "refusal first" : "refusal last");
    size_t first = order == 0 ? 1 : 0;
    size_t second = order == 0 ? 0 : 1;
    job = lorc_repository_store(c, 0);
    ASSERT_GT(job, 0);
    EXPECT_TRUE(log.contains("(job=" + std::to_string(job) + "): send as command\n")) << log.dump();
    ASSERT_GE(f.pump_server(first), 1u);
    ASSERT_TRUE(f.sync_client(0));
    EXPECT_EQ(lorc_job_wait(c, job, 0), 110);  // one reply is still missing
    ASSERT_GE(f.pump_server(second), 1u);
    EXPECT_EQ(complete_job(f, job), -13);
  }

  job = lorc_transaction_end(c, tid, 0);
  ASSERT_GT(job, 0);
  EXPECT_EQ(complete_job(f, job), 0);
  job = lorc_repository_store(c, 0);
  ASSERT_GT(job, 0);
  EXPECT_EQ(complete_job(f, job), 0);
}

TEST(LorcRootServers, StaleRootSendsCommandsToAllServers) {
  LogCapture log;
  ClientFixture f;
  // A server fed by the test thread announces nothing by itself.
  ASSERT_EQ(f.add_server(server_spec("/com/norvi/a", false)), 0);
  ASSERT_EQ(f.add_client(), 0);
  lorc_client *c = f.client();
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    f.pump_server(0);
    return f.valid_roots(0) >= 1;
  }));

  // A subscriber below the root hears of it once, at registration.
  NotifyRecorder rec(c);
  ASSERT_EQ(lorc_notification_register(c, NotifyRecorder::handler, "/com/norvi/a/z", &rec), 0);
  ASSERT_TRUE(rec.wait_count(LOREG_REASON_SERVER_AVAILABLE, 1));

  int job = lorc_value_set(c, 0, "/com/norvi/a/x", "1", 1, 0x30400, 0);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.contains("(job=" + std::to_string(job) + "): send as reply\n")) << log.dump();
  EXPECT_EQ(complete_job(f, job), 0);

  _cspOsalTime_struct before = root_updated(c, 0);
  advance_seconds(128);
  ASSERT_TRUE(f.sync_client(0));
  _cspOsalTime_struct now;
  ASSERT_EQ(cspOsalGetUptime(&now), 0);
  EXPECT_EQ(lorc_root_count_valid(c, &now), 0);
  EXPECT_EQ(f.valid_roots(0), 0);
  EXPECT_EQ(count_roots(c), 1);  // stale, still in the table
  _cspOsalTime_struct same = root_updated(c, 0);
  EXPECT_EQ(same.sec, before.sec);

  job = lorc_value_set(c, 0, "/com/norvi/a/x", "2", 1, 0x30400, 0);
  ASSERT_GT(job, 0);
  EXPECT_TRUE(log.contains("(job=" + std::to_string(job) + "): send as command\n")) << log.dump();
  EXPECT_EQ(complete_job(f, job), 0);

  // The server's next announcement (its root timer, served when the server
  // runs again) makes the root valid again without a new "server
  // available".
  ASSERT_TRUE(ClientFixture::wait_until([&] {
    f.pump_server(0);
    return f.valid_roots(0) == 1;
  }));
  ASSERT_TRUE(f.sync_client(0));
  EXPECT_GT(root_updated(c, 0).sec, before.sec);
  EXPECT_EQ(rec.count(LOREG_REASON_SERVER_AVAILABLE), 1u);
}

}  // namespace
