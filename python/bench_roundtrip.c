/* Pin round trips (KARVEX_GetPinState) and, for the cost of the call itself,
 * KARVEX_CheckDeviceConnection (no round trip) from C: prints for each the
 * median and the 10th/90th percentile of N single calls in microseconds.
 * Built and run by bench_roundtrip.py, against the same emulated adapter. */
#include <karvex/karvex_api.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static int Compare(const void* a, const void* b)
{
    const double x = *(const double*)a, y = *(const double*)b;
    return x < y ? -1 : x > y;
}

int main(int argc, char** argv)
{
    const char* path = argc > 1 ? argv[1] : "/dev/hidraw0";
    const int n = argc > 2 ? atoi(argv[2]) : 2000;
    double* us = calloc((size_t)n, sizeof *us);
    KARVEXDeviceHandle h = 0;
    TPosixSetTraceMask(0);
    if (us == NULL || KARVEX_OpenDevice(path, &h) != TSTATUS_SUCCESS)
        return 1;
    KARVEX_GPIOState state;
    for (int kind = 0; kind < 2; ++kind) {
        for (int i = -n / 10; i < n; ++i) { /* the first tenth warms up */
            struct timespec a, b;
            clock_gettime(CLOCK_MONOTONIC, &a);
            const TSTATUS st = kind == 0 ? KARVEX_GetPinState(h, 0, &state) : KARVEX_CheckDeviceConnection(h);
            clock_gettime(CLOCK_MONOTONIC, &b);
            if (st != TSTATUS_SUCCESS)
                return 1;
            if (i >= 0)
                us[i] = (double)(b.tv_sec - a.tv_sec) * 1e6 + (double)(b.tv_nsec - a.tv_nsec) / 1e3;
        }
        qsort(us, (size_t)n, sizeof *us, Compare);
        printf("%.2f %.2f %.2f\n", us[n / 2], us[n / 10], us[n * 9 / 10]);
    }
    KARVEX_CloseDevice(h);
    free(us);
    return 0;
}
