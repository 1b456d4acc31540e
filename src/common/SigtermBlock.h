// SIGTERM reaches the daemon only through its loop's signal descriptor, so no
// thread of the process may take it. A thread inherits the mask of the thread
// that starts it: the daemon starts its threads, and has libraries start
// theirs, while it holds one of these.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace tavrend {

// Blocks SIGTERM in the calling thread for its lifetime, then restores the
// thread's mask as it was.
class ScopedSigtermBlock {
public:
    ScopedSigtermBlock() {
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &term, &previous_);
    }
    ~ScopedSigtermBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    ScopedSigtermBlock(const ScopedSigtermBlock&) = delete;
    ScopedSigtermBlock& operator=(const ScopedSigtermBlock&) = delete;

private:
    sigset_t previous_;
};

}  // namespace tavrend
