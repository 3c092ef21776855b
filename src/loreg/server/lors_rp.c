#include "loreg/lors_rp.h"

#include <string.h>

#include "common/loreg_debug.h"
#include "loreg/lors_tas.h"

lors_rp_node *lors_rp_new(const loreg_allocator *allocator, const lstr *name, const lstr *value) {
  uint32_t name_len = name != NULL ? name->len : 0;
  uint32_t value_len = value != NULL ? value->len : 0;
  size_t size = sizeof(lors_rp_node) + (size_t)name_len + 1 + (size_t)value_len;

  lors_rp_node *node = loreg_malloc(allocator, size);
  if (node == NULL) {
    LOREG_LOG(LOREG_LVL_FAIL, LOREG_MOD_SERVER, "%s(): failed to malloc %u byte(s) for new key node\n",
              __func__, (unsigned)size);
    return NULL;
  }
  memset(node, 0, size);
  TAILQ_INIT(&node->children);

  /* Name, its zero byte, then the value: the value has no terminator, but
   * its pointer is valid even when it is empty. */
  char *bytes = (char *)(node + 1);
  node->name.ptr = bytes;
  node->name.len = name_len;
  if (name_len > 0) memcpy(bytes, name->ptr, name_len);
  node->value.ptr = bytes + name_len + 1;
  node->value.len = value_len;
  if (value_len > 0) memcpy(node->value.ptr, value->ptr, value_len);

  node->flags = KEYF_CHANGED;
  if (value_len > 0) node->flags |= KEYF_VALUE;
  if (name_len > 0 && bytes[name_len - 1] == '/') node->flags |= KEYF_DIR;
  return node;
}

void lors_rp_delete(const loreg_allocator *allocator, lors_rp_node *node) {
  if (node == NULL) return;
  /* A transaction whose key goes away stays alive without a key. */
  if (node->owner != NULL && node->owner->node == node) node->owner->node = NULL;
  loreg_free(allocator, node);
}

lors_rp_node *lors_rp_find(const lors_rp_children *children, int32_t index, const lstr *name,
                           uint32_t mask) {
  if (children == NULL) return NULL;
  int32_t position = 0;
  lors_rp_node *child;
  TAILQ_FOREACH(child, children, link) {
    if (!lors_rp_selects(mask, child->flags)) continue;
    if (position == index) return child;
    if (name != NULL && lstr_cmp(name, &child->name) == 0) return child;
    position++;
  }
  return NULL;
}

uint32_t lors_rp_count(const lors_rp_children *children, uint32_t mask) {
  if (children == NULL) return 0;
  uint32_t count = 0;
  const lors_rp_node *child;
  TAILQ_FOREACH(child, children, link) {
    if (lors_rp_selects(mask, child->flags)) count++;
  }
  return count;
}

void lors_rp_LinkToParent(lors_rp_node *node, lors_rp_node *parent) {
  if (node == NULL) return;
  if (node->parent != NULL) {
    TAILQ_REMOVE(&node->parent->children, node, link);
    node->parent = NULL;
  }
  if (parent == NULL) return;

  /* A key goes behind all keys of an equal name, so a later duplicate
   * follows the earlier one. Children are always sorted, so a key that
   * sorts at or after the last child is appended without a walk: the
   * import reads every directory in order and would otherwise pay a walk
   * over all siblings for each key. */
  lors_rp_node *last = TAILQ_LAST(&parent->children, lors_rp_children);
  lors_rp_node *child = NULL;
  if (last != NULL && lstr_cmp(&last->name, &node->name) > 0) {
    TAILQ_FOREACH(child, &parent->children, link) {
      if (lstr_cmp(&child->name, &node->name) > 0) break;
    }
  }
  if (child != NULL) {
    TAILQ_INSERT_BEFORE(child, node, link);
  } else {
    TAILQ_INSERT_TAIL(&parent->children, node, link);
  }
  node->parent = parent;
}

/* Makes the missing key segment below cur if the search mode allows it:
 * a key on the way (more path follows) without value, or the last key with
 * the requested value. */
static int32_t _lors_rp_create(const lors_rp_path_req *req, lors_rp_node *cur, const lstr *segment,
                               int last, lors_rp_path_res *res, lors_rp_node **created) {
  uint32_t needed = last ? LORS_RP_MODE_CREATE_KEY : LORS_RP_MODE_CREATE_DIRS;
  if ((req->mode & needed) == 0) return -2;
  lors_rp_node *node = lors_rp_new(req->allocator, segment, last ? req->value : NULL);
  if (node == NULL) return -12;
  lors_rp_LinkToParent(node, cur);
  res->created |= last ? LORS_RP_CREATED_KEY : LORS_RP_CREATED_DIR;
  *created = node;
  return 0;
}

int32_t lors_rp_PathFind(const lors_rp_path_req *req, lors_rp_path_res *res) {
  if (req == NULL || res == NULL) return -22;
  memset(res, 0, sizeof(*res));

  lstr rest = req->path;
  lors_rp_node *cur = NULL;
  int32_t rc;
  for (;;) {
    /* One piece of the path, through its "/" if there is one. */
    lstr segment = rest;
    lstr remaining = {NULL, 0};
    const char *slash = lstr_chr(&rest, '/');
    if (slash != NULL) {
      segment.len = (uint32_t)(slash - rest.ptr) + 1;
      remaining.ptr = rest.ptr + segment.len;
      remaining.len = rest.len - segment.len;
    }

    lors_rp_node *key;
    if (cur == NULL) {
      key = req->root;
      if (key == NULL || lstr_cmp(&key->name, &segment) != 0) {
        rc = -2;
        break;
      }
    } else {
      key = lors_rp_find(&cur->children, -1, &segment, LORS_RP_MASK_ALL);
      if (key == NULL) {
        rc = _lors_rp_create(req, cur, &segment, remaining.len == 0, res, &key);
        if (rc != 0) break;
      }
    }

    res->node = key;
    res->depth++;
    res->flags_all |= key->flags;
    if (key->owner != NULL) {
      res->owner = key->owner;
      if (req->tid >= 0 && req->tid != key->owner->tid) {
        rc = -13;
        break;
      }
    }
    if (remaining.len == 0) {
      rc = 0;
      break;
    }
    res->flags_above |= key->flags;
    rest = remaining;
    cur = key;
  }
  res->result = rc;
  return rc;
}

int lors_rp_ValueDiffers(const lors_rp_node *node, const lstr *value) {
  if (node == NULL || !(node->flags & KEYF_VALUE)) return value != NULL && value->len != 0;
  return value != NULL ? lstr_cmp(&node->value, value) : 1;
}

int32_t lors_rp_UpdateValue(const loreg_allocator *allocator, lors_rp_node **node_ref,
                            const lstr *value) {
  if (node_ref == NULL || *node_ref == NULL) return -22;
  lors_rp_node *old = *node_ref;
  lors_rp_node *node = lors_rp_new(allocator, &old->name, value);
  if (node == NULL) return -12;

  node->flags |= old->flags & ~KEYF_VALUE;

  /* Same name, so linking after the unlink puts it in the old place. */
  lors_rp_node *parent = old->parent;
  if (parent != NULL) {
    lors_rp_LinkToParent(old, NULL);
    lors_rp_LinkToParent(node, parent);
  }

  if (old->owner != NULL) {
    node->owner = old->owner;
    node->owner->node = node;
    old->owner = NULL;
  }

  lors_rp_node *child;
  while ((child = TAILQ_FIRST(&old->children)) != NULL) lors_rp_LinkToParent(child, node);

  lors_rp_delete(allocator, old);
  *node_ref = node;
  return 0;
}

/* The key that follows node in a depth-first walk of start's subtree once
 * node's own subtree is done: its next sibling, or else the next sibling
 * of its nearest ancestor that has one, without leaving start's subtree.
 * Null when the walk is over. The walks below use the tree's own links
 * instead of recursion, since a path of one message already reaches
 * thousands of levels, far more than the server thread's stack would hold
 * as frames. */
static const lors_rp_node *_lors_rp_after(const lors_rp_node *start, const lors_rp_node *node) {
  while (node != start) {
    const lors_rp_node *next = TAILQ_NEXT(node, link);
    if (next != NULL) return next;
    node = node->parent;
  }
  return NULL;
}

int32_t lors_rp_ScanRecursive(const lors_rp_node *node, int32_t tid, struct lors_tas **owner) {
  const lors_rp_node *start = node;
  while (node != NULL) {
    if (node->owner != NULL && node->owner->tid != tid) {
      if (owner != NULL) *owner = node->owner;
      return -13;
    }
    const lors_rp_node *child = TAILQ_FIRST(&node->children);
    node = child != NULL ? child : _lors_rp_after(start, node);
  }
  return 0;
}

int32_t lors_rp_DeleteRecursive(const loreg_allocator *allocator, lors_rp_node *node,
                                uint32_t *kinds) {
  if (node == NULL) return 0;
  lors_rp_node *start = node;
  int32_t count = 0;
  /* Down to the first key without children, free it, and go on from its
   * parent, whose first child is then the next one: children go first,
   * in order, and start last. */
  for (;;) {
    lors_rp_node *child = TAILQ_FIRST(&node->children);
    if (child != NULL) {
      if (kinds != NULL) {
        *kinds |= (child->flags & KEYF_DIR) ? LORS_RP_DELETED_DIR : LORS_RP_DELETED_KEY;
      }
      node = child;
      continue;
    }
    lors_rp_node *parent = node->parent;
    int done = node == start;
    lors_rp_LinkToParent(node, NULL);
    lors_rp_delete(allocator, node);
    count++;
    if (done) return count;
    node = parent;
  }
}

/* Enters one key of a walk: appends its name to the path and reports it.
 * Returns a negative callback result that ends the walk, or 0; *entered
 * tells whether the name was appended (the key is inside path_max), and
 * *descend whether its children are to be walked. */
static int32_t _lors_rp_walk_enter(lors_rp_node *node, lors_rp_walk *walk, int32_t level,
                                   int *entered, int *descend) {
  *entered = 1;
  *descend = 1;
  if (walk->path.ptr != NULL) {
    if ((uint64_t)walk->path.len + node->name.len > walk->path_max) {
      LOREG_LOG(LOREG_LVL_WARN, LOREG_MOD_SERVER,
                "%s(): sorry, path exceeded %u chars. skipping.\n", "lors_rp_TreeWalk",
                (unsigned)walk->path_max);
      *entered = 0;
      *descend = 0;
      return 0;
    }
    lstr_append(&walk->path, &node->name);
  }
  if (!lors_rp_selects(walk->mask, node->flags)) return 0;
  walk->visited++;
  if (walk->callback == NULL) return 0;
  /* The walk owns path.len and level: what a callback does to them is
   * undone, so that the names can be taken off again on the way up. */
  uint32_t path_len = walk->path.len;
  walk->level = level;
  int32_t rc = walk->callback(node, walk);
  walk->path.len = path_len;
  walk->level = level;
  if (rc > 0) *descend = 0;
  return rc < 0 ? rc : 0;
}

/* Leaves a key of a walk, and each ancestor whose last child it was,
 * taking their names off the path, and returns the next sibling found on
 * the way up, or null once start is left. appended tells whether the key's
 * own name is on the path; every ancestor's is, since only keys that were
 * entered have their children walked. */
static lors_rp_node *_lors_rp_walk_leave(const lors_rp_node *start, lors_rp_node *node,
                                         lors_rp_walk *walk, int appended, int32_t *level) {
  for (;;) {
    if (appended && walk->path.ptr != NULL) walk->path.len -= node->name.len;
    if (node == start) return NULL;
    lors_rp_node *next = TAILQ_NEXT(node, link);
    if (next != NULL) return next;
    node = node->parent;
    (*level)--;
    appended = 1;
  }
}

int32_t lors_rp_TreeWalk(lors_rp_node *node, lors_rp_walk *walk) {
  if (node == NULL || walk == NULL) return 0;
  const lors_rp_node *start = node;
  const uint32_t start_len = walk->path.len;
  const int32_t start_level = walk->level;
  int32_t level = start_level;
  int32_t rc = 0;

  while (node != NULL) {
    int entered, descend;
    rc = _lors_rp_walk_enter(node, walk, level, &entered, &descend);
    if (rc < 0) break;
    lors_rp_node *child = descend ? TAILQ_FIRST(&node->children) : NULL;
    if (child != NULL) {
      level++;
      node = child;
    } else {
      node = _lors_rp_walk_leave(start, node, walk, entered, &level);
    }
  }
  walk->path.len = start_len;
  walk->level = start_level;
  return rc;
}
