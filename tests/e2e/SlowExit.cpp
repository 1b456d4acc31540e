// Preloaded into the daemon by the exit test: an exit handler registered before
// the daemon's own, so it runs after them, lingering as on a loaded device.
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

__attribute__((constructor)) static void registerLinger() {
    atexit([] {
        static const char kNote[] = "slow exit: lingering 300 ms\n";
        const timespec pause = {0, 300 * 1000 * 1000};
        if (write(STDERR_FILENO, kNote, sizeof(kNote) - 1) > 0) nanosleep(&pause, nullptr);
    });
}
