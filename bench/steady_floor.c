/*
 * The floor of the daemon's steady state: every second, the files the daemon
 * reads with memory and process scans every second (guardrails and latency
 * off), in its order, each opened, read and closed as the daemon does, with
 * no more parsing than choosing the files needs:
 *
 *   the user-activity property (before the process scan),
 *   the /proc walk, comm of every process (cmdline too for a binder-named
 *   one), then status once for every name ever seen, under its latest pid,
 *   the user-activity property (before the memory sample),
 *   meminfo, zoneinfo, lmk_stats,
 *
 * then a wait of one second, as select(2) with a one-second timeout. Like the
 * daemon it honours TAVREND_ROOT (where the property lives; /proc is the
 * machine's when the root has none) and TAVREND_TIME_SCALE.
 *
 *   tavrend_steady_floor              the floor, until SIGTERM
 *   tavrend_steady_floor --idle N     N idle processes with names of their own
 *                                     (every 20th a binder thread's), until SIGTERM
 *
 * bench/steady-state runs it beside the daemon.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kMaxNames = 8192, kSlots = 16384 };

struct Name {
    char text[32];
    int pid;
};

static struct Name gNames[kMaxNames];
static int gNameCount;
static int gSlots[kSlots]; /* index + 1 into gNames; 0 is empty */

static char gRoot[4096];
static char gProc[4200]; /* /proc on the host */
static size_t gProcLen;

static unsigned hashOf(const char* s) {
    unsigned h = 2166136261u;
    for (; *s != '\0'; ++s) h = (h ^ (unsigned char)*s) * 16777619u;
    return h;
}

/* The daemon's name table: a name keeps its latest pid and is never removed. */
static void remember(const char* name, int pid) {
    unsigned slot = hashOf(name) & (kSlots - 1);
    while (gSlots[slot] != 0) {
        struct Name* n = &gNames[gSlots[slot] - 1];
        if (strcmp(n->text, name) == 0) {
            n->pid = pid;
            return;
        }
        slot = (slot + 1) & (kSlots - 1);
    }
    if (gNameCount == kMaxNames) return;
    struct Name* n = &gNames[gNameCount++];
    snprintf(n->text, sizeof(n->text), "%s", name);
    n->pid = pid;
    gSlots[slot] = gNameCount;
}

/* open, read to the end, close. */
static void readAll(const char* path) {
    char buf[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
    close(fd);
}

/* open, one read, close: what reading a file's first line costs. */
static ssize_t readFirst(const char* path, char* buf, size_t size) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, buf, size - 1);
    close(fd);
    buf[n > 0 ? n : 0] = '\0';
    return n;
}

/* <proc>/<pid>/<file>, without printf's cost (the daemon's readers don't pay it either). */
static void pidPath(char* out, int pid, const char* file) {
    memcpy(out, gProc, gProcLen);
    char* p = out + gProcLen;
    *p++ = '/';
    char digits[12];
    int n = 0;
    unsigned magnitude = pid < 0 ? 0u - (unsigned)pid : (unsigned)pid;
    if (pid < 0) *p++ = '-';
    do {
        digits[n++] = (char)('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    while (n > 0) *p++ = digits[--n];
    *p++ = '/';
    strcpy(p, file);
}

static void readProperty(void) {
    char path[4200];
    snprintf(path, sizeof(path), "%s/dev/__properties__/sys.user_activity_detected", gRoot);
    readAll(path);
}

/* The name the daemon gives the process: comm's first word, or for a
 * binder-named one its command line without blanks (last 31 characters), or
 * "unknown". False when comm gives no name. */
static int nameOf(int pid, char name[32]) {
    char path[4300];
    char buf[4096];
    pidPath(path, pid, "comm");
    ssize_t n = readFirst(path, buf, sizeof(buf));
    if (n < 1 || n > 30) return 0;
    /* The first word, as "%31s" reads it. */
    const char* word = buf;
    while (*word == ' ' || (*word >= '\t' && *word <= '\r')) ++word;
    size_t len = 0;
    while (word[len] != '\0' && word[len] != ' ' && (word[len] < '\t' || word[len] > '\r')) ++len;
    if (len == 0) return 0;
    memcpy(name, word, len);
    name[len] = '\0';
    if (len < 6 || strstr(name, "Binder") == NULL) return 1;
    pidPath(path, pid, "cmdline");
    n = readFirst(path, buf, sizeof(buf));
    if (n < 1 || strstr(buf, "Binder") != NULL) {
        snprintf(name, 32, "%s", "unknown");
        return 1;
    }
    len = 0;
    for (const char* p = buf; *p != '\0' && *p != '\n'; ++p) {
        if (*p != ' ') buf[len++] = *p;
    }
    buf[len] = '\0';
    snprintf(name, 32, "%s", len > 31 ? buf + len - 31 : buf);
    return 1;
}

static void scanProcesses(void) {
    char path[4300];
    DIR* dir = opendir(gProc);
    if (dir == NULL) return;
    const struct dirent* entry;
    while ((entry = readdir(dir)) != NULL) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        int pid = 0;
        for (const char* d = entry->d_name; *d >= '0' && *d <= '9'; ++d)
            pid = pid * 10 + (*d - '0');
        char name[32];
        if (nameOf(pid, name)) remember(name, pid);
    }
    closedir(dir);
    for (int i = 0; i < gNameCount; ++i) {
        pidPath(path, gNames[i].pid, "status");
        readAll(path);
    }
}

static void sampleMemory(void) {
    char path[4300];
    snprintf(path, sizeof(path), "%s/meminfo", gProc);
    readAll(path);
    snprintf(path, sizeof(path), "%s/zoneinfo", gProc);
    readAll(path);
    snprintf(path, sizeof(path), "%s/lmk_stats", gProc);
    readAll(path);
}

static volatile sig_atomic_t gStop;

static void onSignal(int sig) {
    (void)sig;
    gStop = 1;
}

static int idle(int count) {
    pid_t* children = calloc((size_t)count, sizeof(pid_t));
    if (children == NULL) return 1;
    int started = 0;
    while (started < count && !gStop) {
        const pid_t child = fork();
        if (child < 0) break;
        if (child == 0) {
            char name[16];
            if (started % 20 == 0) {
                snprintf(name, sizeof(name), "Binder:%d_1", getpid() % 100000);
            } else {
                snprintf(name, sizeof(name), "idle_%d", started);
            }
            prctl(PR_SET_NAME, name);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) pause();
        }
        children[started++] = child;
    }
    while (!gStop) pause();
    for (int i = 0; i < started; ++i) kill(children[i], SIGKILL);
    for (int i = 0; i < started; ++i) waitpid(children[i], NULL, 0);
    free(children);
    return started == count ? 0 : 1;
}

int main(int argc, char** argv) {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = onSignal;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    if (argc == 3 && strcmp(argv[1], "--idle") == 0) return idle(atoi(argv[2]));
    if (argc != 1) {
        fprintf(stderr, "usage: tavrend_steady_floor [--idle N]\n");
        return 2;
    }
    const char* root = getenv("TAVREND_ROOT");
    snprintf(gRoot, sizeof(gRoot), "%s", root != NULL && strcmp(root, "/") != 0 ? root : "");
    struct stat st;
    snprintf(gProc, sizeof(gProc), "%s/proc", gRoot);
    if (gRoot[0] == '\0' || stat(gProc, &st) != 0 || !S_ISDIR(st.st_mode)) strcpy(gProc, "/proc");
    gProcLen = strlen(gProc);
    double scale = 1;
    const char* scaleText = getenv("TAVREND_TIME_SCALE");
    if (scaleText != NULL && *scaleText != '\0') scale = strtod(scaleText, NULL);
    if (!(scale > 0)) scale = 1;
    const double period = 1 / scale;

    while (!gStop) {
        readProperty();
        scanProcesses();
        readProperty();
        sampleMemory();
        struct timeval timeout;
        timeout.tv_sec = (time_t)period;
        timeout.tv_usec = (suseconds_t)((period - (double)timeout.tv_sec) * 1e6);
        select(0, NULL, NULL, NULL, &timeout);
    }
    return 0;
}
