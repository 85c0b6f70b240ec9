#pragma once

// Annotation ranges laid in each other, per thread, over whole columns: the
// export's per-row work done in one pass in C++ rather than a Python loop.
//
// Rows are given sorted by thread (host, pid, tid, as three numbers), then by
// start, the longer of two ranges that start together first. A range that never
// ended has no end (`ended` false): it holds everything after it on its thread.

#include <cstddef>
#include <cstdint>

namespace zorvek {
namespace ranges {

// One thread's key per row and the rows' times, the arrays of one table.
struct Rows {
  const int64_t* host = nullptr;
  const int64_t* pid = nullptr;
  const int64_t* tid = nullptr;
  const int64_t* start = nullptr;
  const int64_t* end = nullptr;
  const uint8_t* ended = nullptr;
  size_t count = 0;

  bool same_thread(size_t a, size_t b) const {
    return host[a] == host[b] && pid[a] == pid[b] && tid[a] == tid[b];
  }
};

// BEGIN and END records paired by (pid, token): for each begin the index of its
// end, or -1, and for each end that of its begin, or -1. A token pairs once: the
// first end of a begun token ends it; a second begin or end of it stays alone.
void pair(const uint64_t* begin_pid, const uint64_t* begin_token, size_t begins,
          const uint64_t* end_pid, const uint64_t* end_token, size_t ends, int64_t* end_of_begin,
          int64_t* begin_of_end);

// Each row's depth (how many ranges of its thread hold its start) and the row of
// its parent, the innermost of those, or -1.
void nest(const Rows& rows, int32_t* depth, int64_t* parent);

// Where calls were made: for each query (host, pid, tid, time), the row of the
// deepest ended range of that thread open at that time (start <= t <= end), or
// -1. Of the ranges that start before t, only the last `window` are looked at:
// ranges are few per moment. Among equally deep ones the later row wins.
void innermost(const Rows& rows, const int32_t* depth, const int64_t* query_host,
               const int64_t* query_pid, const int64_t* query_tid, const int64_t* query_time,
               size_t queries, size_t window, int64_t* found);

}  // namespace ranges
}  // namespace zorvek
