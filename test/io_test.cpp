// Load progress timing in the runtime stand-in. Loading itself, values past
// the read buffer and lists rebuilt through the append hint among it, is
// covered through the NIF (test/io_tests.erl).
#include <gtest/gtest.h>

#include "arbo_io.h"

using namespace arbo;

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
