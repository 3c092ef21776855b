#include "support/fault_fio.h"

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

namespace testsupport {

namespace {

// The table's functions have no context argument: they find their object
// here.
std::mutex g_active_mutex;
FaultFio *g_active = nullptr;

size_t index_of(FaultFio::Op op) { return static_cast<size_t>(op); }

}  // namespace

FaultFio::FaultFio()
    : FaultFio(g_lors_default_fio.file0, g_lors_default_fio.file1, std::string()) {}

FaultFio::FaultFio(std::string file0, std::string file1, std::string device)
    : m_file0(std::move(file0)), m_file1(std::move(file1)), m_device(std::move(device)) {
  m_table.device = m_device.empty() ? nullptr : m_device.c_str();
  m_table.file0 = m_file0.c_str();
  m_table.file1 = m_file1.c_str();
  m_table.open = &FaultFio::open_cb;
  m_table.close = &FaultFio::close_cb;
  m_table.read = &FaultFio::read_cb;
  m_table.write = &FaultFio::write_cb;

  std::lock_guard<std::mutex> lock(g_active_mutex);
  if (g_active != nullptr) {
    ADD_FAILURE() << "only one FaultFio may exist at a time";
    return;
  }
  g_active = this;
  m_registered = true;
}

FaultFio::~FaultFio() {
  std::lock_guard<std::mutex> lock(g_active_mutex);
  if (m_registered) g_active = nullptr;
}

FaultFio *FaultFio::active() {
  std::lock_guard<std::mutex> lock(g_active_mutex);
  return g_active;
}

void FaultFio::fail_at(Op op, uint64_t n, int32_t error) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Arm &arm = m_arms[index_of(op)];
  arm.counter = 0;
  arm.at = n;
  arm.error = error;
  arm.failed = false;
}

void FaultFio::short_write_at(uint64_t n, uint32_t keep) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_short_counter = 0;
  m_short_at = n;
  m_short_keep = keep;
  m_short_done = false;
}

void FaultFio::disarm() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (Arm &arm : m_arms) arm.at = 0;
  m_short_at = 0;
}

bool FaultFio::failed(Op op) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  bool failed = m_arms[index_of(op)].failed;
  if (op == Op::Write) failed = failed || m_short_done;
  return failed;
}

uint64_t FaultFio::calls(Op op) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls[index_of(op)];
}

size_t FaultFio::open_handles() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_open_handles;
}

uint64_t FaultFio::bytes_written() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bytes_written;
}

std::vector<FaultFio::OpenedFile> FaultFio::opened() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_opened;
}

bool FaultFio::hit_nolock(Op op) {
  m_calls[index_of(op)]++;
  Arm &arm = m_arms[index_of(op)];
  if (arm.at == 0) return false;
  arm.counter++;
  if (arm.counter != arm.at) return false;
  arm.failed = true;
  return true;
}

void *FaultFio::open_cb(const char *device, const char *file, uint32_t mode) {
  FaultFio *self = active();
  if (self == nullptr) return g_lors_default_fio.open(device, file, mode);

  OpenedFile record{device != nullptr ? device : "", file != nullptr ? file : "(null)", mode,
                    false};
  bool fail;
  {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    fail = self->hit_nolock(Op::Open);
  }
  void *handle = nullptr;
  if (fail) {
    errno = EIO;
  } else {
    handle = g_lors_default_fio.open(device, file, mode);
  }
  record.ok = handle != nullptr;
  std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_opened.push_back(record);
  if (handle != nullptr) self->m_open_handles++;
  return handle;
}

int32_t FaultFio::close_cb(void *handle) {
  FaultFio *self = active();
  if (self == nullptr) return g_lors_default_fio.close(handle);

  bool fail;
  int32_t error;
  {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    fail = self->hit_nolock(Op::Close);
    error = self->m_arms[index_of(Op::Close)].error;
  }
  // The real handle is closed in any case, so that an injected failure
  // leaks nothing.
  int32_t rc = g_lors_default_fio.close(handle);
  if (rc == 0) {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->m_open_handles > 0) self->m_open_handles--;
  }
  return fail ? error : rc;
}

int32_t FaultFio::read_cb(void *handle, void *buffer, uint32_t size) {
  FaultFio *self = active();
  if (self == nullptr) return g_lors_default_fio.read(handle, buffer, size);

  {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->hit_nolock(Op::Read)) return self->m_arms[index_of(Op::Read)].error;
  }
  return g_lors_default_fio.read(handle, buffer, size);
}

int32_t FaultFio::write_cb(void *handle, const void *buffer, uint32_t size) {
  FaultFio *self = active();
  if (self == nullptr) return g_lors_default_fio.write(handle, buffer, size);

  uint32_t length = size;
  bool shortened = false;
  {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    bool fail = self->hit_nolock(Op::Write);
    bool short_now = self->m_short_at != 0 && ++self->m_short_counter == self->m_short_at;
    if (fail) return self->m_arms[index_of(Op::Write)].error;
    if (short_now) {
      self->m_short_done = true;
      shortened = true;
      length = self->m_short_keep < size ? self->m_short_keep : (size > 0 ? size - 1 : 0);
    }
  }
  int32_t rc = (shortened && length == 0) ? 0 : g_lors_default_fio.write(handle, buffer, length);
  if (rc > 0) {
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_bytes_written += static_cast<uint64_t>(rc);
  }
  return rc;
}

}  // namespace testsupport
