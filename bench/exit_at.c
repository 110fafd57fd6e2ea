/* Prints the monotonic clock in nanoseconds, then exits: the moment a waiter can be measured against. */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc > 1) usleep((useconds_t)atoi(argv[1]) * 1000);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    printf("%lld\n", (long long)now.tv_sec * 1000000000LL + now.tv_nsec);
    return 0;
}
