/*
 * lors_rp: the key tree of the repository server.
 *
 * A key has a name, an optional value and flags. A directory is a key whose
 * name ends in "/": a path is cut after each "/", and each piece, slash
 * included, names one key. The root is named "/". Children are kept sorted
 * by lstr_cmp on their names, so "a" comes before "a/" and both may exist.
 *
 * Conventions
 * - Memory: each node is one block from the allocator handed in (record,
 *   then the name and one zero byte, then the value without terminator).
 *   name and value point into that block, value.ptr even for an empty
 *   value, so a value can't grow in place: a new value means a new node.
 *   Whoever unlinks a node owns it and frees it with lors_rp_delete or
 *   lors_rp_DeleteRecursive, with the allocator it was made with.
 * - Locks: node->owner points to the transaction that locks the key and its
 *   subtree. Key and transaction point to each other (owner and tas->node),
 *   and KEYF_LOCKED is set only while both links exist; lors_rp_delete and
 *   lors_rp_UpdateValue keep the transaction's side consistent.
 * - Errors come back as negative errno values: -2 for a key that is
 *   missing and may not be created, -12 when memory fails, -13 for a lock
 *   of another transaction, -22 for a null record where one is required.
 * - Threads: the server's thread alone touches a tree; nothing here takes a
 *   lock. Nodes are not reference counted: a pointer to a node is good only
 *   until the next value set or delete.
 */
#ifndef LOREG_LORS_RP_H
#define LOREG_LORS_RP_H

#include <stdint.h>
#include <sys/queue.h>

#include "loreg/loreg_alloc.h"
#include "loreg/loreg_export.h"
#include "loreg/lstr.h"

#ifdef __cplusplus
extern "C" {
#endif

struct lors_tas;

/* Key flags. Only the low eight bits leave the server (messages, file). */
#define KEYF_USER 0x01u          /* set and cleared by clients; saved */
#define KEYF_VOLATILE 0x02u      /* key and subtree not saved, don't dirty */
#define KEYF_VALUE 0x04u         /* the value has at least one byte */
#define KEYF_DIR 0x08u           /* the name ends in "/" */
#define KEYF_LOCKED 0x10u        /* a transaction locks the key */
#define KEYF_ROOT 0x20u          /* the root key */
#define KEYF_CHANGED 0x1000000u  /* changed since the last successful export */

/* The low five flag bits are a key's class, 0 to 31. A selection mask has
 * one bit per class; all ones selects every key. */
#define KEYF_CLASS_BITS 31u
#define LORS_RP_MASK_ALL 0xFFFFFFFFu

/* Non-zero when mask selects a key with these flags. */
static inline int lors_rp_selects(uint32_t mask, uint32_t flags) {
  return (int)((mask >> (flags & KEYF_CLASS_BITS)) & 1u);
}

/* Search modes of lors_rp_PathFind (the value set command's bits). */
#define LORS_RP_MODE_CREATE_KEY 0x10000u   /* make the last key if missing */
#define LORS_RP_MODE_CREATE_DIRS 0x20000u  /* make missing keys on the way */

/* Bits of lors_rp_path_res.created. */
#define LORS_RP_CREATED_KEY 0x10u  /* the last key was made by this search */
#define LORS_RP_CREATED_DIR 0x40u  /* a key on the way was made */

/* Bits that lors_rp_DeleteRecursive ORs into its kinds word. */
#define LORS_RP_DELETED_KEY 0x100u  /* a key that isn't a directory went */
#define LORS_RP_DELETED_DIR 0x400u  /* a directory below the start went */

typedef struct lors_rp_node lors_rp_node;
TAILQ_HEAD(lors_rp_children, lors_rp_node);
typedef struct lors_rp_children lors_rp_children;

struct lors_rp_node {
  TAILQ_ENTRY(lors_rp_node) link; /* next sibling (null at the end), and the
                                     link that points to this node */
  uint32_t flags;                 /* KEYF_* */
  lstr name;                      /* with its trailing "/" for a directory */
  lstr value;                     /* length 0: no value */
  struct lors_tas *owner;         /* transaction locking this subtree, or NULL */
  lors_rp_node *parent;           /* NULL for the root and unlinked nodes */
  lors_rp_children children;      /* sorted by name */
};

/* What a path search is given. */
typedef struct lors_rp_path_req {
  const loreg_allocator *allocator; /* for keys the search creates */
  lors_rp_node *root;               /* the tree, named "/" */
  lstr path;                        /* relative, beginning with "/" */
  uint32_t mode;                    /* LORS_RP_MODE_* bits; others ignored */
  const lstr *value;                /* value of a created last key, or NULL */
  int32_t tid;                      /* -1 passes all locks, 0 meets every lock */
} lors_rp_path_req;

/* What a path search returns. */
typedef struct lors_rp_path_res {
  int32_t result;           /* the function's result */
  int32_t depth;            /* keys passed, the last included */
  lors_rp_node *node;       /* the last key reached, or NULL */
  uint32_t flags_all;       /* flags of all keys passed, OR-ed */
  uint32_t flags_above;     /* the same without the last key */
  uint32_t created;         /* LORS_RP_CREATED_* */
  struct lors_tas *owner;   /* the last lock met on the way, or NULL */
} lors_rp_path_res;

typedef struct lors_rp_walk lors_rp_walk;

/* Called for each selected key of a walk. Above 0: skip the key's children
 * and go on with its next sibling; below 0: end the walk with that result;
 * 0: go on. */
typedef int32_t (*lors_rp_walk_cb)(lors_rp_node *node, lors_rp_walk *walk);

/* State of a tree walk. The owner may embed it at the start of a larger
 * record and let user point back to that. */
struct lors_rp_walk {
  int32_t visited;          /* keys selected so far; start at 0 */
  int32_t level;            /* depth below the start key; start at 0 */
  lstr path;                /* NULL ptr: no paths are built */
  uint32_t path_max;        /* longest path; the buffer needs one byte more */
  uint32_t mask;            /* which keys are reported */
  lors_rp_walk_cb callback; /* may be NULL */
  void *user;
};

/*
 * Makes a node that belongs nowhere, with copies of name and value (value
 * may be NULL, a NULL name counts as empty). Its flags are KEYF_CHANGED,
 * with KEYF_VALUE for a value of one byte or more and KEYF_DIR for a name
 * ending in "/". Returns the node, owned by the caller, or NULL when the
 * allocation fails (logged).
 */
LOREG_EXPORT lors_rp_node *lors_rp_new(const loreg_allocator *allocator, const lstr *name,
                                       const lstr *value);

/*
 * Frees one node, which must be unlinked already: neither parent nor
 * children are touched. If its transaction points back to it, that pointer
 * is cleared. NULL is ignored.
 */
LOREG_EXPORT void lors_rp_delete(const loreg_allocator *allocator, lors_rp_node *node);

/*
 * Finds a key among children, counting only the keys that mask selects: the
 * index-th of them (from 0), or the first whose name equals name (name may
 * be NULL). Index -1 therefore finds by name alone. Returns the key or
 * NULL; a NULL children gives NULL.
 */
LOREG_EXPORT lors_rp_node *lors_rp_find(const lors_rp_children *children, int32_t index,
                                        const lstr *name, uint32_t mask);

/* Number of keys among children that mask selects; NULL children gives 0. */
LOREG_EXPORT uint32_t lors_rp_count(const lors_rp_children *children, uint32_t mask);

/*
 * Unlinks node from its parent if it has one, and links it into parent in
 * sorted place: in front of the first child with a greater name, or at the
 * end. A NULL parent leaves the node unlinked; a NULL node does nothing.
 */
LOREG_EXPORT void lors_rp_LinkToParent(lors_rp_node *node, lors_rp_node *parent);

/*
 * Follows req->path from req->root, one key per path piece, and fills res
 * (cleared first; res->result repeats the result). Missing keys are made
 * with LORS_RP_MODE_CREATE_DIRS on the way and LORS_RP_MODE_CREATE_KEY at
 * the end (the last one with req->value); keys made on the way stay even
 * if a later step fails. Returns 0 with res->node the key found; -2 when a
 * key is missing and may not be made, or the path doesn't begin with the
 * root's name; -12 when memory fails (logged); -13 when a key on the way
 * is locked by a transaction other than req->tid (res->node is that key);
 * -22 for a NULL req or res.
 */
LOREG_EXPORT int32_t lors_rp_PathFind(const lors_rp_path_req *req, lors_rp_path_res *res);

/*
 * Compares a key's value with value (NULL meaning none). An empty value
 * equals no value; a NULL node counts as a key without value. Returns 0 if
 * equal, else non-zero (lstr_cmp's sign when both have bytes).
 */
LOREG_EXPORT int lors_rp_ValueDiffers(const lors_rp_node *node, const lstr *value);

/*
 * Replaces *node_ref by a new node with the same name and the given value
 * (NULL: none). The new node takes the old flags (KEYF_VALUE derived anew,
 * KEYF_CHANGED set), the old place under the parent, the lock (the
 * transaction then points to the new node) and all children; the old node
 * is freed. Only *node_ref is updated: a caller replacing the root passes
 * the server's root field. Returns 0, -12 when memory fails (logged; all
 * stays as it was), or -22 for a NULL node_ref or *node_ref.
 */
LOREG_EXPORT int32_t lors_rp_UpdateValue(const loreg_allocator *allocator,
                                         lors_rp_node **node_ref, const lstr *value);

/*
 * Looks at node and its subtree, depth first in child order, for a key
 * locked by a transaction whose id isn't tid. Returns 0 if none, else -13
 * and stores the first such transaction in *owner if owner isn't NULL.
 * A NULL node gives 0. Needs no stack per level of the tree.
 */
LOREG_EXPORT int32_t lors_rp_ScanRecursive(const lors_rp_node *node, int32_t tid,
                                           struct lors_tas **owner);

/*
 * Frees node and its whole subtree, children first in order, node last,
 * which is unlinked from its parent. For each key below node (not node
 * itself), ORs LORS_RP_DELETED_DIR or LORS_RP_DELETED_KEY into *kinds if
 * kinds isn't NULL. Returns the number of keys freed, node included; a
 * NULL node gives 0. Needs no stack per level of the tree.
 */
LOREG_EXPORT int32_t lors_rp_DeleteRecursive(const loreg_allocator *allocator,
                                             lors_rp_node *node, uint32_t *kinds);

/*
 * Walks node and its subtree depth first, in child order, calling
 * walk->callback for each key that walk->mask selects (unselected keys are
 * not reported, but their children are). With a path buffer, each key's
 * name is appended to walk->path while the key and its subtree are
 * visited; a key whose path would exceed path_max is left out with its
 * subtree (logged), and the walk goes on with its siblings. Callbacks read
 * walk->level (its starting value at node, one more per level below) and
 * walk->path; the walk sets both again after each callback, so a
 * callback's changes to them don't last. Returns 0, or
 * the first negative callback result, which ends the walk; path and level
 * are as they were at the start either way. NULL arguments give 0. Needs
 * no stack per level of the tree.
 */
LOREG_EXPORT int32_t lors_rp_TreeWalk(lors_rp_node *node, lors_rp_walk *walk);

#ifdef __cplusplus
}
#endif

#endif
