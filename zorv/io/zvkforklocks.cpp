#include "zorv/io/zvkforklocks.h"

#include <algorithm>
#include <vector>

namespace zorvek {
namespace {

struct Entry {
  ZVKForkLocks::Rank rank;
  std::mutex* lock;
};

struct Registry {
  std::mutex lock;  // held from acquire_all to release_all, so the set can't change
  std::vector<Entry> locks;
};

// Never destroyed: a fork or a queue's destructor may come after static teardown.
Registry& registry() {
  static Registry* instance = new Registry();
  return *instance;
}

}  // namespace

void ZVKForkLocks::add(std::mutex* lock, Rank rank) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.lock);
  // Kept sorted by rank so that acquire_all walks the lock order.
  auto at = std::upper_bound(reg.locks.begin(), reg.locks.end(), rank,
                             [](Rank r, const Entry& entry) { return r < entry.rank; });
  reg.locks.insert(at, Entry{rank, lock});
}

void ZVKForkLocks::remove(std::mutex* lock) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.lock);
  reg.locks.erase(std::remove_if(reg.locks.begin(), reg.locks.end(),
                                 [lock](const Entry& entry) { return entry.lock == lock; }),
                  reg.locks.end());
}

void ZVKForkLocks::acquire_all() {
  Registry& reg = registry();
  reg.lock.lock();
  for (Entry& entry : reg.locks) entry.lock->lock();
}

void ZVKForkLocks::release_all() {
  Registry& reg = registry();
  for (auto entry = reg.locks.rbegin(); entry != reg.locks.rend(); ++entry) entry->lock->unlock();
  reg.lock.unlock();
}

}  // namespace zorvek
