// A file i/o table for tests: forwards to the default POSIX backend, counts
// every call, records the files opened, and fails the N-th open, read,
// write or close on request, or makes the N-th write short (SQLite-style
// fault loops over the server's export and import).
//
//   FaultFio fio(dir + "/loreg0.dat", dir + "/loreg1.dat");
//   params.fio = fio.table();           // the server copies the table
//   for (int n = 1;; n++) {
//     fio.fail_at(FaultFio::Op::Write, n);   // the n-th write from now fails
//     int rc = export_something();
//     if (!fio.failed(FaultFio::Op::Write)) break;  // no n-th write reached
//     ... assert rc and that the other file is intact ...
//     EXPECT_EQ(fio.open_handles(), 0u);
//   }
//
// Each operation has its own counter, reset when that operation is armed;
// an armed failure hits once, then the operation works again. A failed open
// returns NULL with errno EIO and opens nothing. A failed read or write
// returns the error given (-5 by default) without touching the file. A
// failed close still closes the real handle (nothing leaks) and then
// returns the error. A short write writes only the first `keep` bytes
// (fewer than asked; nothing at all for keep 0) and returns that count.
//
// The table's functions are plain C functions without a context, so at
// most one FaultFio may exist at a time in a process; constructing a second
// one is reported as a test failure and leaves it inert. Thread-safe: the
// functions may be called from the server's thread while the test thread
// arms, disarms and reads the counters.
#ifndef TESTS_SUPPORT_FAULT_FIO_H
#define TESTS_SUPPORT_FAULT_FIO_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "loreg/lors_fio.h"

namespace testsupport {

class FaultFio {
 public:
  enum class Op { Open = 0, Read = 1, Write = 2, Close = 3 };

  struct OpenedFile {
    std::string device;  // empty for a NULL device
    std::string file;    // "(null)" for a NULL file
    uint32_t mode;
    bool ok;  // false if this open failed (injected or real)
  };

  // A table with the default file names and no device.
  FaultFio();
  // A table with the given files, and the given device (empty: NULL).
  FaultFio(std::string file0, std::string file1, std::string device = std::string());
  ~FaultFio();
  FaultFio(const FaultFio &) = delete;
  FaultFio &operator=(const FaultFio &) = delete;

  // The table to hand to the server; valid while this object lives.
  const lors_fio *table() const { return &m_table; }
  const std::string &file0() const { return m_file0; }
  const std::string &file1() const { return m_file1; }

  // Fails the n-th call of op counted from now (1 = the next one); 0 never.
  // error is the result of a failed read, write or close.
  void fail_at(Op op, uint64_t n, int32_t error = -5);
  // Makes the n-th write counted from now write only keep bytes (if keep
  // isn't below the size asked for, size - 1 bytes). 0 never.
  void short_write_at(uint64_t n, uint32_t keep);
  // Stops all failures and short writes.
  void disarm();
  // True once an armed failure (or short write, for Op::Write) of op has
  // been handed out since op was last armed.
  bool failed(Op op) const;

  // Calls of op since construction (failed ones included).
  uint64_t calls(Op op) const;
  // Handles opened and not yet closed.
  size_t open_handles() const;
  // Bytes written through the table since construction.
  uint64_t bytes_written() const;
  // Every open call, in order.
  std::vector<OpenedFile> opened() const;

 private:
  struct Arm {
    uint64_t counter = 0;  // calls since arming
    uint64_t at = 0;       // 0: not armed
    int32_t error = -5;
    bool failed = false;
  };

  static void *open_cb(const char *device, const char *file, uint32_t mode);
  static int32_t close_cb(void *handle);
  static int32_t read_cb(void *handle, void *buffer, uint32_t size);
  static int32_t write_cb(void *handle, const void *buffer, uint32_t size);
  static FaultFio *active();

  // Counts a call of op; true if this call is the armed failure.
  bool hit_nolock(Op op);

  std::string m_file0;
  std::string m_file1;
  std::string m_device;
  lors_fio m_table;
  bool m_registered = false;

  mutable std::mutex m_mutex;
  Arm m_arms[4];
  uint64_t m_calls[4] = {0, 0, 0, 0};
  uint64_t m_short_at = 0;
  uint64_t m_short_counter = 0;
  uint32_t m_short_keep = 0;
  bool m_short_done = false;
  size_t m_open_handles = 0;
  uint64_t m_bytes_written = 0;
  std::vector<OpenedFile> m_opened;
};

}  // namespace testsupport

#endif
