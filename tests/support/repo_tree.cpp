#include "support/repo_tree.h"

#include <cstdio>

namespace testsupport {

const char kExampleFile[] =
    "DIR 0x28 /\n"
    "  DIR 0x08 tv/\n"
    "    KEY 0x04 channel 12\n"
    "    KEY 0x05 label 50%25%20off\n"
    "    KEY 0x00 last\n"
    "  /DIR\n"
    "/DIR\n"
    "COMMIT_COUNT 7\n"
    "CRC 0x41922fbb\n";

namespace {

void dump_into(const lors_rp_node *node, const std::string &path, std::vector<std::string> &out) {
  std::string mine = path + std::string(node->name.ptr, node->name.len);
  char flags[8];
  std::snprintf(flags, sizeof(flags), "0x%02x", static_cast<unsigned>(node->flags & 0xFF));
  out.push_back(mine + " " + flags + " " + to_hex(std::string(node->value.ptr, node->value.len)));
  const lors_rp_node *child;
  TAILQ_FOREACH(child, &node->children, link) dump_into(child, mine, out);
}

}  // namespace

std::string to_hex(const std::string &bytes) {
  std::string out;
  char buffer[4];
  for (unsigned char c : bytes) {
    std::snprintf(buffer, sizeof(buffer), "%02x", c);
    out += buffer;
  }
  return out;
}

std::vector<std::string> dump_tree(const lors_rp_node *root) {
  std::vector<std::string> out;
  if (root != nullptr) dump_into(root, "", out);
  return out;
}

}  // namespace testsupport
