// A process with a chosen name holding a chosen amount of private memory, for
// the guardrail tests:  guardrail_hog NAME MIB
// It touches every page, then waits to be killed.
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    prctl(PR_SET_NAME, argv[1]);
    const size_t bytes = strtoul(argv[2], nullptr, 10) << 20;
    auto* memory = static_cast<volatile char*>(malloc(bytes));
    if (memory == nullptr) return 1;
    for (size_t i = 0; i < bytes; i += 4096) memory[i] = 1;
    for (;;) pause();
}
