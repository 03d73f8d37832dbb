/* Preloaded into an agent: every fsync(2) and fdatasync(2) takes 50 ms longer, as on a busy flash disk. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <time.h>

static int slowly(const char* name, int fd) {
    const struct timespec wait = {.tv_sec = 0, .tv_nsec = 50 * 1000 * 1000};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, 0);
    int (*real)(int) = (int (*)(int))dlsym(RTLD_NEXT, name);
    return real(fd);
}

int fsync(int fd) { return slowly("fsync", fd); }

int fdatasync(int fd) { return slowly("fdatasync", fd); }
