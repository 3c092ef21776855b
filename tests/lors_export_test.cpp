// The repository file and its export: the format byte for byte, the two
// alternating slots, and what a failed export leaves behind.
#include "loreg/lors_export.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "loreg/crc.h"
#include "loreg/lnparse.h"
#include "loreg/lors.h"
#include "loreg/lors_commit.h"
#include "loreg/lors_import.h"
#include "support/fault_fio.h"
#include "support/log_capture.h"
#include "support/repo_tree.h"
#include "support/server_fixture.h"
#include "support/temp_dir.h"
#include "support/test_allocator.h"

namespace {

using testsupport::dump_tree;
using testsupport::FaultFio;
using testsupport::kExampleFile;
using testsupport::LogCapture;
using testsupport::ServerFixture;
using testsupport::ServerOptions;
using testsupport::TestAllocator;
using testsupport::to_hex;

// Value set modes: a plain value (creating key and directories), and the
// same with the user bit set.
constexpr uint32_t kPlain = 0x30400;
constexpr uint32_t kUser = 0x30401;
constexpr uint32_t kVolatile = 0x30602;

// Paths of all keys that carry KEYF_CHANGED.
void ChangedInto(const lors_rp_node *node, const std::string &path, std::vector<std::string> &out) {
  std::string mine = path + std::string(node->name.ptr, node->name.len);
  if (node->flags & KEYF_CHANGED) out.push_back(mine);
  const lors_rp_node *child;
  TAILQ_FOREACH(child, &node->children, link) ChangedInto(child, mine, out);
}

std::vector<std::string> Changed(const lors_rp_node *root) {
  std::vector<std::string> out;
  ChangedInto(root, "", out);
  return out;
}

lors_rp_node *Find(lors_ctx *server, const std::string &relative) {
  lors_rp_path_req req{};
  req.root = server->root;
  req.path.ptr = const_cast<char *>(relative.data());
  req.path.len = static_cast<uint32_t>(relative.size());
  req.tid = -1;
  lors_rp_path_res res{};
  return lors_rp_PathFind(&req, &res) == 0 ? res.node : nullptr;
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

void Set(ServerFixture &f, const std::string &relative, const std::string &value,
         uint32_t mode = kPlain) {
  auto reply = f.set(relative, value, mode);
  ASSERT_TRUE(reply) << "no reply for " << relative;
  ASSERT_EQ(reply->header.result, 0) << relative;
}

void BuildExample(ServerFixture &f) {
  Set(f, "/tv/channel", "12");
  Set(f, "/tv/label", "50% off", kUser);
  Set(f, "/tv/last", "");
}

// Everything of the server that an export may change.
struct State {
  int32_t current_file;
  uint64_t commit_count;
  uint32_t export_count;
  int32_t dirty;
  std::vector<std::string> tree;
  std::vector<std::string> changed;
};

State Snapshot(lors_ctx *server) {
  return State{server->current_file, server->commit_count,    server->export_count,
               server->dirty,        dump_tree(server->root), Changed(server->root)};
}

void ExpectSame(const State &before, lors_ctx *server) {
  EXPECT_EQ(server->current_file, before.current_file);
  EXPECT_EQ(server->commit_count, before.commit_count);
  EXPECT_EQ(server->export_count, before.export_count);
  EXPECT_EQ(server->dirty, before.dirty);
  EXPECT_EQ(dump_tree(server->root), before.tree);
  EXPECT_EQ(Changed(server->root), before.changed);
}

std::string CommitCountOf(const std::string &content) {
  for (const std::string &line : Lines(content))
    if (line.rfind("COMMIT_COUNT ", 0) == 0) return line.substr(13);
  return "";
}

// ------------------------------------------------------------------ format

TEST(ExportFormat, ExampleTreeIsWrittenByteForByteAndReadBack) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  BuildExample(f);
  lors_ctx *server = f.server();
  server->commit_count = 6;
  ASSERT_NE(server->dirty, 0);

  LogCapture log;
  EXPECT_EQ(lors_exprt_default(server, "test"), 0);
  EXPECT_EQ(testsupport::read_file(f.file1()), kExampleFile);
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_TRUE(log.has_line("Export (test): used '" + f.file1() +
                           "', 5 of 5 keys changed, commit_count=7\n"))
      << log.dump();
  EXPECT_EQ(server->current_file, 1);
  EXPECT_EQ(server->commit_count, 7u);
  EXPECT_EQ(server->export_count, 1u);
  EXPECT_EQ(server->dirty, 0);
  EXPECT_TRUE(Changed(server->root).empty());

  std::vector<std::string> tree = dump_tree(server->root);
  ASSERT_EQ(tree.size(), 5u);
  EXPECT_EQ(tree[3], "/tv/label 0x05 " + to_hex("50% off"));

  ASSERT_EQ(f.restart(), 0);
  server = f.server();
  EXPECT_EQ(dump_tree(server->root), tree);
  EXPECT_EQ(server->commit_count, 7u);
  EXPECT_EQ(server->current_file, 1);
  EXPECT_EQ(server->dirty, 0);
  EXPECT_TRUE(Changed(server->root).empty());
  EXPECT_EQ(server->root->flags & 0xFF, KEYF_ROOT | KEYF_DIR);
}

TEST(ExportFormat, ChecksumIsTheRunningCrcOfNamesAndValues) {
  const char bytes[] = "/tv/channel12label50% offlast";
  EXPECT_EQ(crc_update(0xFFFFFFFFu, bytes, sizeof(bytes) - 1), 0x41922fbbu);
}

TEST(ExportFormat, EmptyRepositoryIsRootAndTrailer) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  lors_ctx *server = f.server();
  EXPECT_EQ(lors_export(server, nullptr, f.file0().c_str(), "empty"), 0);
  char crc[32];
  std::snprintf(crc, sizeof(crc), "CRC 0x%08x\n", crc_update(0xFFFFFFFFu, "/", 1));
  EXPECT_STREQ(crc, "CRC 0x862c2d2b\n");
  EXPECT_EQ(testsupport::read_file(f.file0()),
            std::string("DIR 0x28 /\n/DIR\nCOMMIT_COUNT 1\n") + crc);
  // lors_export alone writes a file; the server's counters belong to the
  // default location.
  EXPECT_EQ(server->commit_count, 0u);
  EXPECT_EQ(server->current_file, 0);
}

TEST(ExportFormat, BlankAndPercentAreEscaped) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  Set(f, "/blank", " ");
  Set(f, "/pct", "100%");
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  std::vector<std::string> lines = Lines(testsupport::read_file(f.file1()));
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[1], "  KEY 0x04 blank %20");
  EXPECT_EQ(lines[2], "  KEY 0x04 pct 100%25");
}

TEST(ExportFormat, EmptyValueGivesThreeWords) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  Set(f, "/none", "");
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  std::vector<std::string> lines = Lines(testsupport::read_file(f.file1()));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], "  KEY 0x00 none");
  EXPECT_EQ(lnparse_arg_count(lines[1].c_str()), 3);
}

TEST(ExportFormat, HighBytesPassRawControlsAndZeroAreEscaped) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  Set(f, "/k\xE4y", std::string("a\0b\x7F\x01\t\n", 7));
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  std::vector<std::string> lines = Lines(testsupport::read_file(f.file1()));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], "  KEY 0x04 k\xE4y a%00b\x7F%01%09%0A");

  // And the value with its zero byte survives the file.
  std::vector<std::string> tree = dump_tree(f.server()->root);
  ASSERT_EQ(f.restart(), 0);
  EXPECT_EQ(dump_tree(f.server()->root), tree);
  lors_rp_node *key = Find(f.server(), "/k\xE4y");
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(std::string(key->value.ptr, key->value.len), std::string("a\0b\x7F\x01\t\n", 7));
}

TEST(ExportFormat, VolatileKeysAreNeitherWrittenNorCountedNorChecksummed) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  Set(f, "/a", "1");
  Set(f, "/tmp", "x", kVolatile);
  Set(f, "/vdir/", "", kVolatile);
  Set(f, "/vdir/child", "2");  // not volatile itself, but below a volatile key
  ASSERT_NE(Find(f.server(), "/vdir/child"), nullptr);

  LogCapture log;
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  char crc[32];
  const char covered[] = "/a1";
  std::snprintf(crc, sizeof(crc), "CRC 0x%08x\n", crc_update(0xFFFFFFFFu, covered, 3));
  EXPECT_EQ(testsupport::read_file(f.file1()),
            std::string("DIR 0x28 /\n  KEY 0x04 a 1\n/DIR\nCOMMIT_COUNT 1\n") + crc);
  EXPECT_TRUE(
      log.has_line("Export (t): used '" + f.file1() + "', 2 of 2 keys changed, commit_count=1\n"))
      << log.dump();
}

TEST(ExportFormat, ChangedCountsOnlyKeysChangedSinceTheLastExport) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  BuildExample(f);
  ASSERT_EQ(lors_exprt_default(f.server(), "first"), 0);
  Set(f, "/tv/channel", "13");  // a new node: changed, and its parent keeps its mark cleared
  LogCapture log;
  ASSERT_EQ(lors_exprt_default(f.server(), "second"), 0);
  EXPECT_TRUE(log.has_line("Export (second): used '" + f.file0() +
                           "', 1 of 5 keys changed, commit_count=2\n"))
      << log.dump();
  EXPECT_TRUE(Changed(f.server()->root).empty());
}

// -------------------------------------------------------------- escaping

TEST(ExportEscape, RoomMustExceedTheEncodedSize) {
  char target[16];
  std::memset(target, '#', sizeof(target));
  EXPECT_EQ(lors_exprt_escape(target, "ab", 2, 3), 3);
  EXPECT_EQ(target[0], '#');  // room equal to the size: nothing written
  EXPECT_EQ(lors_exprt_escape(target, "ab", 2, 4), 3);
  EXPECT_EQ(std::string(target, 4), std::string(" ab\0", 4));
  EXPECT_EQ(target[4], '#');

  std::memset(target, '#', sizeof(target));
  EXPECT_EQ(lors_exprt_escape(target, "a b%", 4, 9), 9);
  EXPECT_EQ(target[0], '#');
  EXPECT_EQ(lors_exprt_escape(target, "a b%", 4, 10), 9);
  EXPECT_STREQ(target, " a%20b%25");

  EXPECT_EQ(lors_exprt_escape(target, "x", 0, 10), 0);
  EXPECT_EQ(lors_exprt_escape(target, "x", 1, -5), 2);
  EXPECT_STREQ(target, " a%20b%25");
}

TEST(ExportEscape, ClearChangedClearsOnlyThatBit) {
  lstr name;
  lstr_cinit(&name, "k");
  lors_rp_node *node = lors_rp_new(nullptr, &name, nullptr);
  ASSERT_NE(node, nullptr);
  node->flags |= KEYF_USER;
  EXPECT_EQ(lors_exprt_clearChanged(node, nullptr), 0);
  EXPECT_EQ(node->flags, KEYF_USER);
  lors_rp_delete(nullptr, node);
}

// ----------------------------------------------------------- the two slots

TEST(ExportSlots, OneExportFromSlotZeroWritesSlotOne) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  ASSERT_EQ(f.server()->current_file, 0);
  Set(f, "/a", "1");
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  EXPECT_EQ(f.server()->current_file, 1);
  EXPECT_TRUE(testsupport::file_exists(f.file1()));
  EXPECT_FALSE(testsupport::file_exists(f.file0()));

  Set(f, "/a", "2");
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  EXPECT_EQ(f.server()->current_file, 0);
  EXPECT_EQ(CommitCountOf(testsupport::read_file(f.file0())), "2");
  EXPECT_EQ(CommitCountOf(testsupport::read_file(f.file1())), "1");
  EXPECT_EQ(f.server()->commit_count, 2u);
  EXPECT_EQ(f.server()->export_count, 2u);
}

TEST(ExportSlots, CleanRepositoryIsNotWritten) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  LogCapture log;
  EXPECT_EQ(lors_exprt_default(f.server(), "Repository store cmd"), 0);
  EXPECT_TRUE(
      log.has_line("Export (Repository store cmd): repository is clean, no need to export\n"))
      << log.dump();
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
  EXPECT_EQ(f.server()->commit_count, 0u);
  EXPECT_EQ(f.server()->export_count, 0u);
}

TEST(ExportSlots, ExportBothWritesBothFilesOnCleanRepositoryButCommitDoesNot) {
  FaultFio fio;
  ServerOptions options;
  options.options = LORS_OPT_EXPORT_BOTH;
  options.fio = fio.table();
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  lors_ctx *server = f.server();
  ASSERT_EQ(server->dirty, 0);
  EXPECT_EQ(fio.calls(FaultFio::Op::Open), 0u);  // no import at start

  EXPECT_EQ(lors_commit_default(server, "delayed final auto-commit"), 0);
  EXPECT_EQ(fio.calls(FaultFio::Op::Open), 0u);
  EXPECT_FALSE(testsupport::file_exists(f.file0()));
  EXPECT_FALSE(testsupport::file_exists(f.file1()));

  auto reply = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->header.msgtype, LOREG_MSG_REPLY_TYPE(LOREG_MSG_REPO_STORE));
  EXPECT_EQ(reply->header.result, 0);
  std::vector<FaultFio::OpenedFile> opened = fio.opened();
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[0].file, f.file1());  // the other slot first
  EXPECT_EQ(opened[0].mode, LORS_FIO_MODE_WRITE);
  EXPECT_EQ(opened[1].file, f.file0());
  std::string expected = "DIR 0x28 /\n/DIR\nCOMMIT_COUNT 1\nCRC 0x862c2d2b\n";
  EXPECT_EQ(testsupport::read_file(f.file0()), expected);
  EXPECT_EQ(testsupport::read_file(f.file1()), expected);
  EXPECT_EQ(server->current_file, 0);
  EXPECT_EQ(server->commit_count, 1u);
  EXPECT_EQ(server->export_count, 1u);

  // Only the first export is forced.
  EXPECT_EQ(lors_exprt_default(server, "again"), 0);
  EXPECT_EQ(fio.calls(FaultFio::Op::Open), 2u);
}

TEST(ExportSlots, StoreCommandWritesTheOtherSlot) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  BuildExample(f);
  f.server()->commit_count = 6;
  auto reply = f.request(LOREG_MSG_REPO_STORE, 0, 0, 0, "", "");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->header.result, 0);
  EXPECT_EQ(testsupport::read_file(f.file1()), kExampleFile);
  EXPECT_EQ(f.server()->current_file, 1);
}

// --------------------------------------------------------- overlong lines

TEST(ExportLimits, KeyWhoseLineWouldReach8192BytesIsLeftOut) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  Set(f, "/a", "1");
  // "  KEY 0x04 " and the name "k" take 13 bytes before the value's blank;
  // each blank of the value takes three bytes.
  Set(f, "/k", std::string(2725, ' ') + "ab");  // 13 + 1 + 8175 + 2: 8191 bytes, LF included
  Set(f, "/l", std::string(2726, ' '));         // 8192 bytes with its LF
  Set(f, "/m", "2");

  LogCapture log;
  ASSERT_EQ(lors_exprt_default(f.server(), "t"), 0);
  EXPECT_EQ(log.count("name/value to long - ignore key"), 1u) << log.dump();
  EXPECT_TRUE(log.has_line("Export:(l) name/value to long - ignore key\n"));
  EXPECT_TRUE(
      log.has_line("Export (t): used '" + f.file1() + "', 4 of 4 keys changed, commit_count=1\n"))
      << log.dump();

  std::string content = testsupport::read_file(f.file1());
  std::vector<std::string> lines = Lines(content);
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[1], "  KEY 0x04 a 1");
  EXPECT_EQ(lines[2].size() + 1, 8191u);
  EXPECT_EQ(lines[2].rfind("  KEY 0x04 k %20%20", 0), 0u);
  EXPECT_EQ(lines[3], "  KEY 0x04 m 2");

  // The file stays valid: the next start reads it, without "l".
  std::vector<std::string> tree = dump_tree(f.server()->root);
  tree.erase(std::remove_if(tree.begin(), tree.end(),
                            [](const std::string &line) { return line.rfind("/l ", 0) == 0; }),
             tree.end());
  ASSERT_EQ(tree.size(), 4u);
  ASSERT_EQ(f.restart(), 0);
  EXPECT_EQ(dump_tree(f.server()->root), tree);
  EXPECT_EQ(f.server()->commit_count, 1u);
}

// ---------------------------------------------------------- the depth guard

// A file table in memory, so that a tree of thousands of levels (lines of
// up to 8 KiB each) is written and read back without disk traffic.
std::map<std::string, std::string> &MemFiles() {
  static std::map<std::string, std::string> files;
  return files;
}

struct MemHandle {
  std::string name;
  size_t position;
};

void *MemOpen(const char *, const char *file, uint32_t mode) {
  if (file == nullptr) return nullptr;
  if (mode & LORS_FIO_MODE_WRITE) {
    MemFiles()[file].clear();
  } else if (MemFiles().count(file) == 0) {
    return nullptr;
  }
  return new MemHandle{file, 0};
}

int32_t MemClose(void *handle) {
  delete static_cast<MemHandle *>(handle);
  return 0;
}

int32_t MemRead(void *handle, void *buffer, uint32_t size) {
  auto *h = static_cast<MemHandle *>(handle);
  const std::string &data = MemFiles()[h->name];
  size_t n = std::min<size_t>(size, data.size() - h->position);
  std::memcpy(buffer, data.data() + h->position, n);
  h->position += n;
  return static_cast<int32_t>(n);
}

int32_t MemWrite(void *handle, const void *buffer, uint32_t size) {
  MemFiles()[static_cast<MemHandle *>(handle)->name].append(static_cast<const char *>(buffer),
                                                            size);
  return static_cast<int32_t>(size);
}

const lors_fio kMemFio = {nullptr, nullptr, nullptr, MemOpen, MemClose, MemRead, MemWrite};

TEST(ExportDepthGuard, DeepChainIsCutWhereLinesStopFittingAndTheFileStaysValid) {
  MemFiles().clear();
  ServerOptions options;
  options.fio = &kMemFio;
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  lors_ctx *server = f.server();

  // A chain of directories "d/" 4200 levels deep, with a key "v" = 1 at the
  // bottom, made directly: no request could carry such a path.
  lstr dir_name, key_name, value;
  lstr_cinit(&dir_name, "d/");
  lstr_cinit(&key_name, "v");
  lstr_cinit(&value, "1");
  lors_rp_node *parent = server->root;
  const int kLevels = 4200;
  for (int level = 1; level <= kLevels; level++) {
    lors_rp_node *dir = lors_rp_new(server->allocator, &dir_name, nullptr);
    ASSERT_NE(dir, nullptr);
    lors_rp_LinkToParent(dir, parent);
    parent = dir;
  }
  lors_rp_node *leaf = lors_rp_new(server->allocator, &key_name, &value);
  ASSERT_NE(leaf, nullptr);
  lors_rp_LinkToParent(leaf, parent);
  lors_repositorySetDirty(server, 1);

  LogCapture log;
  ASSERT_EQ(lors_exprt_default(server, "deep"), 0);
  // A directory at depth d takes 2d + 8 + 3 bytes and its LF: depth 4089 is
  // the deepest that ends before the buffer's last byte.
  const int kWritten = 4089;
  EXPECT_EQ(log.count("name/value to long - ignore key"), 1u);
  EXPECT_TRUE(log.has_line("Export:(d/) name/value to long - ignore key\n"));

  const std::string &content = MemFiles()[f.file1()];
  std::vector<std::string> lines = Lines(content);
  size_t dirs = 0, ends = 0, longest = 0;
  uint32_t crc = 0xFFFFFFFFu;
  for (const std::string &line : lines) {
    longest = std::max(longest, line.size() + 1);
    std::string text = line.substr(line.find_first_not_of(' '));
    if (text.rfind("DIR ", 0) == 0) {
      dirs++;
      std::string name = text.substr(9);
      crc = crc_update(crc, name.data(), static_cast<uint32_t>(name.size()));
    }
    if (text == "/DIR") ends++;
    EXPECT_EQ(text.rfind("KEY", 0), std::string::npos);
  }
  EXPECT_LE(longest, 8191u);
  EXPECT_EQ(dirs, static_cast<size_t>(kWritten) + 1);
  EXPECT_EQ(ends, dirs);
  char crc_line[32];
  std::snprintf(crc_line, sizeof(crc_line), "CRC 0x%08x", crc);
  EXPECT_EQ(lines.back(), crc_line);
  EXPECT_EQ(lines[lines.size() - 2], "COMMIT_COUNT 1");

  ASSERT_EQ(f.restart(), 0);
  server = f.server();
  EXPECT_EQ(server->commit_count, 1u);
  int depth = 0;
  const lors_rp_node *node = server->root;
  while (!TAILQ_EMPTY(&node->children)) {
    node = TAILQ_FIRST(&node->children);
    depth++;
  }
  EXPECT_EQ(depth, kWritten);
  EXPECT_EQ(std::string(node->name.ptr, node->name.len), "d/");
}

// What lors_exprt_node hands to the table's write, line by line.
std::vector<std::string> &Written() {
  static std::vector<std::string> lines;
  return lines;
}

int32_t RecordWrite(void *, const void *buffer, uint32_t size) {
  Written().emplace_back(static_cast<const char *>(buffer), size);
  return static_cast<int32_t>(size);
}

TEST(ExportDepthGuard, NodeDeeperThanTheBufferWritesNothing) {
  // The buffer is exactly as large as the export's, from the heap, so that
  // a byte written past it would be caught by the address sanitizer.
  std::unique_ptr<char[]> scratch(new char[LORS_EXPORT_SCRATCH_SIZE]);
  lstr dir_name, empty;
  lstr_cinit(&dir_name, "x/");
  lstr_cinit(&empty, "");
  lors_rp_node *dir = lors_rp_new(nullptr, &dir_name, nullptr);
  lors_rp_node *leaf = lors_rp_new(nullptr, &empty, nullptr);
  ASSERT_NE(dir, nullptr);
  ASSERT_NE(leaf, nullptr);
  lors_rp_LinkToParent(leaf, dir);

  for (int32_t depth : {4092, 4093, 100000, 0x3FFFFFFF}) {
    Written().clear();
    lors_export_ctx context{};
    context.write = RecordWrite;
    context.scratch = scratch.get();
    context.crc = 0xFFFFFFFFu;
    context.depth = depth;
    LogCapture log;
    EXPECT_EQ(lors_exprt_node(&context, dir), 0);
    EXPECT_TRUE(Written().empty());
    EXPECT_EQ(context.keys, 0u);
    EXPECT_EQ(context.crc, 0xFFFFFFFFu);
    EXPECT_EQ(context.depth, depth);
    EXPECT_EQ(
        log.count("Export:(x/) tree too deep (depth " + std::to_string(depth) + ") - ignore key"),
        1u)
        << log.dump();
  }

  // One level less, a key with an empty name still fits: 8182 blanks, the
  // 8 bytes of token and flags and the LF end at the buffer's last byte.
  Written().clear();
  lors_export_ctx context{};
  context.write = RecordWrite;
  context.scratch = scratch.get();
  context.crc = 0xFFFFFFFFu;
  context.depth = 4091;
  EXPECT_EQ(lors_exprt_node(&context, leaf), 0);
  ASSERT_EQ(Written().size(), 1u);
  EXPECT_EQ(Written()[0], std::string(8182, ' ') + "KEY 0x00\n");
  EXPECT_EQ(context.keys, 1u);

  // A directory at that depth has no room for its name.
  Written().clear();
  LogCapture log;
  EXPECT_EQ(lors_exprt_node(&context, dir), 0);
  EXPECT_TRUE(Written().empty());
  EXPECT_TRUE(log.has_line("Export:(x/) name/value to long - ignore key\n"));

  lors_rp_DeleteRecursive(nullptr, dir, nullptr);
}

// ------------------------------------------------------------- i/o faults

class ExportFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    options_.fio = fio_.table();
    f_ = std::make_unique<ServerFixture>(options_);
    ASSERT_EQ(f_->start(), 0);
    BuildExample(*f_);
    // A first export, so that both a count and a current file are set.
    ASSERT_EQ(lors_exprt_default(f_->server(), "first"), 0);
    Set(*f_, "/tv/channel", "13");
    Set(*f_, "/radio/station", "5");
    good_ = testsupport::read_file(f_->file1());
  }

  // After a failed export: nothing changed but the file written, which is
  // slot 0, and slot 1 (the newest good state) is as it was.
  void ExpectFailedExport(const State &before, int rc, int expected_rc) {
    lors_ctx *server = f_->server();
    EXPECT_EQ(rc, expected_rc);
    ExpectSame(before, server);
    EXPECT_EQ(testsupport::read_file(f_->file1()), good_);
    EXPECT_EQ(fio_.open_handles(), 0u);
  }

  // The retry goes to the same slot with the same count.
  void ExpectRetrySucceeds(const State &before) {
    fio_.disarm();
    size_t opened = fio_.opened().size();
    lors_ctx *server = f_->server();
    EXPECT_EQ(lors_exprt_default(server, "retry"), 0);
    std::vector<FaultFio::OpenedFile> files = fio_.opened();
    ASSERT_EQ(files.size(), opened + 1);
    EXPECT_EQ(files.back().file, f_->file0());
    EXPECT_EQ(CommitCountOf(testsupport::read_file(f_->file0())),
              std::to_string(before.commit_count + 1));
    EXPECT_EQ(server->commit_count, before.commit_count + 1);
    EXPECT_EQ(server->current_file, 0);
    EXPECT_EQ(server->dirty, 0);
    EXPECT_TRUE(Changed(server->root).empty());
  }

  FaultFio fio_;
  ServerOptions options_;
  std::unique_ptr<ServerFixture> f_;
  std::string good_;
};

TEST_F(ExportFaults, OpenFailureChangesNothingAndTheRetryUsesTheSameSlot) {
  lors_ctx *server = f_->server();
  State before = Snapshot(server);
  ASSERT_EQ(before.current_file, 1);
  ASSERT_NE(before.dirty, 0);
  ASSERT_FALSE(before.changed.empty());

  LogCapture log;
  fio_.fail_at(FaultFio::Op::Open, 1);
  int rc = lors_exprt_default(server, "lbl");
  ExpectFailedExport(before, rc, -5);
  EXPECT_TRUE(
      log.has_line("Export (lbl): failed to open '" + f_->file0() + "' on '(null)' for writing!\n"))
      << log.dump();
  EXPECT_TRUE(
      log.has_line("Export (lbl): WARNING: failed to save repository to default location!\n"));
  ExpectRetrySucceeds(before);
}

TEST_F(ExportFaults, EveryFailingWriteAbortsTheExportAndChangesNothing) {
  lors_ctx *server = f_->server();
  State before = Snapshot(server);
  int failures = 0;
  for (uint64_t n = 1;; n++) {
    LogCapture log;
    fio_.fail_at(FaultFio::Op::Write, n);
    int rc = lors_exprt_default(server, "w");
    if (!fio_.failed(FaultFio::Op::Write)) {
      EXPECT_EQ(rc, 0);
      break;
    }
    failures++;
    ExpectFailedExport(before, rc, -5);
    EXPECT_TRUE(
        log.has_line("Export (w): WARNING: failed to save repository to default location!\n"));
    EXPECT_EQ(log.count("byte(s) written - abort"), 1u) << log.dump();
    // Every attempt went to slot 0.
    EXPECT_EQ(fio_.opened().back().file, f_->file0());
    ASSERT_LT(n, 100u);
  }
  // Seven node lines, three directory ends, two trailer lines.
  EXPECT_EQ(failures, 12);
  EXPECT_EQ(server->commit_count, before.commit_count + 1);
  EXPECT_EQ(server->current_file, 0);
  EXPECT_EQ(CommitCountOf(testsupport::read_file(f_->file0())), "2");
}

TEST_F(ExportFaults, EveryShortWriteAbortsWithItsMessage) {
  lors_ctx *server = f_->server();
  State before = Snapshot(server);
  std::vector<std::string> messages;
  for (uint64_t n = 1;; n++) {
    LogCapture log;
    fio_.disarm();
    fio_.short_write_at(n, 3);
    int rc = lors_exprt_default(server, "s");
    if (!fio_.failed(FaultFio::Op::Write)) {
      EXPECT_EQ(rc, 0);
      break;
    }
    ExpectFailedExport(before, rc, -5);
    for (const std::string &text : log.texts())
      if (text.find("written - abort") != std::string::npos) messages.push_back(text);
    ASSERT_LT(n, 100u);
  }
  ASSERT_EQ(messages.size(), 12u);
  EXPECT_EQ(messages[0], "Export:(/) only 3 of 11 header byte(s) written - abort\n");
  EXPECT_EQ(messages[1], "Export:(radio/) only 3 of 18 header byte(s) written - abort\n");
  EXPECT_EQ(messages[3], "Export:(radio/) only 3 of 7 dirend-token byte(s) written - abort\n");
  EXPECT_EQ(messages[9], "Export:(/) only 3 of 5 dirend-token byte(s) written - abort\n");
  EXPECT_EQ(messages[10], "Export: only 3 of 15 commit count token byte(s) written - abort\n");
  EXPECT_EQ(messages[11], "Export: only 3 of 15 crc token byte(s) written - abort\n");
}

TEST_F(ExportFaults, CloseErrorOfTheTableReplacesTheResult) {
  lors_ctx *server = f_->server();
  State before = Snapshot(server);
  LogCapture log;
  fio_.fail_at(FaultFio::Op::Close, 1, -28);
  int rc = lors_exprt_default(server, "c");
  EXPECT_EQ(rc, -28);
  ExpectSame(before, server);
  EXPECT_EQ(fio_.open_handles(), 0u);
  EXPECT_TRUE(log.has_line("Export (c): failed to close '" + f_->file0() +
                           "' on '(null)' after writing! (code -28)\n"))
      << log.dump();
  EXPECT_FALSE(log.contains("Export (c): used"));
  ExpectRetrySucceeds(before);
}

TEST_F(ExportFaults, CloseErrorAfterAFailedWriteStillClosesAndHasTheLastWord) {
  lors_ctx *server = f_->server();
  State before = Snapshot(server);
  fio_.fail_at(FaultFio::Op::Write, 2);
  fio_.fail_at(FaultFio::Op::Close, 1, -28);
  EXPECT_EQ(lors_exprt_default(server, "c"), -28);
  ExpectSame(before, server);
  EXPECT_EQ(fio_.open_handles(), 0u);
  EXPECT_EQ(fio_.calls(FaultFio::Op::Close), 2u);  // the first export closed one
  ExpectRetrySucceeds(before);
}

TEST(ExportFaultsBoth, ResultsOfBothWritesAreOredAndTheSecondIsAttempted) {
  FaultFio fio;
  ServerOptions options;
  options.options = LORS_OPT_EXPORT_BOTH;
  options.fio = fio.table();
  ServerFixture f(options);
  ASSERT_EQ(f.start(), 0);
  Set(f, "/a", "1");
  lors_ctx *server = f.server();
  State before = Snapshot(server);

  fio.fail_at(FaultFio::Op::Close, 1, -28);  // first file: close fails
  fio.fail_at(FaultFio::Op::Open, 2);        // second file: open fails
  EXPECT_EQ(lors_exprt_default(server, "both"), -28 | -5);
  EXPECT_EQ(-28 | -5, -1);
  ExpectSame(before, server);
  std::vector<FaultFio::OpenedFile> opened = fio.opened();
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[0].file, f.file1());
  EXPECT_EQ(opened[1].file, f.file0());
  EXPECT_EQ(fio.open_handles(), 0u);

  // The first export has not succeeded yet, so the next one writes both.
  fio.disarm();
  EXPECT_EQ(lors_exprt_default(server, "both"), 0);
  EXPECT_EQ(fio.opened().size(), 4u);
  EXPECT_EQ(server->current_file, 0);
  EXPECT_EQ(server->commit_count, 1u);
  EXPECT_EQ(testsupport::read_file(f.file0()), testsupport::read_file(f.file1()));
}

TEST(ExportNoTable, MissingOpenFunctionGivesEopnotsupp) {
  ServerFixture f;
  ASSERT_EQ(f.start(), 0);
  Set(f, "/a", "1");
  lors_ctx *server = f.server();
  State before = Snapshot(server);
  lors_fio_open_fn saved = server->fio_copy.open;
  server->fio_copy.open = nullptr;
  LogCapture log;
  EXPECT_EQ(lors_exprt_default(server, "n"), -95);
  server->fio_copy.open = saved;
  EXPECT_TRUE(log.has_line("Export (n): no file i/o functions available!\n")) << log.dump();
  ExpectSame(before, server);
  EXPECT_FALSE(testsupport::file_exists(f.file1()));
}

// ------------------------------------------------------- allocation faults

TEST(ExportMemory, ScratchAllocationFailureGivesEnomemAndChangesNothing) {
  TestAllocator alloc;
  {
    ServerOptions options;
    options.allocator = alloc.handle();
    ServerFixture f(options);
    ASSERT_EQ(f.start(), 0);
    BuildExample(f);
    lors_ctx *server = f.server();
    State before = Snapshot(server);
    size_t live = alloc.live_blocks();
    int failures = 0;
    for (uint64_t n = 1;; n++) {
      LogCapture log;
      alloc.fail_at(n);
      int rc = lors_exprt_default(server, "m");
      if (!alloc.failed()) {
        EXPECT_EQ(rc, 0);
        break;
      }
      failures++;
      EXPECT_EQ(rc, -12);
      ExpectSame(before, server);
      EXPECT_EQ(alloc.live_blocks(), live);
      EXPECT_FALSE(testsupport::file_exists(f.file1()));
      EXPECT_TRUE(log.has_line("Export (m): failed to allocate 8192 bytes scratch buffer!\n"))
          << log.dump();
      ASSERT_LT(n, 50u);
    }
    alloc.disarm();
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(alloc.live_blocks(), live);
    EXPECT_EQ(testsupport::read_file(f.file1()).substr(0, 11), "DIR 0x28 /\n");
    EXPECT_EQ(f.stop(), 0);
  }
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
