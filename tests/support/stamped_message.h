// Messages that check themselves, for tests with many senders: a stamp
// (sender, sequence, payload length, checksum) followed by a payload whose
// every byte follows from sender, sequence and position. A receiver can
// tell a torn, cut or mixed-up message, and the order per sender.
#ifndef TESTS_SUPPORT_STAMPED_MESSAGE_H
#define TESTS_SUPPORT_STAMPED_MESSAGE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/lmq.h"

namespace testsupport {

struct Stamp {
  uint32_t sender;
  uint32_t seq;
  uint32_t len;  // payload bytes after the stamp
  uint32_t sum;
};

inline uint8_t stamp_pattern(uint32_t sender, uint32_t seq, uint32_t i) {
  return static_cast<uint8_t>(sender * 31u + seq * 7u + i * 13u + (i >> 8));
}

inline uint32_t stamp_checksum(const Stamp &s, const uint8_t *payload) {
  uint32_t h = 2166136261u ^ s.sender ^ (s.seq << 8) ^ (s.len << 20);
  for (uint32_t i = 0; i < s.len; i++) h = (h ^ payload[i]) * 16777619u;
  return h;
}

// A message of sender's seq-th send, with 1 to max_payload payload bytes.
inline std::vector<uint8_t> make_stamped_message(uint32_t sender, uint32_t seq,
                                                 uint32_t max_payload) {
  Stamp s{sender, seq, 1u + (seq * 37u + sender * 101u) % max_payload, 0};
  std::vector<uint8_t> m(sizeof(Stamp) + s.len);
  for (uint32_t i = 0; i < s.len; i++) m[sizeof(Stamp) + i] = stamp_pattern(sender, seq, i);
  s.sum = stamp_checksum(s, m.data() + sizeof(Stamp));
  std::memcpy(m.data(), &s, sizeof(s));
  return m;
}

// Checks a received message's framing and content; stores its stamp.
inline ::testing::AssertionResult check_stamped_message(const uint8_t *data, int size,
                                                        Stamp *out) {
  if (size < static_cast<int>(sizeof(Stamp))) return ::testing::AssertionFailure() << "short";
  Stamp s;
  std::memcpy(&s, data, sizeof(s));
  if (sizeof(Stamp) + s.len != static_cast<size_t>(size)) {
    return ::testing::AssertionFailure() << "size " << size << " for len " << s.len;
  }
  if (stamp_checksum(s, data + sizeof(Stamp)) != s.sum) {
    return ::testing::AssertionFailure() << "sum";
  }
  for (uint32_t i = 0; i < s.len; i++) {
    if (data[sizeof(Stamp) + i] != stamp_pattern(s.sender, s.seq, i)) {
      return ::testing::AssertionFailure() << "byte " << i << " of " << s.sender << "/" << s.seq;
    }
  }
  *out = s;
  return ::testing::AssertionSuccess();
}

// Sends the message as a command, in two vector entries (stamp, payload),
// until the receiver's queue or the bus takes it.
inline int send_stamped_retrying(lmq_client *client, int16_t id, const std::vector<uint8_t> &m) {
  lmq_iovec vector[2] = {{const_cast<uint8_t *>(m.data()), static_cast<uint32_t>(sizeof(Stamp))},
                         {const_cast<uint8_t *>(m.data()) + sizeof(Stamp),
                          static_cast<uint32_t>(m.size() - sizeof(Stamp))}};
  for (;;) {
    int rc = lmqCXSendCommand(client, id, vector, 2, 0);
    if (rc != -105) return rc;
    std::this_thread::yield();
  }
}

}  // namespace testsupport

#endif
