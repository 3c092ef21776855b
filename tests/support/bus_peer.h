// A raw peer of an lmq bus: a Unix stream socket connected to a hub's
// socket file, through which a test writes any bytes (well-formed frames
// built here, or garbage) and reads what the hub answers. It serves to
// test how a hub (an lmq server, or a daemon that runs one) treats a peer
// that is broken, hostile or slow.
//
// Frames are built independently of the library's own code, from the
// format: a 4-byte big-endian length (of what follows), a type byte, the
// type's fields big-endian, then a tail (a name or a message):
//
//   HELLO 1       magic u32 0x4C4D5142, version u16 1, node u32
//   PING 4 / PONG 5   token u32
//   CLIENT_ADD 6  node u32, client u32
//   REGISTER 9    token u32, name
//   REGISTERED 10 token u32, result i32, id i16, name
//   JOIN 12       id i16, role u8 (0 host, 1 subscriber), client u32
//   COMMAND 17    id i16, sender node u32, sender client u32, sequence u32,
//                 message
//
// Header-only; every test program may include it.
#ifndef TESTS_SUPPORT_BUS_PEER_H
#define TESTS_SUPPORT_BUS_PEER_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace testsupport {

namespace busframe {
constexpr uint8_t kHello = 1;
constexpr uint8_t kWelcome = 2;
constexpr uint8_t kRefused = 3;
constexpr uint8_t kPing = 4;
constexpr uint8_t kPong = 5;
constexpr uint8_t kClientAdd = 6;
constexpr uint8_t kRegister = 9;
constexpr uint8_t kRegistered = 10;
constexpr uint8_t kJoin = 12;
constexpr uint8_t kCommand = 17;
constexpr uint32_t kMagic = 0x4C4D5142u;
constexpr uint16_t kVersion = 1;
}  // namespace busframe

// Builds one frame field by field; bytes() puts the length in front.
class FrameBuilder {
 public:
  explicit FrameBuilder(uint8_t type) { m_body.push_back(type); }
  FrameBuilder &u8(uint8_t v) {
    m_body.push_back(v);
    return *this;
  }
  FrameBuilder &u16(uint16_t v) {
    m_body.push_back(static_cast<uint8_t>(v >> 8));
    m_body.push_back(static_cast<uint8_t>(v));
    return *this;
  }
  FrameBuilder &u32(uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) m_body.push_back(static_cast<uint8_t>(v >> shift));
    return *this;
  }
  FrameBuilder &tail(const std::string &bytes) {
    m_body.insert(m_body.end(), bytes.begin(), bytes.end());
    return *this;
  }
  // The frame with the length field counting the body (or the length
  // given, to lie about it).
  std::vector<uint8_t> bytes() const {
    return bytes_with_length(static_cast<uint32_t>(m_body.size()));
  }
  std::vector<uint8_t> bytes_with_length(uint32_t length) const {
    std::vector<uint8_t> out;
    for (int shift = 24; shift >= 0; shift -= 8) {
      out.push_back(static_cast<uint8_t>(length >> shift));
    }
    out.insert(out.end(), m_body.begin(), m_body.end());
    return out;
  }

 private:
  std::vector<uint8_t> m_body;
};

inline std::vector<uint8_t> hello_frame(uint32_t node) {
  return FrameBuilder(busframe::kHello)
      .u32(busframe::kMagic)
      .u16(busframe::kVersion)
      .u32(node)
      .bytes();
}
inline std::vector<uint8_t> ping_frame(uint32_t token) {
  return FrameBuilder(busframe::kPing).u32(token).bytes();
}
inline std::vector<uint8_t> client_add_frame(uint32_t node, uint32_t client) {
  return FrameBuilder(busframe::kClientAdd).u32(node).u32(client).bytes();
}
inline std::vector<uint8_t> register_frame(uint32_t token, const std::string &name) {
  return FrameBuilder(busframe::kRegister).u32(token).tail(name).bytes();
}
inline std::vector<uint8_t> join_frame(int16_t id, uint8_t role, uint32_t client) {
  return FrameBuilder(busframe::kJoin).u16(static_cast<uint16_t>(id)).u8(role).u32(client).bytes();
}
inline std::vector<uint8_t> command_frame(int16_t id, uint32_t node, uint32_t client, uint32_t seq,
                                          const std::string &message) {
  return FrameBuilder(busframe::kCommand)
      .u16(static_cast<uint16_t>(id))
      .u32(node)
      .u32(client)
      .u32(seq)
      .tail(message)
      .bytes();
}

inline uint32_t frame_get32(const std::vector<uint8_t> &b, size_t at) {
  return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) |
         uint32_t(b[at + 3]);
}

class BusPeer {
 public:
  // Connects to the socket file at path; connected() tells whether it
  // worked.
  explicit BusPeer(const std::string &path) {
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (m_fd >= 0 && connect(m_fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
      close();
    }
  }
  ~BusPeer() { close(); }
  BusPeer(const BusPeer &) = delete;
  BusPeer &operator=(const BusPeer &) = delete;

  bool connected() const { return m_fd >= 0; }
  int fd() const { return m_fd; }
  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }

  // Writes all bytes; false when the socket refuses (e.g. closed by the
  // hub).
  bool write_bytes(const std::vector<uint8_t> &bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  // Reads the next frame (type byte and body, without the length); false
  // on timeout, end of stream or an absurd length.
  bool read_frame(std::vector<uint8_t> *frame, int timeout_ms = 5000) {
    uint8_t length_bytes[4];
    if (!read_exactly(length_bytes, 4, timeout_ms)) return false;
    uint32_t length = (uint32_t(length_bytes[0]) << 24) | (uint32_t(length_bytes[1]) << 16) |
                      (uint32_t(length_bytes[2]) << 8) | uint32_t(length_bytes[3]);
    if (length == 0 || length > 65536) return false;
    frame->assign(length, 0);
    return read_exactly(frame->data(), length, timeout_ms);
  }

  // Reads frames until one of the type comes; false if none does.
  bool read_until(uint8_t type, std::vector<uint8_t> *frame, int timeout_ms = 5000) {
    while (read_frame(frame, timeout_ms)) {
      if ((*frame)[0] == type) return true;
    }
    return false;
  }

  // Says hello as node and waits for the welcome; false if it does not
  // come.
  bool join_bus(uint32_t node) {
    std::vector<uint8_t> frame;
    return write_bytes(hello_frame(node)) && read_until(busframe::kWelcome, &frame);
  }

  // As a node already on the bus: adds client 1, registers name (which
  // must have the id given) and makes the client a member of the service
  // in role (0 host, 1 subscriber). false if a write fails.
  bool join_service(uint32_t node, uint32_t token, const std::string &name, int16_t id,
                    uint8_t role) {
    return write_bytes(client_add_frame(node, 1)) && write_bytes(register_frame(token, name)) &&
           write_bytes(join_frame(id, role, 1));
  }

  // Pings with token and reads up to the matching pong: the hub has then
  // handled everything written before.
  bool sync(uint32_t token) {
    std::vector<uint8_t> frame;
    if (!write_bytes(ping_frame(token))) return false;
    while (read_until(busframe::kPong, &frame)) {
      if (frame_get32(frame, 1) == token) return true;
    }
    return false;
  }

  // Waits until the hub closes the connection, reading and dropping what
  // still comes; true if it closed in time.
  bool wait_closed(int timeout_ms = 5000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    uint8_t buffer[4096];
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{m_fd, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      ssize_t n = recv(m_fd, buffer, sizeof(buffer), 0);
      if (n == 0) return true;
      if (n < 0 && errno != EINTR && errno != EAGAIN) return true;
    }
    return false;
  }

 private:
  bool read_exactly(uint8_t *out, size_t len, int timeout_ms) {
    size_t done = 0;
    while (done < len) {
      pollfd p{m_fd, POLLIN, 0};
      if (poll(&p, 1, timeout_ms) <= 0) return false;
      ssize_t n = recv(m_fd, out + done, len - done, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  int m_fd = -1;
};

}  // namespace testsupport

#endif
