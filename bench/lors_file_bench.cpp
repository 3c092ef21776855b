// Export and import of a repository of 100,000 keys (1000 directories of
// 100 keys, values of 6 bytes), against writing and reading the same bytes
// with plain write/read in 8192-byte chunks, in the same run and on the
// same file system (a fresh directory under $TMPDIR or /tmp).
//
// BM_Export: lors_export of the whole tree to one file through the
//   default backend, which writes one line per call and fsyncs at close.
// BM_PlainWriteSync: the exported file's bytes written with write() in
//   8192-byte chunks, then fsync and close: the same I/O as BM_Export.
// BM_ExportNoSync / BM_PlainWriteNoSync: the same two without the fsync
//   (the export through a table whose close only closes), which shows the
//   cost of formatting and of one write() per line.
// BM_Import: lors_import of that file into the server, which builds the
//   new tree beside the old one, checks it and swaps it in (deleting the
//   old tree is part of the cost).
// BM_PlainRead: the same file read with read() in 8192-byte chunks.
//
// Each reports bytes/s over the file's size and keys/s.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "loreg/lors.h"
#include "loreg/lors_export.h"
#include "loreg/lors_fio.h"
#include "loreg/lors_import.h"
#include "platform/lmq.h"

namespace {

constexpr int kDirectories = 1000;
constexpr int kKeysPerDirectory = 100;
constexpr int kKeys = kDirectories * kKeysPerDirectory + kDirectories + 1;  // root included
constexpr size_t kChunk = 8192;

// A table like the default backend's but without the fsync at close.
void *NoSyncOpen(const char *, const char *file, uint32_t mode) {
  int flags = (mode & LORS_FIO_MODE_WRITE) ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
  int fd = open(file, flags, 0666);
  if (fd < 0) return nullptr;
  return reinterpret_cast<void *>(static_cast<intptr_t>(fd) + 1);
}
int Fd(void *handle) { return static_cast<int>(reinterpret_cast<intptr_t>(handle) - 1); }
int32_t NoSyncClose(void *handle) { return close(Fd(handle)) == 0 ? 0 : -errno; }
int32_t NoSyncWrite(void *handle, const void *buffer, uint32_t size) {
  ssize_t n = write(Fd(handle), buffer, size);
  return n < 0 ? -errno : static_cast<int32_t>(n);
}

// One server without a thread of its own, holding the tree, and the
// directory its files go to.
class Bed {
 public:
  Bed() {
    const char *base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/lors-file-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    m_dir = pattern;
    m_file0 = m_dir + "/loreg0.dat";
    m_file1 = m_dir + "/loreg1.dat";
    m_export = m_dir + "/export.dat";
    m_plain = m_dir + "/plain.dat";

    m_fio = g_lors_default_fio;
    m_fio.file0 = m_file0.c_str();
    m_fio.file1 = m_file1.c_str();
    m_queue.resize(64 * 1024);
    if (lmqServerCreate(&m_lmq) != 0) std::abort();
    if (lmqClientInit(&m_client, m_queue.data(), static_cast<uint32_t>(m_queue.size())) != 0 ||
        lmqServerAddClient(m_lmq, &m_client) != 0)
      std::abort();
    lors_params params{};
    params.lmq_server = m_lmq;
    params.lmq_client = &m_client;
    params.options = LORS_OPT_NO_PERSIST;  // no import at start
    params.fio = &m_fio;
    if (lors_init(&m_server, &params) != 0) std::abort();
    Build();
    // The bytes that both sides of each comparison move.
    if (lors_export(m_server, nullptr, m_export.c_str(), "bench") != 0) std::abort();
    std::FILE *in = std::fopen(m_export.c_str(), "rb");
    if (in == nullptr) std::abort();
    char buffer[kChunk];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) m_content.append(buffer, n);
    std::fclose(in);
  }

  ~Bed() {
    lors_shutdown(m_server);
    lmqServerRemoveClient(m_lmq, &m_client);
    lmqClientRelease(&m_client);
    lmqServerDestroy(m_lmq);
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
  }

  lors_ctx *server() { return m_server; }
  const std::string &export_file() const { return m_export; }
  const std::string &plain_file() const { return m_plain; }
  const std::string &content() const { return m_content; }

 private:
  // 1000 directories "dir0000/" .. of 100 keys "key00" .. with 6-byte
  // values, made directly in the tree.
  void Build() {
    for (int d = 0; d < kDirectories; d++) {
      char name[16];
      std::snprintf(name, sizeof name, "dir%04d/", d);
      lstr dir_name;
      lstr_init(&dir_name, name);
      lors_rp_node *dir = lors_rp_new(nullptr, &dir_name, nullptr);
      if (dir == nullptr) std::abort();
      lors_rp_LinkToParent(dir, m_server->root);
      for (int k = 0; k < kKeysPerDirectory; k++) {
        char key[16], value[16];
        std::snprintf(key, sizeof key, "key%02d", k);
        std::snprintf(value, sizeof value, "v%05d", (d * kKeysPerDirectory + k) % 100000);
        lstr key_name, key_value;
        lstr_init(&key_name, key);
        lstr_init(&key_value, value);
        lors_rp_node *node = lors_rp_new(nullptr, &key_name, &key_value);
        if (node == nullptr) std::abort();
        lors_rp_LinkToParent(node, dir);
      }
    }
  }

  std::string m_dir, m_file0, m_file1, m_export, m_plain;
  lors_fio m_fio{};
  lmq_server *m_lmq = nullptr;
  lmq_client m_client{};
  std::vector<unsigned char> m_queue;
  lors_ctx *m_server = nullptr;
  std::string m_content;
};

Bed &TheBed() {
  static Bed bed;
  return bed;
}

void Report(benchmark::State &state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(TheBed().content().size()));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kKeys);
  state.counters["file_bytes"] = static_cast<double>(TheBed().content().size());
}

void ExportWith(benchmark::State &state, const lors_fio_open_fn open_fn, lors_fio_close_fn close_fn,
                lors_fio_write_fn write_fn) {
  Bed &bed = TheBed();
  lors_ctx *server = bed.server();
  lors_fio saved = server->fio_copy;
  server->fio_copy.open = open_fn;
  server->fio_copy.close = close_fn;
  server->fio_copy.write = write_fn;
  for (auto _ : state) {
    int rc = lors_export(server, nullptr, bed.export_file().c_str(), "bench");
    if (rc != 0) state.SkipWithError("export failed");
  }
  server->fio_copy = saved;
  Report(state);
}

void BM_Export(benchmark::State &state) {
  ExportWith(state, g_lors_default_fio.open, g_lors_default_fio.close, g_lors_default_fio.write);
}

void BM_ExportNoSync(benchmark::State &state) {
  ExportWith(state, NoSyncOpen, NoSyncClose, NoSyncWrite);
}

void PlainWrite(benchmark::State &state, bool sync) {
  Bed &bed = TheBed();
  const std::string &content = bed.content();
  for (auto _ : state) {
    int fd = open(bed.plain_file().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
      state.SkipWithError("open failed");
      break;
    }
    for (size_t at = 0; at < content.size(); at += kChunk) {
      size_t n = std::min(kChunk, content.size() - at);
      if (write(fd, content.data() + at, n) != static_cast<ssize_t>(n))
        state.SkipWithError("write failed");
    }
    if (sync) fsync(fd);
    close(fd);
  }
  Report(state);
}

void BM_PlainWriteSync(benchmark::State &state) { PlainWrite(state, true); }
void BM_PlainWriteNoSync(benchmark::State &state) { PlainWrite(state, false); }

void BM_Import(benchmark::State &state) {
  Bed &bed = TheBed();
  lors_ctx *server = bed.server();
  for (auto _ : state) {
    // The file's count is 1: a last count of 0 lets every round pass.
    int rc = lors_import(server, nullptr, bed.export_file().c_str(), 0);
    if (rc != 0) state.SkipWithError("import failed");
  }
  Report(state);
}

void BM_PlainRead(benchmark::State &state) {
  Bed &bed = TheBed();
  std::vector<char> buffer(kChunk);
  for (auto _ : state) {
    int fd = open(bed.export_file().c_str(), O_RDONLY);
    if (fd < 0) {
      state.SkipWithError("open failed");
      break;
    }
    size_t total = 0;
    ssize_t n;
    while ((n = read(fd, buffer.data(), buffer.size())) > 0) total += static_cast<size_t>(n);
    close(fd);
    benchmark::DoNotOptimize(total);
    if (total != bed.content().size()) state.SkipWithError("short read");
  }
  Report(state);
}

BENCHMARK(BM_Export)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainWriteSync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ExportNoSync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainWriteNoSync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Import)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainRead)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
