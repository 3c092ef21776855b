// Repository trees and files as the export and import tests compare them.
#ifndef TESTS_SUPPORT_REPO_TREE_H
#define TESTS_SUPPORT_REPO_TREE_H

#include <string>
#include <vector>

#include "loreg/lors_rp.h"

namespace testsupport {

// The repository file of the example tree: root, "tv/" with "channel" = 12,
// "label" = "50% off" with the user bit, and "last" without a value, at
// commit count 7.
extern const char kExampleFile[];

// The bytes as lower-case hexadecimal digits, two per byte.
std::string to_hex(const std::string &bytes);

// One line per key, depth first from root: the full path, the low eight
// flag bits as "0x%02x", and the value by to_hex, separated by blanks.
// Empty for a null root.
std::vector<std::string> dump_tree(const lors_rp_node *root);

}  // namespace testsupport

#endif
