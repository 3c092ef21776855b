// The repository server's key tree.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "loreg/lors_rp.h"
#include "loreg/lors_tas.h"
#include "support/log_capture.h"
#include "support/test_allocator.h"

namespace {

using testsupport::LogCapture;
using testsupport::TestAllocator;

constexpr uint32_t kServerModule = 0xB100;

lstr L(const char *text) {
  lstr l;
  lstr_cinit(&l, text);
  return l;
}

std::string S(const lstr &l) { return std::string(l.ptr, l.len); }

std::vector<std::string> Names(const lors_rp_node *parent) {
  std::vector<std::string> out;
  const lors_rp_node *child;
  TAILQ_FOREACH(child, &parent->children, link) out.push_back(S(child->name));
  return out;
}

size_t NodeSize(const char *name, size_t value_len) {
  return sizeof(lors_rp_node) + std::strlen(name) + 1 + value_len;
}

// Locks a key for a hand-made transaction the way the scheduler does.
void Lock(lors_rp_node *node, lors_tas *tas, int32_t tid) {
  tas->tid = tid;
  tas->node = node;
  node->owner = tas;
  node->flags |= KEYF_LOCKED;
}

class RpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lstr name = L("/");
    root_ = lors_rp_new(alloc_.handle(), &name, nullptr);
    ASSERT_NE(root_, nullptr);
    root_->flags |= KEYF_ROOT;
  }

  void TearDown() override {
    if (root_ != nullptr) lors_rp_DeleteRecursive(alloc_.handle(), root_, nullptr);
    EXPECT_EQ(alloc_.live_blocks(), 0u);
  }

  // A key below parent, made and linked by hand.
  lors_rp_node *Add(lors_rp_node *parent, const char *name, const char *value = nullptr) {
    lstr n = L(name);
    lstr v;
    if (value != nullptr) v = L(value);
    lors_rp_node *node = lors_rp_new(alloc_.handle(), &n, value != nullptr ? &v : nullptr);
    EXPECT_NE(node, nullptr);
    lors_rp_LinkToParent(node, parent);
    return node;
  }

  int32_t Find(const char *path, uint32_t mode, int32_t tid, lors_rp_path_res *res,
               const lstr *value = nullptr) {
    lors_rp_path_req req;
    req.allocator = alloc_.handle();
    req.root = root_;
    req.path = L(path);
    req.mode = mode;
    req.value = value;
    req.tid = tid;
    return lors_rp_PathFind(&req, res);
  }

  lors_rp_node *Child(lors_rp_node *parent, const char *name) {
    lstr n = L(name);
    return lors_rp_find(&parent->children, -1, &n, LORS_RP_MASK_ALL);
  }

  TestAllocator alloc_;
  lors_rp_node *root_ = nullptr;
  // Transactions outlive the tree, which TearDown frees (and whose delete
  // writes to a transaction that still points to its key).
  lors_tas tas_[4] = {};
};

// ---------------------------------------------------------------- new/delete

TEST_F(RpTest, NewNodeIsOneBlockWithNameZeroByteAndValue) {
  size_t before = alloc_.live_bytes();
  lstr name = L("key"), value = L("val");
  lors_rp_node *node = lors_rp_new(alloc_.handle(), &name, &value);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(alloc_.live_bytes() - before, NodeSize("key", 3));
  EXPECT_EQ(node->name.ptr, reinterpret_cast<char *>(node + 1));
  EXPECT_EQ(S(node->name), "key");
  EXPECT_EQ(node->name.ptr[3], '\0');
  EXPECT_EQ(node->value.ptr, node->name.ptr + 4);
  EXPECT_EQ(S(node->value), "val");
  EXPECT_EQ(node->flags, KEYF_VALUE | KEYF_CHANGED);
  EXPECT_EQ(node->owner, nullptr);
  EXPECT_EQ(node->parent, nullptr);
  EXPECT_TRUE(TAILQ_EMPTY(&node->children));
  lors_rp_delete(alloc_.handle(), node);
}

TEST_F(RpTest, NewDirectoryWithoutValueKeepsValuePointer) {
  lstr name = L("dir/");
  lors_rp_node *node = lors_rp_new(alloc_.handle(), &name, nullptr);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->flags, KEYF_DIR | KEYF_CHANGED);
  EXPECT_EQ(node->value.len, 0u);
  EXPECT_EQ(node->value.ptr, node->name.ptr + 5);
  lors_rp_delete(alloc_.handle(), node);
}

TEST_F(RpTest, ZeroLengthValueGivesNoValueFlag) {
  lstr name = L("k"), empty = L("");
  lors_rp_node *node = lors_rp_new(alloc_.handle(), &name, &empty);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->flags, KEYF_CHANGED);
  EXPECT_EQ(node->value.len, 0u);
  EXPECT_EQ(node->value.ptr, node->name.ptr + 2);
  lors_rp_delete(alloc_.handle(), node);
}

TEST_F(RpTest, NewDirectoryWithValueHasBothFlags) {
  lstr name = L("d/"), value = L("x");
  lors_rp_node *node = lors_rp_new(alloc_.handle(), &name, &value);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->flags, KEYF_DIR | KEYF_VALUE | KEYF_CHANGED);
  lors_rp_delete(alloc_.handle(), node);
}

TEST_F(RpTest, ValueWithZeroBytesIsCopiedWhole) {
  const char raw[] = {'a', '\0', 'b'};
  lstr name = L("bin"), value{const_cast<char *>(raw), 3};
  lors_rp_node *node = lors_rp_new(alloc_.handle(), &name, &value);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(S(node->value), std::string(raw, 3));
  EXPECT_NE(node->value.ptr, raw);
  lors_rp_delete(alloc_.handle(), node);
}

TEST_F(RpTest, NewFailsWithMessageWhenMemoryFails) {
  LogCapture log;
  lstr name = L("abc"), value = L("12345");
  alloc_.fail_at(1);
  EXPECT_EQ(lors_rp_new(alloc_.handle(), &name, &value), nullptr);
  EXPECT_TRUE(alloc_.failed());
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].text, "lors_rp_new(): failed to malloc " +
                               std::to_string(NodeSize("abc", 5)) +
                               " byte(s) for new key node\n");
  EXPECT_EQ(lines[0].module, kServerModule);
  EXPECT_EQ(lines[0].level, 3000u);
}

TEST_F(RpTest, DeleteClearsTheTransactionsPointerToTheNode) {
  lors_rp_node *key = Add(root_, "k");
  lors_tas &tas = tas_[0];
  Lock(key, &tas, 4);
  lors_rp_LinkToParent(key, nullptr);
  lors_rp_delete(alloc_.handle(), key);
  EXPECT_EQ(tas.node, nullptr);
  EXPECT_EQ(tas.tid, 4);
}

TEST_F(RpTest, DeleteLeavesATransactionThatPointsElsewhere) {
  lors_rp_node *key = Add(root_, "k");
  lors_rp_node *other = Add(root_, "o");
  lors_tas &tas = tas_[0];
  tas.node = other;
  key->owner = &tas;
  lors_rp_LinkToParent(key, nullptr);
  lors_rp_delete(alloc_.handle(), key);
  EXPECT_EQ(tas.node, other);
}

TEST_F(RpTest, DeleteOfNullIsIgnored) {
  uint64_t frees = alloc_.frees();
  lors_rp_delete(alloc_.handle(), nullptr);
  EXPECT_EQ(alloc_.frees(), frees);
}

// ---------------------------------------------------------------- linking

TEST_F(RpTest, ChildrenAreSortedByByteOrderShorterFirst) {
  for (const char *name : {"b", "a/", "c", "a", "B", "ab", "\xE4"}) Add(root_, name);
  EXPECT_EQ(Names(root_),
            (std::vector<std::string>{"B", "a", "a/", "ab", "b", "c", "\xE4"}));
  // "a" and "a/" are different keys side by side.
  EXPECT_EQ(S(Child(root_, "a")->name), "a");
  EXPECT_EQ(S(Child(root_, "a/")->name), "a/");
  EXPECT_EQ(Child(root_, "a")->flags & KEYF_DIR, 0u);
  EXPECT_EQ(Child(root_, "a/")->flags & KEYF_DIR, KEYF_DIR);
}

TEST_F(RpTest, EqualNamesGoBehindTheEarlierKey) {
  Add(root_, "a");
  lors_rp_node *first = Add(root_, "x");
  Add(root_, "z");
  lors_rp_node *second = Add(root_, "x");
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"a", "x", "x", "z"}));
  EXPECT_EQ(TAILQ_NEXT(first, link), second);
  EXPECT_EQ(Child(root_, "x"), first);
}

TEST_F(RpTest, LinkToParentMovesANodeBetweenParents) {
  lors_rp_node *p1 = Add(root_, "p1/");
  lors_rp_node *p2 = Add(root_, "p2/");
  Add(p1, "a");
  lors_rp_node *moved = Add(p1, "m");
  Add(p2, "b");
  Add(p2, "z");
  EXPECT_EQ(moved->parent, p1);

  lors_rp_LinkToParent(moved, p2);
  EXPECT_EQ(moved->parent, p2);
  EXPECT_EQ(Names(p1), (std::vector<std::string>{"a"}));
  EXPECT_EQ(Names(p2), (std::vector<std::string>{"b", "m", "z"}));

  lors_rp_LinkToParent(moved, nullptr);
  EXPECT_EQ(moved->parent, nullptr);
  EXPECT_EQ(Names(p2), (std::vector<std::string>{"b", "z"}));

  lors_rp_LinkToParent(nullptr, p2);
  EXPECT_EQ(Names(p2), (std::vector<std::string>{"b", "z"}));
  lors_rp_delete(alloc_.handle(), moved);
}

// ---------------------------------------------------------------- find/count

TEST_F(RpTest, FindWithIndexCountsOnlySelectedKeys) {
  Add(root_, "k0", "v");   // class 4
  Add(root_, "k1/");       // class 8
  Add(root_, "k2");        // class 0
  lors_rp_node *k3 = Add(root_, "k3", "v");
  Add(root_, "k4/");
  lors_rp_node *k5 = Add(root_, "k5", "v");
  uint32_t mask = (1u << KEYF_VALUE) | (1u << KEYF_DIR);

  EXPECT_EQ(lors_rp_find(&root_->children, 2, nullptr, mask), k3);
  EXPECT_EQ(lors_rp_find(&root_->children, 4, nullptr, mask), k5);
  EXPECT_EQ(lors_rp_find(&root_->children, 5, nullptr, mask), nullptr);
  EXPECT_EQ(S(lors_rp_find(&root_->children, 0, nullptr, 1u << 0)->name), "k2");
  EXPECT_EQ(S(lors_rp_find(&root_->children, 2, nullptr, LORS_RP_MASK_ALL)->name), "k2");
}

TEST_F(RpTest, FindByNameOnlyAmongSelectedKeys) {
  Add(root_, "a", "v");
  lors_rp_node *d = Add(root_, "d/");
  lstr name = L("d/");
  EXPECT_EQ(lors_rp_find(&root_->children, -1, &name, LORS_RP_MASK_ALL), d);
  EXPECT_EQ(lors_rp_find(&root_->children, -1, &name, 1u << KEYF_DIR), d);
  EXPECT_EQ(lors_rp_find(&root_->children, -1, &name, 1u << KEYF_VALUE), nullptr);
  lstr missing = L("d");
  EXPECT_EQ(lors_rp_find(&root_->children, -1, &missing, LORS_RP_MASK_ALL), nullptr);
  // Index and name: whichever matches first.
  lstr a = L("a");
  EXPECT_EQ(lors_rp_find(&root_->children, 1, &a, LORS_RP_MASK_ALL), Child(root_, "a"));
  EXPECT_EQ(lors_rp_find(nullptr, 0, nullptr, LORS_RP_MASK_ALL), nullptr);
}

TEST_F(RpTest, CountSelectsByClass) {
  EXPECT_EQ(lors_rp_count(&root_->children, LORS_RP_MASK_ALL), 0u);
  Add(root_, "a", "v");
  Add(root_, "b");
  lors_rp_node *d = Add(root_, "d/");
  Add(d, "below");
  lors_rp_node *u = Add(root_, "u", "v");
  u->flags |= KEYF_USER;
  EXPECT_EQ(lors_rp_count(&root_->children, 0), 0u);
  EXPECT_EQ(lors_rp_count(&root_->children, LORS_RP_MASK_ALL), 4u);
  EXPECT_EQ(lors_rp_count(&root_->children, 1u << KEYF_VALUE), 1u);
  EXPECT_EQ(lors_rp_count(&root_->children, 1u << (KEYF_VALUE | KEYF_USER)), 1u);
  EXPECT_EQ(lors_rp_count(&root_->children, (1u << KEYF_DIR) | 1u), 2u);
  EXPECT_EQ(lors_rp_count(nullptr, LORS_RP_MASK_ALL), 0u);
}

TEST(RpSelect, MaskBitPerClass) {
  EXPECT_EQ(lors_rp_selects(1u << 0, 0), 1);
  EXPECT_EQ(lors_rp_selects(1u << 0, KEYF_CHANGED), 1);
  EXPECT_EQ(lors_rp_selects(1u << 12, KEYF_DIR | KEYF_VALUE), 1);
  EXPECT_EQ(lors_rp_selects(1u << 12, KEYF_DIR), 0);
  EXPECT_EQ(lors_rp_selects(1u << 31, 31), 1);
  EXPECT_EQ(lors_rp_selects(0xFFFFFFFFu, KEYF_ROOT | KEYF_DIR), 1);
  EXPECT_EQ(lors_rp_selects(0, KEYF_DIR), 0);
}

// ---------------------------------------------------------------- path search

TEST_F(RpTest, SlashFindsTheRoot) {
  lors_rp_path_res res;
  EXPECT_EQ(Find("/", 0, 0, &res), 0);
  EXPECT_EQ(res.result, 0);
  EXPECT_EQ(res.node, root_);
  EXPECT_EQ(res.depth, 1);
  EXPECT_EQ(res.flags_all, root_->flags);
  EXPECT_EQ(res.flags_above, 0u);
  EXPECT_EQ(res.created, 0u);
  EXPECT_EQ(res.owner, nullptr);
}

TEST_F(RpTest, EmptyPathFindsNothing) {
  lors_rp_path_res res;
  std::memset(&res, 0x5A, sizeof(res));
  EXPECT_EQ(Find("", LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS, 0, &res), -2);
  EXPECT_EQ(res.result, -2);
  EXPECT_EQ(res.node, nullptr);
  EXPECT_EQ(res.depth, 0);
  EXPECT_EQ(res.flags_all, 0u);
  EXPECT_EQ(res.created, 0u);
  EXPECT_TRUE(TAILQ_EMPTY(&root_->children));
}

TEST_F(RpTest, PathWithoutLeadingSlashFindsNothing) {
  Add(root_, "a");
  lors_rp_path_res res;
  EXPECT_EQ(Find("a", LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS, 0, &res), -2);
  EXPECT_EQ(res.node, nullptr);
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"a"}));
}

TEST_F(RpTest, NullRequestOrResultIsRefused) {
  lors_rp_path_req req{};
  lors_rp_path_res res;
  EXPECT_EQ(lors_rp_PathFind(nullptr, &res), -22);
  EXPECT_EQ(lors_rp_PathFind(&req, nullptr), -22);
  // A request without a root finds nothing.
  req.path = L("/");
  EXPECT_EQ(lors_rp_PathFind(&req, &res), -2);
}

TEST_F(RpTest, FindsExistingKeysAndCollectsFlags) {
  lors_rp_node *a = Add(root_, "a/");
  a->flags |= KEYF_VOLATILE;
  lors_rp_node *b = Add(a, "b", "val");
  b->flags |= KEYF_USER;
  lors_rp_path_res res;
  EXPECT_EQ(Find("/a/b", 0, 0, &res), 0);
  EXPECT_EQ(res.node, b);
  EXPECT_EQ(res.depth, 3);
  EXPECT_EQ(res.flags_above, root_->flags | a->flags);
  EXPECT_EQ(res.flags_all, root_->flags | a->flags | b->flags);
  EXPECT_EQ(res.created, 0u);

  EXPECT_EQ(Find("/a/", 0, 0, &res), 0);
  EXPECT_EQ(res.node, a);
  EXPECT_EQ(res.depth, 2);
  EXPECT_EQ(res.flags_above, root_->flags);

  // "a" (a key) differs from "a/" (the directory).
  EXPECT_EQ(Find("/a", 0, 0, &res), -2);
  EXPECT_EQ(res.node, root_);
  EXPECT_EQ(res.depth, 1);
}

TEST_F(RpTest, CreateModesMakeDirectoriesOnTheWayAndTheKeyWithValue) {
  lstr value = L("v1");
  lors_rp_path_res res;
  ASSERT_EQ(Find("/a/b/c", LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS, 0, &res, &value), 0);
  EXPECT_EQ(res.created, 0x50u);
  EXPECT_EQ(res.depth, 4);

  lors_rp_node *a = Child(root_, "a/");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->flags, KEYF_DIR | KEYF_CHANGED);
  EXPECT_EQ(a->value.len, 0u);
  lors_rp_node *b = Child(a, "b/");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->flags, KEYF_DIR | KEYF_CHANGED);
  EXPECT_EQ(b->value.len, 0u);
  lors_rp_node *c = Child(b, "c");
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->flags, KEYF_VALUE | KEYF_CHANGED);
  EXPECT_EQ(S(c->value), "v1");
  EXPECT_EQ(c->parent, b);
  EXPECT_EQ(res.node, c);
  EXPECT_EQ(res.flags_above, root_->flags | KEYF_DIR | KEYF_CHANGED);
  EXPECT_EQ(res.flags_all, root_->flags | KEYF_DIR | KEYF_VALUE | KEYF_CHANGED);
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"a/"}));
  EXPECT_EQ(Names(a), (std::vector<std::string>{"b/"}));
  EXPECT_EQ(Names(b), (std::vector<std::string>{"c"}));

  // A second search finds the same keys and creates nothing.
  ASSERT_EQ(Find("/a/b/c", LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS, 0, &res, &value), 0);
  EXPECT_EQ(res.created, 0u);
  EXPECT_EQ(res.node, c);

  // Only the last key missing: 0x10 alone.
  ASSERT_EQ(Find("/a/b/d", LORS_RP_MODE_CREATE_KEY, 0, &res, nullptr), 0);
  EXPECT_EQ(res.created, 0x10u);
  EXPECT_EQ(res.node->flags, KEYF_CHANGED);
  EXPECT_EQ(Names(b), (std::vector<std::string>{"c", "d"}));
}

TEST_F(RpTest, CreateKeyModeAloneCreatesNothingWhenADirectoryIsMissing) {
  lstr value = L("v");
  lors_rp_path_res res;
  EXPECT_EQ(Find("/a/b/c", LORS_RP_MODE_CREATE_KEY, 0, &res, &value), -2);
  EXPECT_EQ(res.result, -2);
  EXPECT_EQ(res.created, 0u);
  EXPECT_EQ(res.node, root_);
  EXPECT_EQ(res.depth, 1);
  EXPECT_TRUE(TAILQ_EMPTY(&root_->children));
}

TEST_F(RpTest, CreateDirsModeAloneLeavesTheDirectoryMadeOnTheWay) {
  lors_rp_path_res res;
  EXPECT_EQ(Find("/a/b", LORS_RP_MODE_CREATE_DIRS, 0, &res), -2);
  EXPECT_EQ(res.result, -2);
  EXPECT_EQ(res.created, 0x40u);
  lors_rp_node *a = Child(root_, "a/");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->flags, KEYF_DIR | KEYF_CHANGED);
  EXPECT_TRUE(TAILQ_EMPTY(&a->children));
  EXPECT_EQ(res.node, a);
  EXPECT_EQ(res.depth, 2);
  EXPECT_EQ(alloc_.live_blocks(), 2u);
}

TEST_F(RpTest, PathEndingInSlashMakesADirectoryWithTheValue) {
  lstr value = L("dv");
  lors_rp_path_res res;
  ASSERT_EQ(Find("/d/", LORS_RP_MODE_CREATE_KEY, 0, &res, &value), 0);
  EXPECT_EQ(res.created, 0x10u);
  EXPECT_EQ(res.node->flags, KEYF_DIR | KEYF_VALUE | KEYF_CHANGED);
  EXPECT_EQ(S(res.node->value), "dv");
  // The same with only the directory bit: the last key can't be made.
  EXPECT_EQ(Find("/e/", LORS_RP_MODE_CREATE_DIRS, 0, &res, &value), -2);
  EXPECT_EQ(Child(root_, "e/"), nullptr);
}

TEST_F(RpTest, CreatedKeyWithEmptyValueHasNoValueFlag) {
  lstr empty = L("");
  lors_rp_path_res res;
  ASSERT_EQ(Find("/k", LORS_RP_MODE_CREATE_KEY, 0, &res, &empty), 0);
  EXPECT_EQ(res.node->flags, KEYF_CHANGED);
  EXPECT_EQ(res.node->value.len, 0u);
}

TEST_F(RpTest, LockOfAnotherTransactionRefusesWithTheLockedKey) {
  lors_rp_node *a = Add(root_, "a/");
  lors_rp_node *b = Add(a, "b", "v");
  lors_tas &tas = tas_[0];
  Lock(a, &tas, 5);
  lors_rp_path_res res;

  // tid 0 stands for no transaction and meets every lock.
  EXPECT_EQ(Find("/a/b", 0, 0, &res), -13);
  EXPECT_EQ(res.result, -13);
  EXPECT_EQ(res.node, a);
  EXPECT_EQ(res.owner, &tas);
  EXPECT_EQ(res.depth, 2);
  EXPECT_EQ(res.flags_all & KEYF_LOCKED, KEYF_LOCKED);

  EXPECT_EQ(Find("/a/b", 0, 7, &res), -13);
  EXPECT_EQ(res.node, a);

  // The lock's own transaction passes.
  EXPECT_EQ(Find("/a/b", 0, 5, &res), 0);
  EXPECT_EQ(res.node, b);
  EXPECT_EQ(res.owner, &tas);
  EXPECT_EQ(res.flags_above & KEYF_LOCKED, KEYF_LOCKED);

  // Readers with -1 pass all locks, and still learn of the lock.
  EXPECT_EQ(Find("/a/b", 0, -1, &res), 0);
  EXPECT_EQ(res.node, b);
  EXPECT_EQ(res.owner, &tas);
}

TEST_F(RpTest, LockOnTheRootAndOnTheLastKey) {
  lors_rp_node *k = Add(root_, "k", "v");
  lors_tas &tas = tas_[0];
  Lock(k, &tas, 3);
  lors_rp_path_res res;
  EXPECT_EQ(Find("/k", 0, 0, &res), -13);
  EXPECT_EQ(res.node, k);
  EXPECT_EQ(res.depth, 2);

  lors_tas &root_tas = tas_[1];
  Lock(root_, &root_tas, 9);
  EXPECT_EQ(Find("/", 0, 0, &res), -13);
  EXPECT_EQ(res.node, root_);
  EXPECT_EQ(res.owner, &root_tas);
  // Two locks on the way: the last one met is reported.
  EXPECT_EQ(Find("/k", 0, -1, &res), 0);
  EXPECT_EQ(res.owner, &tas);
  EXPECT_EQ(Find("/k", 0, 9, &res), -13);
  EXPECT_EQ(res.node, k);
  EXPECT_EQ(res.owner, &tas);
}

TEST_F(RpTest, LockStopsBeforeAnythingBelowIsCreated) {
  lors_rp_node *a = Add(root_, "a/");
  lors_tas &tas = tas_[0];
  Lock(a, &tas, 2);
  lors_rp_path_res res;
  lstr value = L("v");
  EXPECT_EQ(Find("/a/b/c", LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS, 0, &res, &value), -13);
  EXPECT_TRUE(TAILQ_EMPTY(&a->children));
  EXPECT_EQ(res.created, 0u);
}

TEST_F(RpTest, PathFindWithCreateFailsCleanlyAtEachAllocation) {
  lstr value = L("v");
  const uint32_t mode = LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS;
  for (uint64_t n = 1;; n++) {
    LogCapture log;
    alloc_.fail_at(n);
    lors_rp_path_res res;
    int32_t rc = Find("/a/b/c", mode, 0, &res, &value);
    alloc_.disarm();
    if (!alloc_.failed()) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(n, 4u) << "three keys to make";
      EXPECT_EQ(res.created, 0x50u);
      break;
    }
    SCOPED_TRACE("allocation " + std::to_string(n));
    EXPECT_EQ(rc, -12);
    EXPECT_EQ(res.result, -12);
    EXPECT_EQ(log.count("failed to malloc"), 1u);
    // The directories made before the failure stay; nothing else exists.
    EXPECT_EQ(alloc_.live_blocks(), 1 + (n - 1));
    lors_rp_node *a = Child(root_, "a/");
    lors_rp_node *b = a != nullptr ? Child(a, "b/") : nullptr;
    EXPECT_EQ(a != nullptr, n >= 2);
    EXPECT_EQ(b != nullptr, n >= 3);
    if (b != nullptr) {
      EXPECT_TRUE(TAILQ_EMPTY(&b->children));
    }
    EXPECT_EQ(res.created, n >= 2 ? 0x40u : 0u);
    // Start each round from an empty tree.
    lors_rp_node *child;
    while ((child = TAILQ_FIRST(&root_->children)) != nullptr)
      lors_rp_DeleteRecursive(alloc_.handle(), child, nullptr);
    EXPECT_EQ(alloc_.live_blocks(), 1u);
  }
  lors_rp_DeleteRecursive(alloc_.handle(), root_, nullptr);
  root_ = nullptr;
  EXPECT_EQ(alloc_.live_blocks(), 0u);
}

// ---------------------------------------------------------------- values

TEST_F(RpTest, ValueDiffersTable) {
  lors_rp_node *with = Add(root_, "w", "abc");
  lors_rp_node *without = Add(root_, "n");
  lstr same = L("abc"), greater = L("abd"), shorter = L("ab"), empty = L(""), x = L("x");

  EXPECT_EQ(lors_rp_ValueDiffers(with, &same), 0);
  EXPECT_LT(lors_rp_ValueDiffers(with, &greater), 0);
  EXPECT_GT(lors_rp_ValueDiffers(with, &shorter), 0);
  EXPECT_NE(lors_rp_ValueDiffers(with, &empty), 0);
  EXPECT_EQ(lors_rp_ValueDiffers(with, nullptr), 1);

  EXPECT_EQ(lors_rp_ValueDiffers(without, nullptr), 0);
  EXPECT_EQ(lors_rp_ValueDiffers(without, &empty), 0);
  EXPECT_EQ(lors_rp_ValueDiffers(without, &x), 1);
}

TEST_F(RpTest, UpdateValueReplacesTheNodeInPlace) {
  Add(root_, "a");
  lors_rp_node *k = Add(root_, "k/", "old");
  Add(root_, "z");
  k->flags |= KEYF_USER | KEYF_VOLATILE;
  k->flags &= ~KEYF_CHANGED;
  lors_rp_node *c1 = Add(k, "c1");
  lors_rp_node *c2 = Add(k, "c2/");
  lors_rp_node *c3 = Add(k, "c3", "x");
  Add(c2, "deep");
  size_t blocks = alloc_.live_blocks();

  lors_rp_node *ref = k;
  lstr value = L("new value");
  ASSERT_EQ(lors_rp_UpdateValue(alloc_.handle(), &ref, &value), 0);
  ASSERT_NE(ref, nullptr);
  EXPECT_EQ(alloc_.live_blocks(), blocks);
  EXPECT_EQ(S(ref->name), "k/");
  EXPECT_EQ(S(ref->value), "new value");
  EXPECT_EQ(ref->flags, KEYF_USER | KEYF_VOLATILE | KEYF_VALUE | KEYF_DIR | KEYF_CHANGED);
  EXPECT_EQ(ref->parent, root_);
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"a", "k/", "z"}));
  EXPECT_EQ(Child(root_, "k/"), ref);
  EXPECT_EQ(Names(ref), (std::vector<std::string>{"c1", "c2/", "c3"}));
  EXPECT_EQ(c1->parent, ref);
  EXPECT_EQ(c2->parent, ref);
  EXPECT_EQ(c3->parent, ref);
  EXPECT_EQ(Names(c2), (std::vector<std::string>{"deep"}));

  // An empty value drops KEYF_VALUE.
  lstr empty = L("");
  ASSERT_EQ(lors_rp_UpdateValue(alloc_.handle(), &ref, &empty), 0);
  EXPECT_EQ(ref->flags, KEYF_USER | KEYF_VOLATILE | KEYF_DIR | KEYF_CHANGED);
  EXPECT_EQ(ref->value.len, 0u);
  ASSERT_EQ(lors_rp_UpdateValue(alloc_.handle(), &ref, nullptr), 0);
  EXPECT_EQ(ref->flags & KEYF_VALUE, 0u);
  EXPECT_EQ(Names(ref), (std::vector<std::string>{"c1", "c2/", "c3"}));
}

TEST_F(RpTest, UpdateValueOfTheRootUpdatesTheCallersPointer) {
  Add(root_, "a");
  lors_rp_node *old = root_;
  lstr value = L("rv");
  ASSERT_EQ(lors_rp_UpdateValue(alloc_.handle(), &root_, &value), 0);
  EXPECT_NE(root_, old);
  EXPECT_EQ(root_->parent, nullptr);
  EXPECT_EQ(root_->flags, KEYF_ROOT | KEYF_DIR | KEYF_VALUE | KEYF_CHANGED);
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"a"}));
  lors_rp_path_res res;
  EXPECT_EQ(Find("/a", 0, 0, &res), 0);
  EXPECT_EQ(res.depth, 2);
}

TEST_F(RpTest, UpdateValueOnALockedKeyKeepsTheLock) {
  lors_rp_node *k = Add(root_, "k", "old");
  lors_tas &tas = tas_[0];
  Lock(k, &tas, 6);
  lors_rp_node *ref = k;
  lstr value = L("new");
  ASSERT_EQ(lors_rp_UpdateValue(alloc_.handle(), &ref, &value), 0);
  EXPECT_EQ(ref->owner, &tas);
  EXPECT_EQ(tas.node, ref);
  EXPECT_EQ(ref->flags & KEYF_LOCKED, KEYF_LOCKED);

  lors_rp_path_res res;
  EXPECT_EQ(Find("/k", 0, 0, &res), -13);
  EXPECT_EQ(res.owner, &tas);
  EXPECT_EQ(res.node, ref);
  lors_tas *owner = nullptr;
  EXPECT_EQ(lors_rp_ScanRecursive(root_, 0, &owner), -13);
  EXPECT_EQ(owner, &tas);
}

TEST_F(RpTest, UpdateValueFailureLeavesAllAsItWas) {
  lors_rp_node *k = Add(root_, "k", "old");
  Add(k, "child");
  lors_tas &tas = tas_[0];
  Lock(k, &tas, 2);
  size_t blocks = alloc_.live_blocks();
  lstr value = L("new");
  for (uint64_t n = 1;; n++) {
    LogCapture log;
    lors_rp_node *ref = k;
    alloc_.fail_at(n);
    int32_t rc = lors_rp_UpdateValue(alloc_.handle(), &ref, &value);
    alloc_.disarm();
    if (!alloc_.failed()) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(n, 2u) << "one allocation";
      EXPECT_EQ(S(ref->value), "new");
      EXPECT_EQ(tas.node, ref);
      break;
    }
    EXPECT_EQ(rc, -12);
    EXPECT_EQ(ref, k);
    EXPECT_EQ(S(k->value), "old");
    EXPECT_EQ(k->owner, &tas);
    EXPECT_EQ(tas.node, k);
    EXPECT_EQ(k->parent, root_);
    EXPECT_EQ(Child(root_, "k"), k);
    EXPECT_EQ(Names(k), (std::vector<std::string>{"child"}));
    EXPECT_EQ(alloc_.live_blocks(), blocks);
    EXPECT_TRUE(log.has_line("lors_rp_new(): failed to malloc " +
                             std::to_string(NodeSize("k", 3)) + " byte(s) for new key node\n"))
        << log.dump();
  }
}

TEST_F(RpTest, UpdateValueRefusesNullReferences) {
  lstr value = L("v");
  lors_rp_node *none = nullptr;
  EXPECT_EQ(lors_rp_UpdateValue(alloc_.handle(), nullptr, &value), -22);
  EXPECT_EQ(lors_rp_UpdateValue(alloc_.handle(), &none, &value), -22);
}

// ---------------------------------------------------------------- lock scan

TEST_F(RpTest, ScanFindsTheFirstForeignLockDepthFirst) {
  lors_rp_node *a = Add(root_, "a/");
  lors_rp_node *ax = Add(a, "x");
  lors_rp_node *b = Add(root_, "b");
  lors_tas &t3 = tas_[0], &t4 = tas_[1];
  Lock(ax, &t3, 3);
  Lock(b, &t4, 4);

  lors_tas *owner = nullptr;
  EXPECT_EQ(lors_rp_ScanRecursive(root_, 9, &owner), -13);
  EXPECT_EQ(owner, &t3);
  // Its own lock passes; the scan goes on to the next one.
  owner = nullptr;
  EXPECT_EQ(lors_rp_ScanRecursive(root_, 3, &owner), -13);
  EXPECT_EQ(owner, &t4);
  owner = nullptr;
  EXPECT_EQ(lors_rp_ScanRecursive(a, 3, &owner), 0);
  EXPECT_EQ(owner, nullptr);
  EXPECT_EQ(lors_rp_ScanRecursive(a, 0, nullptr), -13);
  // The start key itself counts.
  EXPECT_EQ(lors_rp_ScanRecursive(b, 0, &owner), -13);
  EXPECT_EQ(owner, &t4);
  EXPECT_EQ(lors_rp_ScanRecursive(nullptr, 0, &owner), 0);
}

TEST_F(RpTest, ScanOfAnUnlockedTreeFindsNothing) {
  Add(Add(root_, "a/"), "b");
  lors_tas *owner = nullptr;
  EXPECT_EQ(lors_rp_ScanRecursive(root_, 0, &owner), 0);
  EXPECT_EQ(owner, nullptr);
}

// ---------------------------------------------------------------- delete

TEST_F(RpTest, DeleteRecursiveCountsAndReportsKinds) {
  lors_rp_node *a = Add(root_, "a/");
  Add(a, "x");
  lors_rp_node *y = Add(a, "y/");
  Add(y, "z");
  Add(root_, "k");

  uint32_t kinds = 0;
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), a, &kinds), 4);
  EXPECT_EQ(kinds, LORS_RP_DELETED_KEY | LORS_RP_DELETED_DIR);
  EXPECT_EQ(kinds, 0x500u);
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"k"}));
  EXPECT_EQ(alloc_.live_blocks(), 2u);

  // The start key itself adds no kind.
  kinds = 0;
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), Child(root_, "k"), &kinds), 1);
  EXPECT_EQ(kinds, 0u);
  EXPECT_TRUE(TAILQ_EMPTY(&root_->children));

  lors_rp_node *d = Add(root_, "d/");
  Add(d, "k1");
  Add(d, "k2");
  kinds = 0x1;
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), d, &kinds), 3);
  EXPECT_EQ(kinds, 0x101u);

  lors_rp_node *e = Add(root_, "e/");
  Add(e, "only/");
  kinds = 0;
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), e, &kinds), 2);
  EXPECT_EQ(kinds, 0x400u);

  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), nullptr, &kinds), 0);
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), Add(root_, "n"), nullptr), 1);
  EXPECT_EQ(alloc_.live_blocks(), 1u);
}

TEST_F(RpTest, DeleteRecursiveClearsLocksBelow) {
  lors_rp_node *a = Add(root_, "a/");
  lors_rp_node *b = Add(a, "b");
  lors_tas &ta = tas_[0], &tb = tas_[1];
  Lock(a, &ta, 1);
  Lock(b, &tb, 2);
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), a, nullptr), 2);
  EXPECT_EQ(ta.node, nullptr);
  EXPECT_EQ(tb.node, nullptr);
}

TEST_F(RpTest, DeleteRecursiveOfTheRootFreesEverything) {
  lstr value = L("v");
  lors_rp_path_res res;
  const uint32_t mode = LORS_RP_MODE_CREATE_KEY | LORS_RP_MODE_CREATE_DIRS;
  for (const char *path : {"/a/b/c", "/a/d", "/e/f/", "/g"}) {
    ASSERT_EQ(Find(path, mode, 0, &res, &value), 0) << path;
  }
  EXPECT_EQ(alloc_.live_blocks(), 8u);
  uint32_t kinds = 0;
  EXPECT_EQ(lors_rp_DeleteRecursive(alloc_.handle(), root_, &kinds), 8);
  root_ = nullptr;
  EXPECT_EQ(kinds, 0x500u);
  EXPECT_EQ(alloc_.live_blocks(), 0u);
}

// ---------------------------------------------------------------- tree walk

struct Visit {
  std::string name;
  std::string path;
  int32_t level;
  int32_t visited;
};

// A walk record with the test's own state behind it; user points back.
struct Recorder {
  lors_rp_walk walk;
  std::vector<Visit> visits;
  std::string skip_children_of;  // callback result 1 for this key
  std::string abort_at;          // callback result -7 for this key
  char buffer[64];
};

int32_t RecordVisit(lors_rp_node *node, lors_rp_walk *walk) {
  auto *self = static_cast<Recorder *>(walk->user);
  EXPECT_EQ(walk, &self->walk);
  std::string path = walk->path.ptr != nullptr ? S(walk->path) : std::string();
  self->visits.push_back(Visit{S(node->name), path, walk->level, walk->visited});
  if (S(node->name) == self->abort_at) return -7;
  if (S(node->name) == self->skip_children_of) return 1;
  return 0;
}

void InitRecorder(Recorder *r, uint32_t path_max, uint32_t mask, bool with_path = true) {
  std::memset(&r->walk, 0, sizeof(r->walk));
  r->walk.path.ptr = with_path ? r->buffer : nullptr;
  r->walk.path.len = 0;
  r->walk.path_max = path_max;
  r->walk.mask = mask;
  r->walk.callback = &RecordVisit;
  r->walk.user = r;
}

std::vector<std::string> Paths(const Recorder &r) {
  std::vector<std::string> out;
  for (const auto &v : r.visits) out.push_back(v.path);
  return out;
}

class RpWalkTest : public RpTest {
 protected:
  void SetUp() override {
    RpTest::SetUp();
    // /a/ { x, y/ { z } }, /b, /c/ { w }
    lors_rp_node *a = Add(root_, "a/");
    Add(a, "x", "1");
    Add(Add(a, "y/"), "z", "2");
    Add(root_, "b", "3");
    Add(Add(root_, "c/"), "w");
  }
};

TEST_F(RpWalkTest, VisitsDepthFirstInChildOrderBuildingPaths) {
  Recorder r;
  InitRecorder(&r, 63, LORS_RP_MASK_ALL);
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/", "/a/", "/a/x", "/a/y/", "/a/y/z", "/b", "/c/",
                                                "/c/w"}));
  std::vector<int32_t> levels, visited;
  for (const auto &v : r.visits) {
    levels.push_back(v.level);
    visited.push_back(v.visited);
  }
  EXPECT_EQ(levels, (std::vector<int32_t>{0, 1, 2, 2, 3, 1, 1, 2}));
  EXPECT_EQ(visited, (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(r.walk.visited, 8);
  EXPECT_EQ(r.walk.level, 0);
  EXPECT_EQ(r.walk.path.len, 0u);
}

TEST_F(RpWalkTest, UnselectedKeysAreNotReportedButTheirChildrenAre) {
  Recorder r;
  InitRecorder(&r, 63, 1u << KEYF_VALUE);
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/a/x", "/a/y/z", "/b"}));
  EXPECT_EQ(r.walk.visited, 3);
}

TEST_F(RpWalkTest, WalkWithoutPathBufferBuildsNoPaths) {
  Recorder r;
  InitRecorder(&r, 0, LORS_RP_MASK_ALL, false);
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(r.walk.visited, 8);
  EXPECT_EQ(r.walk.path.len, 0u);
  for (const auto &v : r.visits) EXPECT_EQ(v.path, "");
}

TEST_F(RpWalkTest, PositiveCallbackResultSkipsChildrenAndGoesOn) {
  Recorder r;
  InitRecorder(&r, 63, LORS_RP_MASK_ALL);
  r.skip_children_of = "a/";
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/", "/a/", "/b", "/c/", "/c/w"}));
  EXPECT_EQ(r.walk.level, 0);
  EXPECT_EQ(r.walk.path.len, 0u);
}

TEST_F(RpWalkTest, NegativeCallbackResultEndsTheWalk) {
  Recorder r;
  InitRecorder(&r, 63, LORS_RP_MASK_ALL);
  r.abort_at = "z";
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), -7);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/", "/a/", "/a/x", "/a/y/", "/a/y/z"}));
  EXPECT_EQ(r.walk.visited, 5);
  EXPECT_EQ(r.walk.level, 0);
  EXPECT_EQ(r.walk.path.len, 0u);

  // At the start key itself.
  InitRecorder(&r, 63, LORS_RP_MASK_ALL);
  r.visits.clear();
  r.abort_at = "/";
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), -7);
  EXPECT_EQ(r.visits.size(), 1u);
}

TEST_F(RpWalkTest, TooLongPathLeavesTheSubtreeOutAndGoesOnWithSiblings) {
  // "/a/y/" is 5 bytes, "/a/y/z" 6; "/a/x", "/b", "/c/w" stay within 5.
  LogCapture log;
  Recorder r;
  InitRecorder(&r, 5, LORS_RP_MASK_ALL);
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/", "/a/", "/a/x", "/a/y/", "/b", "/c/", "/c/w"}));
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].text, "lors_rp_TreeWalk(): sorry, path exceeded 5 chars. skipping.\n");
  EXPECT_EQ(lines[0].module, kServerModule);
  EXPECT_EQ(r.walk.path.len, 0u);
  EXPECT_EQ(r.walk.level, 0);

  // With 4 the directory "/a/y/" goes with its whole subtree.
  log.clear();
  InitRecorder(&r, 4, LORS_RP_MASK_ALL);
  r.visits.clear();
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/", "/a/", "/a/x", "/b", "/c/", "/c/w"}));
  EXPECT_EQ(log.count("lors_rp_TreeWalk(): sorry, path exceeded 4 chars. skipping.\n"), 1u);
  EXPECT_EQ(r.walk.visited, 6);
}

TEST_F(RpWalkTest, WalkAppendsToAPathGivenAtTheStart) {
  Recorder r;
  InitRecorder(&r, 10, LORS_RP_MASK_ALL);
  std::memcpy(r.buffer, "/pre", 4);
  r.walk.path.len = 4;
  lors_rp_node *a = Child(root_, "a/");
  EXPECT_EQ(lors_rp_TreeWalk(a, &r.walk), 0);
  // "/pre" + "a/y/z" is 9 bytes, within 10.
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/prea/", "/prea/x", "/prea/y/", "/prea/y/z"}));
  EXPECT_EQ(r.walk.path.len, 4u);
}

TEST_F(RpWalkTest, CallbackMayTerminateThePathWithinTheSpareByte) {
  Recorder r;
  InitRecorder(&r, 6, LORS_RP_MASK_ALL);
  r.walk.callback = [](lors_rp_node *, lors_rp_walk *walk) -> int32_t {
    auto *self = static_cast<Recorder *>(walk->user);
    self->visits.push_back(Visit{"", lstr_zterm(&walk->path), walk->level, walk->visited});
    return 0;
  };
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(r.visits.size(), 8u);
  EXPECT_EQ(r.visits[4].path, "/a/y/z");
}

TEST_F(RpWalkTest, NullArgumentsGiveZero) {
  Recorder r;
  InitRecorder(&r, 63, LORS_RP_MASK_ALL);
  EXPECT_EQ(lors_rp_TreeWalk(nullptr, &r.walk), 0);
  EXPECT_EQ(lors_rp_TreeWalk(root_, nullptr), 0);
  EXPECT_EQ(r.walk.visited, 0);
  // Without a callback the walk still counts the selected keys.
  r.walk.callback = nullptr;
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(r.walk.visited, 8);
}

TEST_F(RpWalkTest, CallbackChangesToPathAndLevelDoNotLast) {
  Recorder r;
  InitRecorder(&r, 63, LORS_RP_MASK_ALL);
  r.walk.callback = [](lors_rp_node *node, lors_rp_walk *walk) -> int32_t {
    int32_t rc = RecordVisit(node, walk);
    walk->path.len = 0;
    walk->level = 99;
    return rc;
  };
  EXPECT_EQ(lors_rp_TreeWalk(root_, &r.walk), 0);
  EXPECT_EQ(Paths(r), (std::vector<std::string>{"/", "/a/", "/a/x", "/a/y/", "/a/y/z", "/b", "/c/",
                                                "/c/w"}));
  std::vector<int32_t> levels;
  for (const auto &v : r.visits) levels.push_back(v.level);
  EXPECT_EQ(levels, (std::vector<int32_t>{0, 1, 2, 2, 3, 1, 1, 2}));
  EXPECT_EQ(r.walk.level, 0);
  EXPECT_EQ(r.walk.path.len, 0u);
}

// ------------------------------------------------------------ deep trees

// Runs body on a thread with a small fixed stack, as the server's own
// thread has one.
void OnSmallStack(const std::function<void()> &body) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
  pthread_t thread;
  auto run = [](void *arg) -> void * {
    (*static_cast<const std::function<void()> *>(arg))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()> *>(&body)), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attr);
}

// A chain far deeper than a small stack could hold as one frame per level:
// scan, walk and delete follow the tree's links instead.
TEST_F(RpTest, ScanWalkAndDeleteNeedNoStackPerLevel) {
  const int kLevels = 50000;
  lors_rp_node *bottom = root_;
  for (int i = 0; i < kLevels; i++) bottom = Add(bottom, "d/");
  Lock(bottom, &tas_[0], 7);
  Add(root_, "z", "1");  // a sibling of the chain, visited after it

  int32_t scan = 0, deleted = 0, walked = 0, deepest = 0;
  lors_tas *owner = nullptr;
  lors_rp_walk walk{};
  OnSmallStack([&] {
    scan = lors_rp_ScanRecursive(root_, 0, &owner);
    walk.mask = LORS_RP_MASK_ALL;
    walk.user = &deepest;
    walk.callback = [](lors_rp_node *, lors_rp_walk *w) -> int32_t {
      int32_t *max = static_cast<int32_t *>(w->user);
      if (w->level > *max) *max = w->level;
      return 0;
    };
    walked = lors_rp_TreeWalk(root_, &walk);
    deleted = lors_rp_DeleteRecursive(alloc_.handle(), TAILQ_FIRST(&root_->children), nullptr);
  });
  EXPECT_EQ(scan, -13);
  EXPECT_EQ(owner, &tas_[0]);
  EXPECT_EQ(walked, 0);
  EXPECT_EQ(walk.visited, kLevels + 2);
  EXPECT_EQ(deepest, kLevels);
  EXPECT_EQ(walk.level, 0);
  EXPECT_EQ(deleted, kLevels);
  EXPECT_EQ(tas_[0].node, nullptr);
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"z"}));
}

}  // namespace
