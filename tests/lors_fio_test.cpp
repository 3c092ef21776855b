// The file i/o table, its default POSIX backend, and the fault-injecting
// table that the server tests use.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "loreg/lors_fio.h"
#include "support/fault_fio.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

// Every line of the backend ends in a newline; the lists below name the
// texts without it.
std::vector<std::string> LinesWithoutNewline(const testsupport::LogCapture &log) {
  std::vector<std::string> out;
  for (std::string text : log.texts()) {
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n') << text;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    out.push_back(text);
  }
  return out;
}

using testsupport::FaultFio;
using testsupport::LogCapture;
using testsupport::read_file;
using testsupport::TempDir;
using testsupport::write_file;

constexpr uint32_t kServerModule = 0xB100;

off_t FileSize(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return st.st_size;
}

int32_t Write(void *handle, const std::string &text) {
  return lors_fio_write(handle, text.data(), static_cast<uint32_t>(text.size()));
}

class FioTest : public ::testing::Test {
 protected:
  TempDir dir_;
};

// ---------------------------------------------------------------- table

TEST(FioTable, DefaultsAreTheModulesFunctionsAndTmpFiles) {
  EXPECT_EQ(g_lors_default_fio.device, nullptr);
  EXPECT_STREQ(g_lors_default_fio.file0, "/tmp/loreg0.dat");
  EXPECT_STREQ(g_lors_default_fio.file1, "/tmp/loreg1.dat");
  EXPECT_EQ(g_lors_default_fio.open, &lors_fio_open);
  EXPECT_EQ(g_lors_default_fio.close, &lors_fio_close);
  EXPECT_EQ(g_lors_default_fio.read, &lors_fio_read);
  EXPECT_EQ(g_lors_default_fio.write, &lors_fio_write);
}

// The server fills every field that a caller's table leaves null, but the
// device, from g_lors_default_fio; that merge is tested with lors_init.
// Here: a table that brings only its own write works together with the
// defaults taken for the other fields, on the handles of the default open.
int32_t CountingWrite(void *handle, const void *buffer, uint32_t size);
int g_counting_writes = 0;
int32_t CountingWrite(void *handle, const void *buffer, uint32_t size) {
  g_counting_writes++;
  return lors_fio_write(handle, buffer, size);
}

TEST_F(FioTest, CustomWriteWorksWithTheDefaultOpenReadAndClose) {
  lors_fio table = g_lors_default_fio;
  table.write = &CountingWrite;
  std::string path = dir_.file("custom.dat");
  g_counting_writes = 0;

  void *h = table.open(table.device, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(table.write(h, "abc", 3), 3);
  EXPECT_EQ(g_counting_writes, 1);
  EXPECT_EQ(table.close(h), 0);

  h = table.open(table.device, path.c_str(), LORS_FIO_MODE_READ);
  ASSERT_NE(h, nullptr);
  char buffer[8];
  EXPECT_EQ(table.read(h, buffer, sizeof(buffer)), 3);
  EXPECT_EQ(std::string(buffer, 3), "abc");
  EXPECT_EQ(table.close(h), 0);
  EXPECT_STREQ(table.file0, "/tmp/loreg0.dat");
  EXPECT_STREQ(table.file1, "/tmp/loreg1.dat");
}

// ---------------------------------------------------------------- open

TEST_F(FioTest, WriteThenReadBack) {
  LogCapture log;
  std::string path = dir_.file("repo.dat");
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(handle, nullptr);
  auto *h = static_cast<lors_fio_handle *>(handle);
  EXPECT_EQ(h->magic, LORS_FIO_MAGIC);
  EXPECT_EQ(h->magic, 0x743591A5u);
  EXPECT_GE(h->fd, 0);
  EXPECT_EQ(h->mode, 2u);
  EXPECT_EQ(h->written, 0u);
  EXPECT_EQ(h->name, reinterpret_cast<char *>(h + 1));
  EXPECT_EQ(std::string(h->name), path);

  EXPECT_EQ(Write(handle, "hello"), 5);
  EXPECT_EQ(h->written, 5u);
  EXPECT_EQ(Write(handle, " world\n"), 7);
  EXPECT_EQ(h->written, 12u);
  EXPECT_EQ(Write(handle, ""), 0);
  EXPECT_EQ(h->written, 12u);
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(read_file(path), "hello world\n");

  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].text, "lors_fio_close() 12 bytes wriiten, syncing " + path + std::string("\n"));
  EXPECT_EQ(lines[0].module, kServerModule);

  log.clear();
  handle = lors_fio_open("some device", path.c_str(), LORS_FIO_MODE_READ);
  ASSERT_NE(handle, nullptr);
  h = static_cast<lors_fio_handle *>(handle);
  EXPECT_EQ(h->mode, 1u);
  char buffer[64];
  EXPECT_EQ(lors_fio_read(handle, buffer, 5), 5);
  EXPECT_EQ(lors_fio_read(handle, buffer + 5, sizeof(buffer) - 5), 7);
  EXPECT_EQ(std::string(buffer, 12), "hello world\n");
  EXPECT_EQ(lors_fio_read(handle, buffer, sizeof(buffer)), 0);
  EXPECT_EQ(h->written, 0u) << "bytes read are not counted";
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(FioTest, CloseOfAReadHandleDoesNotSync) {
  std::string path = dir_.file("r.dat");
  write_file(path, "data");
  LogCapture log;
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_READ);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(log.count("bytes wriiten, syncing"), 0u) << log.dump();
  EXPECT_TRUE(log.lines().empty()) << log.dump();

  // The same file opened for writing is synchronised at its close.
  handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(log.count("bytes wriiten, syncing"), 1u) << log.dump();
  EXPECT_TRUE(log.has_line("lors_fio_close() 0 bytes wriiten, syncing " + path + std::string("\n"))) << log.dump();
}

TEST_F(FioTest, ModeBitTwoAloneDecides) {
  std::string path = dir_.file("m.dat");
  // Without bit 2 the file is opened for reading: a missing one fails.
  for (uint32_t mode : {0u, 1u, 4u, 5u, 0x80u}) {
    LogCapture log;
    EXPECT_EQ(lors_fio_open(nullptr, path.c_str(), mode), nullptr) << mode;
    EXPECT_EQ(log.count("open('" + path + "', 0x00) failed. errno=2"), 1u) << log.dump();
  }
  for (uint32_t mode : {2u, 3u, 6u, 0xFFu}) {
    write_file(path, "old");
    LogCapture log;
    void *handle = lors_fio_open(nullptr, path.c_str(), mode);
    ASSERT_NE(handle, nullptr) << mode;
    EXPECT_EQ(static_cast<lors_fio_handle *>(handle)->mode, mode);
    EXPECT_EQ(FileSize(path), 0) << mode;
    EXPECT_EQ(lors_fio_close(handle), 0);
    EXPECT_EQ(log.count("bytes wriiten, syncing"), 1u) << mode;
  }
}

TEST_F(FioTest, OpenOfAMissingFileForReadingFailsWithOneMessage) {
  std::string path = dir_.file("missing.dat");
  LogCapture log;
  errno = 0;
  EXPECT_EQ(lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_READ), nullptr);
  EXPECT_EQ(errno, ENOENT);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].text, "lors_fio_open() open('" + path + "', 0x00) failed. errno=2" + std::string("\n"));
  EXPECT_EQ(lines[0].module, kServerModule);
  EXPECT_EQ(lines[0].level, 3000u);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FioTest, OpenForWritingInAMissingDirectoryShowsTheOpenFlags) {
  static_assert((O_WRONLY | O_CREAT | O_TRUNC) == 0x241, "open flags of this platform");
  std::string path = dir_.file("no/such/dir.dat");
  LogCapture log;
  EXPECT_EQ(lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE), nullptr);
  EXPECT_EQ(errno, ENOENT);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].text, "lors_fio_open() open('" + path + "', 0x241) failed. errno=2" + std::string("\n"));
}

TEST_F(FioTest, OpeningAnExistingFileForWritingTruncatesAtOnce) {
  std::string path = dir_.file("t.dat");
  write_file(path, "previous contents of the file");
  ASSERT_EQ(FileSize(path), 29);
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(FileSize(path), 0);
  EXPECT_EQ(Write(handle, "new"), 3);
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(read_file(path), "new");
}

TEST_F(FioTest, CreatedFileHasMode666LessTheUmask) {
  mode_t mask = umask(022);
  umask(mask);
  std::string path = dir_.file("perm.dat");
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(lors_fio_close(handle), 0);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask);
}

TEST_F(FioTest, NullFilenameIsRefused) {
  LogCapture log;
  EXPECT_EQ(lors_fio_open(nullptr, nullptr, LORS_FIO_MODE_WRITE), nullptr);
  EXPECT_EQ(lors_fio_open("dev", nullptr, LORS_FIO_MODE_READ), nullptr);
  EXPECT_EQ(LinesWithoutNewline(log), (std::vector<std::string>{"lors_fio_open() no filename given",
                                                   "lors_fio_open() no filename given"}));
}

// ---------------------------------------------------------------- handle checks

TEST(FioHandle, NullHandleIsRefused) {
  LogCapture log;
  char buffer[4] = {};
  EXPECT_EQ(lors_fio_read(nullptr, buffer, sizeof(buffer)), -22);
  EXPECT_EQ(lors_fio_write(nullptr, buffer, sizeof(buffer)), -22);
  EXPECT_EQ(lors_fio_close(nullptr), -22);
  EXPECT_EQ(LinesWithoutNewline(log), (std::vector<std::string>{"lors_fio_read() no handle given (NULL)",
                                                   "lors_fio_write() no handle given (NULL)",
                                                   "lors_fio_close() no handle given (NULL)"}));
}

TEST(FioHandle, WrongMagicIsRefused) {
  LogCapture log;
  char name[] = "fake";
  lors_fio_handle fake{};
  fake.magic = 0;
  fake.fd = -1;
  fake.mode = LORS_FIO_MODE_WRITE;
  fake.name = name;
  char buffer[4] = {};
  EXPECT_EQ(lors_fio_read(&fake, buffer, sizeof(buffer)), -22);
  EXPECT_EQ(lors_fio_write(&fake, buffer, sizeof(buffer)), -22);
  fake.magic = LORS_FIO_MAGIC ^ 1u;
  EXPECT_EQ(lors_fio_close(&fake), -22);
  EXPECT_EQ(fake.written, 0u);
  EXPECT_EQ(LinesWithoutNewline(log),
            (std::vector<std::string>{"lors_fio_read() invalid handle given. (closed already?)",
                                      "lors_fio_write() invalid handle given. (closed already?)",
                                      "lors_fio_close() invalid handle given. (closed already?)"}));
}

// ---------------------------------------------------------------- failures

TEST_F(FioTest, ReadErrorReturnsMinusErrno) {
  std::string path = dir_.file("w.dat");
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(handle, nullptr);
  LogCapture log;
  char buffer[16];
  // A file opened for writing only can't be read: EBADF.
  EXPECT_EQ(lors_fio_read(handle, buffer, sizeof(buffer)), -EBADF);
  EXPECT_EQ(LinesWithoutNewline(log), (std::vector<std::string>{"lors_fio_read(" + path +
                                                   ") read( 16 byte(s) ) failed. errno=9"}));
  EXPECT_EQ(lors_fio_close(handle), 0);
}

TEST_F(FioTest, WriteErrorReturnsMinusErrnoAndCountsNothing) {
  std::string path = dir_.file("r.dat");
  write_file(path, "x");
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_READ);
  ASSERT_NE(handle, nullptr);
  LogCapture log;
  EXPECT_EQ(Write(handle, "abc"), -EBADF);
  EXPECT_EQ(static_cast<lors_fio_handle *>(handle)->written, 0u);
  EXPECT_EQ(LinesWithoutNewline(log), (std::vector<std::string>{"lors_fio_write(" + path +
                                                   ") write( 3 byte(s) ) failed. errno=9"}));
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(read_file(path), "x");
}

TEST_F(FioTest, FailingSyncAndCloseAreLoggedAndIgnored) {
  std::string path = dir_.file("c.dat");
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_WRITE);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(Write(handle, "abcd"), 4);
  // Take the descriptor away behind the handle's back: fsync and close
  // then fail with EBADF.
  ASSERT_EQ(close(static_cast<lors_fio_handle *>(handle)->fd), 0);
  LogCapture log;
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(LinesWithoutNewline(log),
            (std::vector<std::string>{"lors_fio_close() 4 bytes wriiten, syncing " + path,
                                      "lors_fio_close(" + path + ") fsync() failed with errno=9 (ignored)",
                                      "lors_fio_close(" + path + ") close() failed with errno=9 (ignored)"}));
}

TEST_F(FioTest, FailingCloseOfAReadHandleIsLoggedAndIgnored) {
  std::string path = dir_.file("c.dat");
  write_file(path, "x");
  void *handle = lors_fio_open(nullptr, path.c_str(), LORS_FIO_MODE_READ);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(close(static_cast<lors_fio_handle *>(handle)->fd), 0);
  LogCapture log;
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(LinesWithoutNewline(log), (std::vector<std::string>{"lors_fio_close(" + path +
                                                   ") close() failed with errno=9 (ignored)"}));
}

TEST(FioDevice, SyncOfADeviceThatCantSyncIsIgnored) {
  // /dev/null takes writes but has no fsync: EINVAL.
  void *handle = lors_fio_open(nullptr, "/dev/null", LORS_FIO_MODE_WRITE);
  if (handle == nullptr) GTEST_SKIP() << "/dev/null can't be opened for writing here";
  EXPECT_EQ(lors_fio_write(handle, "xy", 2), 2);
  LogCapture log;
  EXPECT_EQ(lors_fio_close(handle), 0);
  EXPECT_EQ(LinesWithoutNewline(log),
            (std::vector<std::string>{"lors_fio_close() 2 bytes wriiten, syncing /dev/null",
                                      "lors_fio_close(/dev/null) fsync() failed with errno=22 (ignored)"}));
}

// ---------------------------------------------------------------- FaultFio

class FaultFioTest : public FioTest {
 protected:
  FaultFioTest() : fio_(dir_.file("loreg0.dat"), dir_.file("loreg1.dat"), "flash") {}

  void *Open(uint32_t mode, const std::string &path) {
    return fio_.table()->open(fio_.table()->device, path.c_str(), mode);
  }
  int32_t TWrite(void *handle, const std::string &text) {
    return fio_.table()->write(handle, text.data(), static_cast<uint32_t>(text.size()));
  }

  FaultFio fio_;
};

TEST_F(FaultFioTest, TableCarriesTheGivenNames) {
  const lors_fio *t = fio_.table();
  EXPECT_STREQ(t->device, "flash");
  EXPECT_EQ(std::string(t->file0), dir_.file("loreg0.dat"));
  EXPECT_EQ(std::string(t->file1), dir_.file("loreg1.dat"));
  EXPECT_NE(t->open, nullptr);
  EXPECT_NE(t->close, nullptr);
  EXPECT_NE(t->read, nullptr);
  EXPECT_NE(t->write, nullptr);
}

TEST_F(FaultFioTest, FailsTheNthWriteOnly) {
  void *h = Open(LORS_FIO_MODE_WRITE, fio_.file0());
  ASSERT_NE(h, nullptr);
  fio_.fail_at(FaultFio::Op::Write, 2);
  EXPECT_EQ(TWrite(h, "one "), 4);
  EXPECT_FALSE(fio_.failed(FaultFio::Op::Write));
  EXPECT_EQ(TWrite(h, "two "), -5);
  EXPECT_TRUE(fio_.failed(FaultFio::Op::Write));
  EXPECT_EQ(TWrite(h, "three"), 5);
  EXPECT_EQ(fio_.table()->close(h), 0);
  EXPECT_EQ(read_file(fio_.file0()), "one three");
  EXPECT_EQ(fio_.calls(FaultFio::Op::Write), 3u);
  EXPECT_EQ(fio_.bytes_written(), 9u);
  EXPECT_EQ(fio_.open_handles(), 0u);
}

TEST_F(FaultFioTest, ShortWriteWritesOnlyPartOfTheBuffer) {
  void *h = Open(LORS_FIO_MODE_WRITE, fio_.file1());
  ASSERT_NE(h, nullptr);
  fio_.short_write_at(1, 3);
  EXPECT_EQ(TWrite(h, "abcdef"), 3);
  EXPECT_TRUE(fio_.failed(FaultFio::Op::Write));
  EXPECT_EQ(TWrite(h, "XY"), 2);
  // keep not below the size: one byte short.
  fio_.short_write_at(1, 100);
  EXPECT_FALSE(fio_.failed(FaultFio::Op::Write));
  EXPECT_EQ(TWrite(h, "1234"), 3);
  fio_.short_write_at(1, 0);
  EXPECT_EQ(TWrite(h, "zz"), 0);
  EXPECT_EQ(fio_.table()->close(h), 0);
  EXPECT_EQ(read_file(fio_.file1()), "abcXY123");
}

TEST_F(FaultFioTest, FailsTheNthOpenReadAndClose) {
  write_file(fio_.file0(), "0123456789");
  fio_.fail_at(FaultFio::Op::Open, 2);
  void *first = Open(LORS_FIO_MODE_READ, fio_.file0());
  ASSERT_NE(first, nullptr);
  errno = 0;
  EXPECT_EQ(Open(LORS_FIO_MODE_WRITE, fio_.file0()), nullptr);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(fio_.failed(FaultFio::Op::Open));
  EXPECT_EQ(read_file(fio_.file0()), "0123456789") << "a failed open touches nothing";
  EXPECT_EQ(fio_.open_handles(), 1u);

  fio_.fail_at(FaultFio::Op::Read, 2, -9);
  char buffer[4];
  EXPECT_EQ(fio_.table()->read(first, buffer, 4), 4);
  EXPECT_EQ(fio_.table()->read(first, buffer, 4), -9);
  EXPECT_EQ(fio_.table()->read(first, buffer, 4), 4);
  EXPECT_EQ(std::string(buffer, 4), "4567") << "a failed read consumes nothing";

  fio_.fail_at(FaultFio::Op::Close, 1);
  EXPECT_EQ(fio_.table()->close(first), -5);
  EXPECT_TRUE(fio_.failed(FaultFio::Op::Close));
  EXPECT_EQ(fio_.open_handles(), 0u) << "the real handle is closed anyway";

  auto opened = fio_.opened();
  ASSERT_EQ(opened.size(), 2u);
  EXPECT_EQ(opened[0].device, "flash");
  EXPECT_EQ(opened[0].file, fio_.file0());
  EXPECT_EQ(opened[0].mode, 1u);
  EXPECT_TRUE(opened[0].ok);
  EXPECT_EQ(opened[1].mode, 2u);
  EXPECT_FALSE(opened[1].ok);
  EXPECT_EQ(fio_.calls(FaultFio::Op::Open), 2u);
  EXPECT_EQ(fio_.calls(FaultFio::Op::Read), 3u);
  EXPECT_EQ(fio_.calls(FaultFio::Op::Close), 1u);
}

TEST_F(FaultFioTest, CountersOfEachOperationAreSeparateAndDisarmStops) {
  void *h = Open(LORS_FIO_MODE_WRITE, fio_.file0());
  ASSERT_NE(h, nullptr);
  fio_.fail_at(FaultFio::Op::Write, 2);
  fio_.fail_at(FaultFio::Op::Close, 2);
  EXPECT_EQ(TWrite(h, "a"), 1);
  // Opens and closes don't advance the write counter.
  void *other = Open(LORS_FIO_MODE_WRITE, fio_.file1());
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(fio_.table()->close(other), 0);
  fio_.disarm();
  EXPECT_EQ(TWrite(h, "b"), 1);
  EXPECT_FALSE(fio_.failed(FaultFio::Op::Write));
  EXPECT_EQ(fio_.table()->close(h), 0);
  EXPECT_FALSE(fio_.failed(FaultFio::Op::Close));
  EXPECT_EQ(read_file(fio_.file0()), "ab");
}

TEST_F(FaultFioTest, ForwardsTheDefaultBackendsErrors) {
  LogCapture log;
  EXPECT_EQ(Open(LORS_FIO_MODE_READ, dir_.file("absent")), nullptr);
  EXPECT_EQ(fio_.open_handles(), 0u);
  ASSERT_EQ(fio_.opened().size(), 1u);
  EXPECT_FALSE(fio_.opened()[0].ok);
  EXPECT_EQ(log.count("lors_fio_open() open('" + dir_.file("absent") + "', 0x00) failed. errno=2"), 1u);
  EXPECT_EQ(fio_.table()->read(nullptr, nullptr, 0), -22);
}

}  // namespace
