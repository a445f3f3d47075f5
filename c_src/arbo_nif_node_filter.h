// Private to the filter sources (arbo_nif_node_filter*.cpp) and their tests:
// a comparison's Value decoded once per walk, and the comparison that uses it.
//
// Contract
// - A CmpPattern points into the Value binary of the running call's
//   environment; it lives no longer than that call.
// - filter_cmp_prepared answers exactly what filter_cmp answers for the same
//   Value term (filter_cmp is a thin wrapper around it).
#ifndef ARBO_NIF_NODE_FILTER_H
#define ARBO_NIF_NODE_FILTER_H

#include <erl_nif.h>

#include <cstdint>
#include <cstring>

#include "arbo_assert.h"
#include "arbo_filter.h"

namespace arbo {

// A zero-terminated text buffer of `capacity` bytes: on the stack when it
// fits in 65 bytes, else from the runtime allocator; freed on every path.
class ScratchText {
 public:
  explicit ScratchText(size_t capacity) : capacity_(capacity) {
    if (capacity > sizeof small_) {
      heap_ = static_cast<char*>(enif_alloc(capacity));
      ARBO_ASSERT_MSG(heap_ != nullptr, "text");
    }
    data()[0] = '\0';
  }
  // A copy of `len` bytes (negative counts as 0) and a terminating NUL.
  ScratchText(const char* s, int32_t len)
      : ScratchText(static_cast<size_t>(len > 0 ? len : 0) + 1) {
    if (len > 0) std::memcpy(data(), s, static_cast<size_t>(len));
    data()[capacity_ - 1] = '\0';
  }
  ~ScratchText() { enif_free(heap_); }
  ScratchText(const ScratchText&) = delete;
  ScratchText& operator=(const ScratchText&) = delete;
  char* data() { return heap_ != nullptr ? heap_ : small_; }
  size_t capacity() const { return capacity_; }

 private:
  char small_[65];
  char* heap_ = nullptr;
  size_t capacity_;
};

// The ordering comparisons of filters: 3 greater, 4 greater or equal,
// 5 less, 6 (and any other caller-checked value) less or equal.
template <typename T>
int ordered(uint32_t cmp_op, T a, T b) {
  switch (cmp_op) {
    case 3: return a > b ? 1 : 0;
    case 4: return a >= b ? 1 : 0;
    case 5: return a < b ? 1 : 0;
    default: return a <= b ? 1 : 0;
  }
}

struct CmpPattern {
  bool is_uint = false;  // Value decodes as an unsigned 64-bit integer
  uint64_t u = 0;
  bool is_binary = false;  // Value is a binary: the text pattern
  const char* bytes = nullptr;
  int32_t len = 0;
  bool ll_ok = false;  // the pattern read whole as a base-10 integer
  long long ll = 0;
  bool d_ok = false;  // the pattern read whole as a double
  double d = 0;
};

// Decodes Value for every kind of comparison (mask, or text pattern with its
// numeric readings).
void prepare_pattern(ErlNifEnv* env, ERL_NIF_TERM value, CmpPattern* out);
// The numeric readings of a text pattern (bytes/len already set).
void parse_pattern_numbers(CmpPattern* p);
// filter_cmp_str against a prepared pattern.
int cmp_text_prepared(uint32_t cmp_op, const char* text, int32_t text_len, const CmpPattern& p);
// The same comparison for a text that is the decimal form of an integer
// (negative when `negative`, magnitude `mag`), without writing the text.
int cmp_int_prepared(uint32_t cmp_op, bool negative, uint64_t mag, const CmpPattern& p);
// filter_cmp with Value prepared.
int filter_cmp_prepared(arbo_node* node, int match_flag, uint32_t cmp_op, ErlNifEnv* env,
                        const CmpPattern& p, int64_t index, uint64_t mask);

}  // namespace arbo

#endif  // ARBO_NIF_NODE_FILTER_H
