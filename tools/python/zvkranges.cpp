#include "tools/python/zvkranges.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zorvek {
namespace ranges {

namespace {

// One process's begun tokens. Tokens count up per process, so a table indexed by
// token serves where they are dense, which is the rule; a hash map otherwise.
class Begun {
 public:
  static constexpr int64_t kNone = -1;

  void see(uint64_t token) {
    m_low = std::min(m_low, token);
    m_high = std::max(m_high, token);
    ++m_count;
  }
  void make_room() {
    if (m_count != 0 && m_high - m_low < 2 * m_count + 1024) {
      m_table.assign(m_high - m_low + 1, kNone);
    }
  }
  // The first begin of a token is the one its first end ends.
  void begin(uint64_t token, int64_t index) {
    if (m_table.empty()) {
      m_map.emplace(token, index);
    } else if (m_table[token - m_low] == kNone) {
      m_table[token - m_low] = index;
    }
  }
  // The begin an end ends, taken away, or kNone.
  int64_t end(uint64_t token) {
    if (m_table.empty()) {
      const auto found = m_map.find(token);
      if (found == m_map.end()) return kNone;
      const int64_t index = found->second;
      m_map.erase(found);
      return index;
    }
    if (token < m_low || token > m_high) return kNone;
    int64_t& slot = m_table[token - m_low];
    const int64_t index = slot;
    if (index >= 0) slot = kEnded;
    return index >= 0 ? index : kNone;
  }

 private:
  static constexpr int64_t kEnded = -2;  // a second begin of the token stays alone
  uint64_t m_low = UINT64_MAX;
  uint64_t m_high = 0;
  uint64_t m_count = 0;
  std::vector<int64_t> m_table;
  std::unordered_map<uint64_t, int64_t> m_map;
};

}  // namespace

void pair(const uint64_t* begin_pid, const uint64_t* begin_token, size_t begins,
          const uint64_t* end_pid, const uint64_t* end_token, size_t ends, int64_t* end_of_begin,
          int64_t* begin_of_end) {
  std::unordered_map<uint64_t, Begun> processes;
  // Records of a file mostly come from one process: the last one found is kept.
  uint64_t last_pid = 0;
  Begun* last = nullptr;
  const auto of = [&](uint64_t pid) -> Begun* {
    if (last == nullptr || pid != last_pid) {
      last = &processes[pid];
      last_pid = pid;
    }
    return last;
  };
  for (size_t i = 0; i < begins; ++i) of(begin_pid[i])->see(begin_token[i]);
  for (auto& process : processes) process.second.make_room();
  for (size_t i = 0; i < begins; ++i) {
    end_of_begin[i] = -1;
    of(begin_pid[i])->begin(begin_token[i], static_cast<int64_t>(i));
  }
  for (size_t i = 0; i < ends; ++i) {
    begin_of_end[i] = -1;
    const auto process = processes.find(end_pid[i]);
    if (process == processes.end()) continue;
    const int64_t begun = process->second.end(end_token[i]);
    if (begun < 0) continue;
    begin_of_end[i] = begun;
    end_of_begin[begun] = static_cast<int64_t>(i);
  }
}

void nest(const Rows& rows, int32_t* depth, int64_t* parent) {
  std::vector<size_t> open;  // the rows holding the current one, outermost first
  for (size_t i = 0; i < rows.count; ++i) {
    if (i > 0 && !rows.same_thread(i, i - 1)) open.clear();
    while (!open.empty() && rows.ended[open.back()] && rows.end[open.back()] <= rows.start[i]) {
      open.pop_back();
    }
    depth[i] = static_cast<int32_t>(open.size());
    parent[i] = open.empty() ? -1 : static_cast<int64_t>(open.back());
    open.push_back(i);
  }
}

void innermost(const Rows& rows, const int32_t* depth, const int64_t* query_host,
               const int64_t* query_pid, const int64_t* query_tid, const int64_t* query_time,
               size_t queries, size_t window, int64_t* found) {
  using Thread = std::tuple<int64_t, int64_t, int64_t>;
  // Per thread, its ended rows in order, and their starts for searching.
  std::map<Thread, std::vector<size_t>> ended;
  for (size_t i = 0; i < rows.count; ++i) {
    if (rows.ended[i]) ended[Thread(rows.host[i], rows.pid[i], rows.tid[i])].push_back(i);
  }
  std::map<Thread, std::vector<int64_t>> starts;
  for (const auto& thread : ended) {
    std::vector<int64_t>& s = starts[thread.first];
    s.reserve(thread.second.size());
    for (size_t row : thread.second) s.push_back(rows.start[row]);
  }
  for (size_t q = 0; q < queries; ++q) {
    found[q] = -1;
    const Thread key(query_host[q], query_pid[q], query_tid[q]);
    const auto thread = ended.find(key);
    if (thread == ended.end()) continue;
    const std::vector<int64_t>& s = starts[key];
    const int64_t t = query_time[q];
    const size_t upto = static_cast<size_t>(std::upper_bound(s.begin(), s.end(), t) - s.begin());
    const size_t from = upto > window ? upto - window : 0;
    int32_t best_depth = -1;
    for (size_t k = upto; k-- > from;) {
      const size_t row = thread->second[k];
      if (rows.start[row] <= t && t <= rows.end[row] && depth[row] > best_depth) {
        best_depth = depth[row];
        found[q] = static_cast<int64_t>(row);
      }
    }
  }
}

}  // namespace ranges
}  // namespace zorvek
