#include "zorv/io/zvkforklocks.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zorvek {
namespace {

struct Registry {
  std::mutex lock;  // held from acquire_all to release_all, so the set can't change
  std::vector<std::pair<ZVKForkLocks::Rank, std::mutex*>> locks;
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
                             [](Rank r, const auto& entry) { return r < entry.first; });
  reg.locks.insert(at, {rank, lock});
}

void ZVKForkLocks::remove(std::mutex* lock) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.lock);
  reg.locks.erase(std::remove_if(reg.locks.begin(), reg.locks.end(),
                                 [lock](const auto& entry) { return entry.second == lock; }),
                  reg.locks.end());
}

void ZVKForkLocks::acquire_all() {
  Registry& reg = registry();
  reg.lock.lock();
  for (auto& entry : reg.locks) entry.second->lock();
}

void ZVKForkLocks::release_all() {
  Registry& reg = registry();
  for (auto entry = reg.locks.rbegin(); entry != reg.locks.rend(); ++entry) entry->second->unlock();
  reg.lock.unlock();
}

}  // namespace zorvek
