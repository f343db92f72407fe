/* Spins for seconds of wall time and prints wall and CPU time in milliseconds. vm-burn SECONDS */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(clockid_t clock) {
    struct timespec at;
    clock_gettime(clock, &at);
    return (double)at.tv_sec + (double)at.tv_nsec / 1e9;
}

int main(int argc, char** argv) {
    double seconds = argc > 1 ? atof(argv[1]) : 1.0;
    double start = now(CLOCK_MONOTONIC);
    while (now(CLOCK_MONOTONIC) - start < seconds) {
    }
    printf("wall_ms %.0f cpu_ms %.0f\n", seconds * 1000, now(CLOCK_PROCESS_CPUTIME_ID) * 1000);
    return 0;
}
