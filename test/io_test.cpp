// Save files in the runtime stand-in: progress timing, the storage class of
// loaded values, and lists rebuilt through the append hint.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "arbo_alloc.h"
#include "arbo_io.h"
#include "arbo_store.h"
#include "arbo_store_check.h"
#include "enif_shim.h"

using namespace arbo;

namespace {

using Bytes = std::vector<unsigned char>;

// A save file: the magic, then records of one tag byte with an optional
// 4-byte big-endian word and payload.
struct File {
  Bytes b{0xEE, 0xDA, 0x00, 0x01};
  File& rec(unsigned char tag, int64_t word = -1, const Bytes& payload = {}) {
    b.push_back(tag);
    for (int s = 24; s >= 0 && word >= 0; s -= 8)
      b.push_back(static_cast<unsigned char>(word >> s));
    b.insert(b.end(), payload.begin(), payload.end());
    return *this;
  }
};

// A temporary file holding `bytes`, removed with the object.
struct TmpFile {
  std::string path;
  explicit TmpFile(const Bytes& bytes = {}) {
    char name[] = "/tmp/arbo_io_test_XXXXXX";
    const int fd = mkstemp(name);
    path = name;
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
  }
  ~TmpFile() { std::remove(path.c_str()); }
  Bytes read() const { std::ifstream in(path); return Bytes(std::istreambuf_iterator<char>(in), {}); }
};

int32_t load(arbo_shim::TestTable& t, const Bytes& bytes, load_result* res,
             const ErlNifPid* pid = nullptr) {
  TmpFile f(bytes);
  ErlNifPid none;
  enif_set_pid_undefined(&none);
  *res = load_result{};
  return _arbo_nif_io_load(nullptr, &t.table, f.path.c_str(), -1, 0, pid ? pid : &none, res);
}

std::vector<uint32_t> instance_keys(arbo_node* list) {
  check_msg why;
  EXPECT_TRUE(dn_check_invariants(list, &why)) << why.text;
  std::vector<uint32_t> keys;
  for (arbo_node* n = list->child; n != nullptr; n = sibling(n)) keys.push_back(n->hkey());
  return keys;
}

}  // namespace

TEST(IoProgress, IntervalsGrowAfterTheFirstAndFifthMessage) {
  load_progress p;
  p.start = p.last = 1000;
  const struct { time_t now; bool due; uint32_t count, interval; } steps[] = {
      {1029, false, 0, 30}, {1030, true, 1, 60}, {1089, false, 1, 60}, {1090, true, 2, 60},
      {1150, true, 3, 60}, {1210, true, 4, 60}, {1270, true, 5, 300}, {1569, false, 5, 300},
      {1570, true, 6, 300}, {1571, false, 6, 300}};
  for (const auto& s : steps) {
    EXPECT_EQ(_load_progress_due(&p, s.now), s.due) << s.now;
    EXPECT_EQ(std::make_pair(p.count, p.interval), std::make_pair(s.count, s.interval)) << s.now;
  }
}

// A sorted list saved in ascending order, loaded through the hint, must be
// the list an ordinary insertion in any order builds, and save to the same
// bytes; instances arriving out of order (a hand-made file) must land in
// order as well.
TEST(IoLoad, HintedListsMatchOrdinaryInsertion) {
  constexpr uint32_t kN = 3000;
  arbo_shim::TestTable built;
  arbo_node* list = _arbo_nif_add_hkey_int(built.root(), 7, 0, &built.ctx, 0, 0);
  for (uint32_t i = 0; i < kN; ++i) {
    const uint32_t k = (i * 7919u) % kN;  // a permutation of 0..kN-1
    arbo_node* n = _arbo_nif_add_hkey_int(list, k, 0, &built.ctx, 1, 0);
    n->set(F_KEY_IS_TUPLE);
    const auto* v = reinterpret_cast<const unsigned char*>("0123456789");
    if (k % 3 == 0) _arbo_nif_set_val(n, &built.ctx, v, 10, 18);
  }
  TmpFile saved, again;
  ASSERT_EQ(_arbo_nif_io_save(nullptr, &built.table, saved.path.c_str(), 0), SAVE_OK);
  arbo_shim::TestTable loaded;
  load_result res;
  ASSERT_EQ(load(loaded, saved.read(), &res), LOAD_OK);
  EXPECT_EQ(loaded.table.size, built.table.size);
  ASSERT_NE(loaded.root()->child, nullptr);  // the list
  EXPECT_EQ(instance_keys(loaded.root()->child), instance_keys(list));
  ASSERT_EQ(_arbo_nif_io_save(nullptr, &loaded.table, again.path.c_str(), 0), SAVE_OK);
  EXPECT_EQ(again.read(), saved.read());

  // Descending keys, a duplicate, then a delete (0x4A) between inserts.
  File f;
  f.rec(0x14, 1, {0});
  for (uint32_t k : {50u, 40u, 60u, 40u, 70u}) f.rec(0x46, k, {0x07});
  f.rec(0x4A, 60).rec(0x46, 80, {0x07}).rec(0x46, 65, {0x07});
  arbo_shim::TestTable hand;
  ASSERT_EQ(load(hand, f.b, &res), LOAD_OK);
  EXPECT_EQ(instance_keys(hand.root()->child), (std::vector<uint32_t>{40, 50, 65, 70, 80}));
}

// The storage class of loaded values: whole csvals of 64 bytes are small, of
// 65 keep no string; values past the buffer size go through refills and the
// direct path for records above 1 MiB. A progress process without a due
// interval gets nothing.
TEST(IoLoad, ValueStorageClassAndRefills) {
  const uint32_t big = kLoadBufferSize + 12345;
  File f;
  for (int total : {64, 65}) {  // tag 14, a 1-byte length, the payload
    Bytes csval{14, static_cast<unsigned char>(total - 2)};
    csval.insert(csval.end(), static_cast<size_t>(total - 2), 'v');
    f.rec(0x06, total).rec(0x09, -1, csval).rec(0x07);
  }
  for (uint32_t tag = 1; tag <= 3; ++tag)
    f.rec(0x06, tag).rec(0x0E, big, Bytes(big, static_cast<unsigned char>('a' + tag))).rec(0x07);
  ErlNifPid pid{.pid = 42};
  const long sends = arbo_shim::sends();
  arbo_shim::TestTable t;
  load_result res;
  ASSERT_EQ(load(t, f.b, &res, &pid), LOAD_OK);
  EXPECT_EQ(arbo_shim::sends(), sends);
  EXPECT_EQ(res.file_size, f.b.size());
  const struct { uint32_t key, flags; int cls; size_t len; char first; } want[] = {
      {64, F_VAL_IS_SMALL, 1, 64, 14}, {65, F_VAL_IS_BIN_NOSTR, 1, 65, 14},
      {1, 0, 2, big, 'b'}, {2, 0, 2, big, 'c'}, {3, 0, 2, big, 'd'}};
  for (const auto& w : want) {
    arbo_node* n = _arbo_nif_find_child_int(t.root(), w.key, 0);
    ASSERT_NE(n, nullptr) << w.key;
    EXPECT_TRUE(w.flags == 0 || (n->tw & kValFlags) == (F_VAL_IS_BIN | w.flags)) << w.len;
    bin_ref v{0, nullptr};
    ASSERT_EQ(_arbo_nif_fetch_bin_value(n, &v), w.cls);
    ASSERT_EQ(v.len, w.len);
    EXPECT_EQ(v.ptr[0], w.first);
    EXPECT_EQ(v.ptr[w.len - 1], w.cls == 1 ? 'v' : w.first);
  }
}
