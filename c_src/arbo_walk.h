// The explicit stack every walk over a tree's depth uses instead of the C
// stack: a tree may be a chain of millions of levels, and a native call must
// not overflow the scheduler's stack whatever shape the tree has.
//
// Contract
// - Grows by doubling through enif_realloc; exhausted memory is a fatal
//   assertion, as for every other allocation of the store.
// - Holds plain frames (trivially copyable); references into the stack are
//   invalidated by push().
// - Not shared: one walk, one stack, on the caller's thread.
#ifndef ARBO_WALK_H
#define ARBO_WALK_H

#include <erl_nif.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "arbo_assert.h"

namespace arbo {

template <typename Frame>
class WalkStack {
  static_assert(std::is_trivially_copyable_v<Frame>, "frames are moved with realloc");

 public:
  WalkStack() = default;
  ~WalkStack() {
    if (data_ != nullptr) enif_free(data_);
  }
  WalkStack(const WalkStack&) = delete;
  WalkStack& operator=(const WalkStack&) = delete;

  void push(const Frame& f) {
    if (size_ == cap_) {
      const size_t cap = cap_ == 0 ? 64 : cap_ * 2;
      void* grown = enif_realloc(data_, cap * sizeof(Frame));
      ARBO_ASSERT(grown != nullptr);
      data_ = static_cast<Frame*>(grown);
      cap_ = cap;
    }
    data_[size_++] = f;
  }
  void pop() { --size_; }
  Frame& top() { return data_[size_ - 1]; }
  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }

 private:
  Frame* data_ = nullptr;
  size_t size_ = 0;
  size_t cap_ = 0;
};

// What a walk does with the node it has reached.
enum class Step { kStop, kSkip, kEnter };

// Walks the nodes below `parent` depth first, in the order a recursion
// would: a node, then (when `enter` answers kEnter) its children, then its
// later siblings. `leave()` runs once the children of an entered node are
// done. Answers false as soon as `enter` answers kStop or `leave` false.
// `sibling_of(n)` gives the sibling link, so that this header needs no node
// layout.
template <typename Node, typename SiblingOf, typename Enter, typename Leave>
bool walk_below(Node* parent, SiblingOf sibling_of, Enter enter, Leave leave) {
  WalkStack<Node*> stack;
  stack.push(parent->child);
  while (!stack.empty()) {
    Node* n = stack.top();
    if (n == nullptr) {
      stack.pop();
      if (!stack.empty() && !leave()) return false;
      continue;
    }
    stack.top() = sibling_of(n);
    switch (enter(n)) {
      case Step::kStop: return false;
      case Step::kSkip: break;
      case Step::kEnter: stack.push(n->child); break;
    }
  }
  return true;
}

// A count of steps a caller may still spend; walks that take one stop with
// an "unfinished" answer when it runs out. kUnlimited never runs out.
constexpr uint64_t kUnlimited = UINT64_MAX;

}  // namespace arbo

#endif  // ARBO_WALK_H
