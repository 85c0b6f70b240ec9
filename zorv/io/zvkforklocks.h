#pragma once

#include <mutex>

namespace zorvek {

// The pipeline's locks, held across a fork. A lock that another thread holds at
// the moment of a fork would stay held for ever in the child, so the forking
// thread takes every registered lock before the fork and lets go of them on both
// sides after it. Locks are taken by rank, lower first, in the pipeline's lock
// order: the list of record helpers, the helpers, the queues; then the leaf locks
// that are never held with another, like the GPU collector's name tables.
class ZVKForkLocks {
 public:
  enum Rank : int { HELPER_LIST = 0, RECORD_HELPER = 1, QUEUE = 2, LEAF = 3 };

  static void add(std::mutex* lock, Rank rank);
  static void remove(std::mutex* lock);

  // For the fork handlers: acquire in the prepare handler, release in the parent
  // and in the child handler.
  static void acquire_all();
  static void release_all();
};

}  // namespace zorvek
