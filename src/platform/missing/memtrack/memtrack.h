// The device's <memtrack/memtrack.h> (libmemtrack), as far as the daemon uses
// it. No platform package offers it for a host, so this one is used wherever
// the platform's own is missing; on a host the platform layer implements it.
//
// On a host a process's figures come from <root>/dev/memtrack/<pid>: one line of three
// signed decimal byte counts, graphics, gl and other, e.g. "8388608 4096 0".
// memtrack_proc_get() fails (-1) when that file is missing, unreadable or
// malformed, as a device without a memtrack HAL does.
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

struct memtrack_proc;

// A new, empty record; NULL when out of memory.
struct memtrack_proc* memtrack_proc_new(void);
void memtrack_proc_destroy(struct memtrack_proc* p);

// Fills `p` with the figures of `pid`: 0 on success, -1 otherwise.
int memtrack_proc_get(struct memtrack_proc* p, pid_t pid);

// Byte counts of the last successful memtrack_proc_get(). A negative count
// means that type failed; -1 when the record holds no figures.
ssize_t memtrack_proc_graphics_pss(struct memtrack_proc* p);
ssize_t memtrack_proc_gl_pss(struct memtrack_proc* p);
ssize_t memtrack_proc_other_pss(struct memtrack_proc* p);

#ifdef __cplusplus
}
#endif
