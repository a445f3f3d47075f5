// Save files in the runtime stand-in: progress timing and the storage class
// of loaded values. Save and reload round trips, lists rebuilt through the
// append hint among them, are covered through the NIF (test/io_tests.erl).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "arbo_io.h"
#include "store_test_util.h"

using namespace arbo;

namespace {

using Bytes = std::basic_string<unsigned char>;

// A save file: the magic, then records of one tag byte with an optional
// 4-byte big-endian word and payload.
struct File {
  Bytes b{0xEE, 0xDA, 0x00, 0x01};
  File& rec(unsigned char tag, int64_t word = -1, const Bytes& payload = {}) {
    b.push_back(tag);
    for (int s = 24; s >= 0 && word >= 0; s -= 8) b.push_back(static_cast<unsigned char>(word >> s));
    return b.insert(b.end(), payload.begin(), payload.end()), *this;
  }
};

// Loads `bytes` from a temporary file.
int32_t load(arbo_shim::TestTable& t, const Bytes& bytes) {
  char path[] = "/tmp/arbo_io_test_XXXXXX";
  const int fd = mkstemp(path);
  EXPECT_TRUE(write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()) && close(fd) == 0);
  ErlNifPid pid;
  enif_set_pid_undefined(&pid);
  load_result res{};
  const int32_t rc = _arbo_nif_io_load(nullptr, &t.table, path, -1, 0, &pid, &res);
  std::remove(path);
  return rc == LOAD_OK && res.file_size != bytes.size() ? -1 : rc;  // the reply counts the bytes
}

}  // namespace

TEST(IoProgress, IntervalsGrowAfterTheFirstAndFifthMessage) {
  load_progress p{.pid = {}, .start = 1000, .last = 1000};
  const struct { time_t now; bool due; uint32_t count, interval; } steps[] = {
      {1029, false, 0, 30}, {1030, true, 1, 60}, {1089, false, 1, 60}, {1090, true, 2, 60},
      {1150, true, 3, 60}, {1210, true, 4, 60}, {1270, true, 5, 300}, {1569, false, 5, 300},
      {1570, true, 6, 300}, {1571, false, 6, 300}};
  for (const auto& s : steps)
    EXPECT_TRUE(_load_progress_due(&p, s.now) == s.due && p.count == s.count && p.interval == s.interval)
        << s.now;
}

// Whole csvals of 64 bytes are small, of 65 keep no string; values past the
// buffer size go through refills and the direct path for records above 1 MiB.
TEST(IoLoad, ValueStorageClasses) {
  File f;
  const uint32_t big = kLoadBufferSize + 12345;
  for (int total : {64, 65})  // tag 14, a 1-byte length, the payload
    f.rec(OP_CD, total).rec(OP_INSERT, -1, Bytes{14, uint8_t(total - 2)} + Bytes(total - 2, 'v')).rec(OP_CD_UP_1);
  for (uint32_t k = 1; k <= 3; ++k)
    f.rec(OP_CD, k).rec(OP_INSERT_BIN, big, Bytes(big, uint8_t('a' + k))).rec(OP_CD_UP_1);
  arbo_shim::TestTable t;
  ASSERT_EQ(load(t, f.b), LOAD_OK);
  for (uint32_t key : {64u, 65u, 1u, 2u, 3u}) {
    arbo_node* n = _arbo_nif_find_child_int(t.root(), key, 0);
    const bool cs = key > 3;
    bin_ref v{0, nullptr};
    ASSERT_EQ(n ? _arbo_nif_fetch_bin_value(n, &v) : -1, cs ? 1 : 2) << key;
    const uint32_t flags = F_VAL_IS_BIN | (key == 64 ? F_VAL_IS_SMALL : F_VAL_IS_BIN_NOSTR);
    EXPECT_TRUE(!cs || (n->tw & kValFlags) == flags) << key;
    const unsigned char first = cs ? 14 : 'a' + key, last = cs ? 'v' : first;
    ASSERT_TRUE(v.len == (cs ? key : big) && v.ptr[0] == first && v.ptr[v.len - 1] == last) << key;
  }
}
