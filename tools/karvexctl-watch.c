/* karvexctl watch: adapters arriving and leaving. */
#define _GNU_SOURCE
#include "karvexctl.h"
#include "tools-common.h"

#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#define MAX_ADAPTERS 64
#define PATH_SIZE 256

/* Owned by the library's hot-plug thread once watching has started. */
struct Watch {
    char known[MAX_ADAPTERS][PATH_SIZE];
    unsigned int knownCount;
    unsigned long wanted; /* 0: unlimited */
    unsigned long seen;
    int stopFd;
};

static unsigned int Snapshot(char paths[][PATH_SIZE])
{
    unsigned int count = 0, i, n = 0;
    if (KARVEX_EnumerateDevices(&count) != TSTATUS_SUCCESS)
        return 0;
    for (i = 0; i < count && n < MAX_ADAPTERS; ++i) {
        if (KARVEX_GetDeviceInstanceId(i, paths[n], PATH_SIZE) == TSTATUS_SUCCESS)
            ++n;
    }
    return n;
}

static bool Contains(char paths[][PATH_SIZE], unsigned int count, const char* path)
{
    unsigned int i;
    for (i = 0; i < count; ++i) {
        if (strcmp(paths[i], path) == 0)
            return true;
    }
    return false;
}

static void Report(struct Watch* w, const char* what, const char* path)
{
    if (w->wanted != 0 && w->seen >= w->wanted)
        return;
    PrintTimestamp(stdout);
    printf("\t%s\t%s\n", what, path);
    fflush(stdout);
    if (++w->seen == w->wanted) {
        uint64_t one = 1;
        while (write(w->stopFd, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
}

/* The callback only says that something came or went: which adapter is found
 * by comparing a new enumeration with the last one. udev may announce a
 * removal a moment before the node is gone, so an unchanged list is read
 * again a few times. */
static void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    static char now[MAX_ADAPTERS][PATH_SIZE];
    struct Watch* w = context;
    unsigned int count = 0, i;
    bool changed = false;
    int tries;

    for (tries = 0; tries < 25 && !changed; ++tries) {
        if (tries > 0)
            usleep(20000);
        count = Snapshot(now);
        for (i = 0; i < count && !changed; ++i)
            changed = !Contains(w->known, w->knownCount, now[i]);
        for (i = 0; i < w->knownCount && !changed; ++i)
            changed = !Contains(now, count, w->known[i]);
    }
    for (i = 0; i < w->knownCount; ++i) {
        if (!Contains(now, count, w->known[i]))
            Report(w, "removed", w->known[i]);
    }
    for (i = 0; i < count; ++i) {
        if (!Contains(w->known, w->knownCount, now[i]))
            Report(w, "attached", now[i]);
    }
    if (!changed)
        Report(w, event == KARVEXEvent_DeviceAttached ? "attached" : "removed", "?");
    memcpy(w->known, now, sizeof now);
    w->knownCount = count;
}

static void WatchHelp(void)
{
    printf("Usage: karvexctl watch [OPTIONS]\n"
           "Print one line per adapter that arrives or leaves, until SIGINT or\n"
           "SIGTERM:\n"
           "  TIMESTAMP<TAB>attached|removed<TAB>PATH\n"
           "TIMESTAMP is CLOCK_MONOTONIC seconds when karvexctl noticed the change.\n"
           "Adapters present at the start are not printed ('karvexctl list' does).\n"
           "\n"
           "Options:\n"
           "  -n, --num-events=N exit after N lines\n" COMMON_OPTIONS_HELP);
}

int CmdWatch(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"num-events", required_argument, NULL, 'n'},
        {NULL, 0, NULL, 0},
    };
    static struct Watch w;
    int c, signalFd, result = EXIT_OK;
    TSTATUS st;

    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS "n:", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            WatchHelp();
            return EXIT_OK;
        case 't':
            ApplyTraceOption(optarg);
            break;
        case 'n':
            if (!ParseUnsigned(optarg, 1000000000UL, &w.wanted) || w.wanted == 0)
                Usage("invalid number of events '%s'", optarg);
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (optind < argc)
        Usage("unexpected argument '%s'", argv[optind]);

    signalFd = OpenStopSignalFd();
    w.stopFd = eventfd(0, EFD_CLOEXEC);
    if (signalFd < 0 || w.stopFd < 0) {
        Error("cannot set up the event loop: %s", strerror(errno));
        return EXIT_DEVICE;
    }
    w.knownCount = Snapshot(w.known);
    st = KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &w);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot watch for adapters");
        return EXIT_DEVICE;
    }
    for (;;) {
        struct pollfd fds[2] = {{signalFd, POLLIN, 0}, {w.stopFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            Error("poll failed: %s", strerror(errno));
            result = EXIT_DEVICE;
            break;
        }
        if (fds[0].revents != 0 || fds[1].revents != 0)
            break;
    }
    KARVEX_RegisterDeviceChangeCallback(NULL, NULL);
    close(w.stopFd);
    close(signalFd);
    return result;
}
