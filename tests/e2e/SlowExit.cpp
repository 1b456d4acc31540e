// Preloaded into the daemon by the exit test: its exit handler is registered
// before any of the daemon's own, so it runs after them, and lingers 300 ms
// as a loaded device slows an exit, while the binder threads still serve.
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

namespace {

void linger() {
    static const char kNote[] = "slow exit: lingering 300 ms\n";
    if (write(STDERR_FILENO, kNote, sizeof(kNote) - 1) < 0) return;
    struct timespec pause = {0, 300 * 1000 * 1000};
    nanosleep(&pause, nullptr);
}

__attribute__((constructor)) void registerLinger() { atexit(linger); }

}  // namespace
