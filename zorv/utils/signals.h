#pragma once

#include <pthread.h>
#include <signal.h>

namespace zorvek {

// Blocks every signal in the calling thread for its scope. A thread started inside
// the scope inherits the full mask: signals are the job's to handle, on the job's
// threads, and none of ours must be the one that a process signal interrupts.
class ScopedSignalsBlocked {
 public:
  ScopedSignalsBlocked() {
    sigset_t all_signals;
    sigfillset(&all_signals);
    pthread_sigmask(SIG_SETMASK, &all_signals, &m_previous);
  }
  ~ScopedSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
  ScopedSignalsBlocked(const ScopedSignalsBlocked&) = delete;
  ScopedSignalsBlocked& operator=(const ScopedSignalsBlocked&) = delete;

 private:
  sigset_t m_previous;
};

}  // namespace zorvek
