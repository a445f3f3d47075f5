// The node record, its five variants, the flag bits, the table handle and the
// store context.
//
// Contract
// - Every element of a tree (root, containers, list nodes, list instances,
//   leaves, attributes) is one record that starts with the common head
//   `arbo_node`. The variants `int_node`, `dyn_node` and `gen_node` repeat the
//   head as their first member, so a pointer to any variant converts to and
//   from `arbo_node*` (the project builds with -fno-strict-aliasing).
// - A `dyn_node` doubles as the header node of its skip list: its list heads
//   sit at the offset of a gen node's forward pointers, so `dn_header(dn)`
//   viewed as a `gen_node` has `next[i] == head[i]`. The header view is the
//   list node's own address, a value no instance can have.
// - Keys and values of at most 10 bytes live inside the node; longer ones in a
//   shared `arbo_bin` resource. A node owns one reference to each `arbo_bin`
//   its slots point to.
// - Nothing here locks. Callers hold the table lock (shared to read,
//   exclusive to change) for as long as they touch any node.
#ifndef ARBO_NODE_H
#define ARBO_NODE_H

#include <erl_nif.h>

#include <cstddef>
#include <cstdint>

#include "arbo_assert.h"

namespace arbo {

// ---- node types -----------------------------------------------------------
enum : uint32_t {
  T_INT_NODE = 1,      // container addressed by an integer tag
  T_DYN_NODE = 2,      // list node; children are the list's instances
  T_GEN_NODE_ONE = 3,  // general node, skip-list height 1
  T_GEN_NODE_TWO = 4,  // height 2; every instance of a user-ordered list
  T_GEN_NODE_MAX = 5,  // height 3 to 7; also the root (height 0)
};

// ---- flag bits of the type word (bits 3 to 8) -----------------------------
constexpr uint32_t F_KEY_IS_TUPLE = 0x8;
constexpr uint32_t F_KEY_IS_BTUPLE = 0x10;
constexpr uint32_t F_KEY_IS_BIN = 0x20;
constexpr uint32_t F_VAL_IS_BIN = 0x40;
constexpr uint32_t F_VAL_IS_SMALL = 0x80;
constexpr uint32_t F_VAL_IS_BIN_NOSTR = 0x100;
constexpr uint32_t kValFlags = F_VAL_IS_BIN | F_VAL_IS_SMALL | F_VAL_IS_BIN_NOSTR;
constexpr uint32_t kKeyFlags = F_KEY_IS_TUPLE | F_KEY_IS_BTUPLE | F_KEY_IS_BIN;
constexpr uint32_t kTypeMask = 0x7;
constexpr uint32_t kFlagBitsMask = 0x1f8;     // bits 3 to 8
constexpr uint32_t kLowBitsMask = 0x1ff;      // type and flag bits
constexpr uint32_t kUflagsInlineMax = 0x3fffff;
constexpr uint32_t kUflagsIndexed = 0x80000000u;

constexpr int kSmallMax = 10;    // bytes kept inline in `val`
constexpr int kMaxLevels = 8;    // skip-list heads of a list node
constexpr int kMaxHeight = 7;    // tallest height ever drawn

// Iterator fix-up values handed to deletions (see arbo_stack.h).
constexpr uintptr_t kNoFixup = 1;
constexpr uintptr_t kBeforeFirst = 2;

// ---- the shared binary ------------------------------------------------------
// Payload of an "arbo_binary" resource: the byte count, then the bytes.
struct arbo_bin {
  uint64_t len;
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(this + 1); }
  const unsigned char* bytes() const {
    return reinterpret_cast<const unsigned char*>(this + 1);
  }
};

// ---- the common head ---------------------------------------------------------
struct arbo_node {
  uintptr_t key;    // hkey in the low 32 bits, or an arbo_bin* (F_KEY_IS_BIN)
  arbo_node* attr;  // first attribute, ascending keys, chained by next[0]
  uint32_t tw;      // type word: type bits 0-2, flags 3-8, uflags 9-31
  arbo_node* child;

  uint32_t type() const { return tw & kTypeMask; }
  uint32_t flags() const { return tw & kFlagBitsMask; }
  bool has(uint32_t f) const { return (tw & f) != 0; }
  void set(uint32_t f) { tw |= f; }
  void clear(uint32_t f) { tw &= ~f; }
  bool is_gen() const { return type() >= T_GEN_NODE_ONE; }
  bool is_dyn() const { return type() == T_DYN_NODE; }
  uint32_t hkey() const { return static_cast<uint32_t>(key); }
  void set_hkey(uint32_t k) { key = k; }
  arbo_bin* key_bin() const { return reinterpret_cast<arbo_bin*>(key); }
};

struct int_node {
  arbo_node hd;
  arbo_node* next;
};

struct dyn_node {
  arbo_node hd;
  uint32_t ns;
  uint8_t cmp;   // 0, 1, 2: sorted by that comparison mode; 3: user order
  uint8_t curh;  // levels in use; searches start at index curh
  int32_t size;  // number of instances
  uint32_t header_area_;  // lines the heads up with a gen node's next[]
  // cmp 3: head[0] first, head[1] last, head[2] the hash index
  arbo_node* head[kMaxLevels];
  arbo_node* next;
};

struct gen_node {
  arbo_node hd;
  uint32_t ns;
  unsigned char val[kSmallMax];  // inline value, inline key, or arbo_bin*
  uint8_t small_len;
  uint8_t height;
  arbo_node* next[1];  // really `height` links: 1, 2 or 8 slots by type
};

static_assert(offsetof(dyn_node, head) == offsetof(gen_node, next),
              "list heads must line up with forward pointers");
static_assert(sizeof(int_node) == 40 && sizeof(dyn_node) == 120,
              "node records are part of the memory accounting");
static_assert(sizeof(arbo_bin) == 8, "arbo_bin header is 8 bytes");

inline int_node* as_int(arbo_node* n) { return reinterpret_cast<int_node*>(n); }
inline dyn_node* as_dyn(arbo_node* n) { return reinterpret_cast<dyn_node*>(n); }
inline gen_node* as_gen(arbo_node* n) { return reinterpret_cast<gen_node*>(n); }
inline const int_node* as_int(const arbo_node* n) {
  return reinterpret_cast<const int_node*>(n);
}
inline const dyn_node* as_dyn(const arbo_node* n) {
  return reinterpret_cast<const dyn_node*>(n);
}
inline const gen_node* as_gen(const arbo_node* n) {
  return reinterpret_cast<const gen_node*>(n);
}

// The skip-list header view of a list node.
inline gen_node* dn_header(arbo_node* dn) { return reinterpret_cast<gen_node*>(dn); }

// Record size of a node type; 0 for codes outside 1 to 5.
constexpr size_t node_size(uint32_t type) {
  switch (type) {
    case T_INT_NODE: return sizeof(int_node);
    case T_DYN_NODE: return sizeof(dyn_node);
    case T_GEN_NODE_ONE: return offsetof(gen_node, next) + 1 * sizeof(arbo_node*);
    case T_GEN_NODE_TWO: return offsetof(gen_node, next) + 2 * sizeof(arbo_node*);
    case T_GEN_NODE_MAX: return offsetof(gen_node, next) + 8 * sizeof(arbo_node*);
    default: return 0;
  }
}

// The sibling link of a node: `next` for containers and list nodes, `next[0]`
// for gen nodes. Every walk of a child list or attribute list uses this.
inline arbo_node** sibling_slot(arbo_node* n) {
  switch (n->type()) {
    case T_INT_NODE: return &as_int(n)->next;
    case T_DYN_NODE: return &as_dyn(n)->next;
    default: return &as_gen(n)->next[0];
  }
}
inline arbo_node* sibling(const arbo_node* n) {
  return *sibling_slot(const_cast<arbo_node*>(n));
}

// Namespace of a node; a container has none and counts as 0.
inline uint32_t node_ns(const arbo_node* n) {
  switch (n->type()) {
    case T_INT_NODE: return 0;
    case T_DYN_NODE: return as_dyn(n)->ns;
    default: return as_gen(n)->ns;
  }
}
inline void set_node_ns(arbo_node* n, uint32_t ns) {
  if (n->type() == T_DYN_NODE) as_dyn(n)->ns = ns;
  else if (n->is_gen()) as_gen(n)->ns = ns;
}

// True when the key lives in an arbo_bin (not inline, not an integer).
inline bool _arbo_node_key_is_bin(const arbo_node* n) {
  if (n == nullptr || !n->has(F_KEY_IS_BIN) || n->key == 0) return false;
  return !n->is_gen() || as_gen(n)->small_len == 0;
}

// Bytes of a binary key: from its arbo_bin, else inline in `val`. The length
// is the low 32 bits of the byte count, signed, as the comparison reads it.
struct key_bytes {
  const unsigned char* ptr;
  int32_t len;
};
inline key_bytes node_key_bytes(const arbo_node* n) {
  if (n->key != 0) {
    const arbo_bin* b = n->key_bin();
    return {b->bytes(), static_cast<int32_t>(static_cast<uint32_t>(b->len))};
  }
  if (n->is_gen()) return {as_gen(n)->val, as_gen(n)->small_len};
  return {nullptr, 0};
}

// An instance is inactive when its attribute list begins with key 0. List
// nodes are never inactive.
inline bool is_inactive(const arbo_node* n) {
  return n->type() != T_DYN_NODE && n->attr != nullptr && n->attr->hkey() == 0;
}

// ---- the table handle ----------------------------------------------------------
struct arbo_alloc_state;
struct iter_stack;
struct node_pool;

struct arbo_t {
  ErlNifRWLock* lock;
  ErlNifPid owner;
  uint64_t mem;         // bytes held by this table's nodes (root included)
  uint32_t size;        // nodes below the root
  uint32_t generation;  // structural change counter
  arbo_alloc_state* alloc_state;
  arbo_node* root;      // null once closed
  iter_stack* iter_nodes;
  node_pool* pool;      // where the nodes live; null before creation and once closed
};

// Every allocating store operation receives the table (for the counters) and
// the calling environment (for the library's private data).
struct store_ctx {
  arbo_t* table;
  ErlNifEnv* env;
  int32_t capture = 0;  // the loader's capture flag; 0 elsewhere
};

// A length and a pointer to bytes that someone else owns.
struct bin_ref {
  size_t len;
  const unsigned char* ptr;
};

// Hash key record of a user-ordered list's index: 16 bytes, owned by the index.
struct ht_key {
  const unsigned char* bytes;  // key bytes, or null for an integer key
  uint64_t len_or_int;         // byte length, or the integer key
};
static_assert(sizeof(ht_key) == 16, "callers count on the 16-byte key record");

}  // namespace arbo

#endif  // ARBO_NODE_H
