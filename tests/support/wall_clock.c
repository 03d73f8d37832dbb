/* Preloaded into a process: its wall clock is ahead of the machine's by the seconds in the file that WALL_CLOCK names. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static int64_t ahead_s(void) {
    static volatile int64_t* shared;
    if (shared == NULL) {
        const char* name = getenv("WALL_CLOCK");
        int fd = name != NULL ? open(name, O_RDONLY | O_CLOEXEC) : -1;
        void* mapped = fd >= 0 ? mmap(NULL, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
        if (fd >= 0) {
            close(fd);
        }
        if (mapped == MAP_FAILED) {
            return 0;
        }
        shared = mapped;
    }
    return *shared;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += ahead_s();
    }
    return result;
}

int gettimeofday(struct timeval* now, void* zone) {
    struct timespec precise;
    (void)zone;
    if (clock_gettime(CLOCK_REALTIME, &precise) != 0) {
        return -1;
    }
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* result) {
    struct timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return -1;
    }
    if (result != NULL) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}
