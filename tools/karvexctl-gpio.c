/* karvexctl gpio: configure, read, drive and monitor pins. */
#define _GNU_SOURCE
#include "karvexctl.h"
#include "tools-common.h"

#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

static void GpioHelp(void)
{
    printf("Usage: karvexctl gpio COMMAND [ARGS]...\n"
           "\n"
           "Commands:\n"
           "  mode PATH PIN MODE         configure a pin; MODE is input, input-event,\n"
           "                             output-low or output-high\n"
           "  get PATH PIN...            print PIN=LEVEL for each pin (LEVEL 0 or 1)\n"
           "  set PATH PIN=0|1...        drive pins, making them outputs if needed\n"
           "  monitor PATH PIN...        put the pins in input-event mode and print\n"
           "                             each change until interrupted\n"
           "\n"
           "Pins are numbered from 0. 'karvexctl gpio COMMAND --help' for details.\n"
           "\n"
           "Options:\n" COMMON_OPTIONS_HELP);
}

/* Options of a leaf command that has no options of its own. */
static void ParseLeafOptions(int argc, char** argv, void (*help)(void))
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {NULL, 0, NULL, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS, longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            help();
            exit(EXIT_OK);
        case 't':
            ApplyTraceOption(optarg);
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
}

static void ModeHelp(void)
{
    printf("Usage: karvexctl gpio mode [OPTIONS] PATH PIN MODE\n"
           "Configure one pin. MODE:\n"
           "  input          input\n"
           "  input-event    input that reports every change (see 'gpio monitor')\n"
           "  output-low     output driven low (also: low)\n"
           "  output-high    output driven high (also: high)\n"
           "\n"
           "Options:\n" COMMON_OPTIONS_HELP);
}

static int CmdMode(int argc, char** argv)
{
    KARVEX_GPIOMode mode;
    KARVEXDeviceHandle handle;
    unsigned int pin;
    TSTATUS st;

    ParseLeafOptions(argc, argv, ModeHelp);
    if (argc - optind != 3)
        Usage("expected PATH PIN MODE");
    pin = ParsePin(argv[optind + 1]);
    if (!ParseGpioMode(argv[optind + 2], &mode))
        Usage("invalid mode '%s' (input, input-event, output-low or output-high)", argv[optind + 2]);
    handle = OpenAdapter(argv[optind]);
    if (handle == 0)
        return EXIT_DEVICE;
    st = KARVEX_SetPinMode(handle, pin, mode);
    CloseAdapter(handle);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot set pin %u to %s", pin, GpioModeName(mode));
        return EXIT_DEVICE;
    }
    return EXIT_OK;
}

static void GetHelp(void)
{
    printf("Usage: karvexctl gpio get [OPTIONS] PATH PIN...\n"
           "Read the level of each pin, inputs and outputs alike, and print\n"
           "PIN=LEVEL (0 low, 1 high) separated by spaces.\n"
           "\n"
           "Options:\n"
           "  -j, --json         print a JSON object instead\n" COMMON_OPTIONS_HELP);
}

static int CmdGet(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"json", no_argument, NULL, 'j'},
        {NULL, 0, NULL, 0},
    };
    bool json = false;
    int c, i, npins, result = EXIT_OK;
    unsigned int* pins;
    KARVEX_GPIOState* levels;
    KARVEXDeviceHandle handle;
    const char* path;

    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS "j", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            GetHelp();
            return EXIT_OK;
        case 't':
            ApplyTraceOption(optarg);
            break;
        case 'j':
            json = true;
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (argc - optind < 2)
        Usage("expected PATH PIN...");
    path = argv[optind];
    npins = argc - optind - 1;
    pins = calloc((size_t)npins, sizeof *pins);
    levels = calloc((size_t)npins, sizeof *levels);
    if (pins == NULL || levels == NULL) {
        Error("out of memory");
        free(pins);
        free(levels);
        return EXIT_DEVICE;
    }
    for (i = 0; i < npins; ++i)
        pins[i] = ParsePin(argv[optind + 1 + i]);

    handle = OpenAdapter(path);
    if (handle == 0) {
        result = EXIT_DEVICE;
        goto out;
    }
    for (i = 0; i < npins; ++i) {
        TSTATUS st = KARVEX_GetPinState(handle, pins[i], &levels[i]);
        if (st != TSTATUS_SUCCESS) {
            StatusError(st, "cannot read pin %u", pins[i]);
            result = EXIT_DEVICE;
            break;
        }
    }
    CloseAdapter(handle);
    if (result != EXIT_OK)
        goto out;

    if (json) {
        printf("{\"path\": ");
        JsonString(stdout, path);
        printf(", \"pins\": [");
        for (i = 0; i < npins; ++i)
            printf("%s{\"pin\": %u, \"level\": %d}", i == 0 ? "" : ", ", pins[i], levels[i] == GPIOState_High ? 1 : 0);
        printf("]}\n");
    } else {
        for (i = 0; i < npins; ++i)
            printf("%s%u=%d", i == 0 ? "" : " ", pins[i], levels[i] == GPIOState_High ? 1 : 0);
        printf("\n");
    }
out:
    free(pins);
    free(levels);
    return result;
}

static void SetHelp(void)
{
    printf("Usage: karvexctl gpio set [OPTIONS] PATH PIN=0|1...\n"
           "Drive each pin low (0) or high (1). A pin that is an output already gets\n"
           "the new level; any other pin is switched to output-low or output-high,\n"
           "which drives the level in the same step. Pins keep their setting after\n"
           "karvexctl exits.\n"
           "\n"
           "Options:\n" COMMON_OPTIONS_HELP);
}

static int CmdSet(int argc, char** argv)
{
    int i, nvalues, result = EXIT_OK;
    unsigned int* pins;
    KARVEX_GPIOState* levels;
    KARVEXDeviceHandle handle;

    ParseLeafOptions(argc, argv, SetHelp);
    if (argc - optind < 2)
        Usage("expected PATH PIN=0|1...");
    nvalues = argc - optind - 1;
    pins = calloc((size_t)nvalues, sizeof *pins);
    levels = calloc((size_t)nvalues, sizeof *levels);
    if (pins == NULL || levels == NULL) {
        Error("out of memory");
        free(pins);
        free(levels);
        return EXIT_DEVICE;
    }
    for (i = 0; i < nvalues; ++i) {
        const char* arg = argv[optind + 1 + i];
        const char* eq = strchr(arg, '=');
        char pinText[32];
        if (eq == NULL || (size_t)(eq - arg) >= sizeof pinText || (strcmp(eq + 1, "0") != 0 && strcmp(eq + 1, "1") != 0))
            Usage("invalid pin value '%s' (expected PIN=0 or PIN=1)", arg);
        memcpy(pinText, arg, (size_t)(eq - arg));
        pinText[eq - arg] = '\0';
        pins[i] = ParsePin(pinText);
        levels[i] = eq[1] == '1' ? GPIOState_High : GPIOState_Low;
    }

    handle = OpenAdapter(argv[optind]);
    if (handle == 0) {
        result = EXIT_DEVICE;
        goto out;
    }
    for (i = 0; i < nvalues; ++i) {
        KARVEX_GPIOMode mode = GPIOMode_Input;
        TSTATUS st = KARVEX_GetPinMode(handle, pins[i], &mode);
        if (st == TSTATUS_SUCCESS) {
            if (mode == GPIOMode_Output_Low || mode == GPIOMode_Output_High)
                st = KARVEX_SetPinState(handle, pins[i], levels[i]);
            else
                st = KARVEX_SetPinMode(handle, pins[i],
                                       levels[i] == GPIOState_High ? GPIOMode_Output_High : GPIOMode_Output_Low);
        }
        if (st != TSTATUS_SUCCESS) {
            StatusError(st, "cannot drive pin %u", pins[i]);
            result = EXIT_DEVICE;
            break;
        }
    }
    CloseAdapter(handle);
out:
    free(pins);
    free(levels);
    return result;
}

/* State shared with the library's callback threads while monitoring. */
struct Monitor {
    pthread_mutex_t lock;
    const unsigned int* pins;
    int npins;
    unsigned long wanted; /* 0: unlimited */
    unsigned long seen;
    int stopFd; /* eventfd: written when monitoring has to end */
    bool removed;
    KARVEXDeviceHandle handle;
};

static void Wake(int fd)
{
    uint64_t one = 1;
    while (write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

static void OnPinEvent(void* context, unsigned int pin, KARVEX_GPIOState state)
{
    struct Monitor* m = context;
    int i;
    bool watched = false;
    for (i = 0; i < m->npins; ++i)
        watched = watched || m->pins[i] == pin;
    if (!watched)
        return; /* a pin another program left in input-event mode */
    pthread_mutex_lock(&m->lock);
    if (m->wanted == 0 || m->seen < m->wanted) {
        PrintTimestamp(stdout);
        printf("\t%s\t%u\n", state == GPIOState_High ? "rising" : "falling", pin);
        fflush(stdout);
        if (++m->seen == m->wanted)
            Wake(m->stopFd);
    }
    pthread_mutex_unlock(&m->lock);
}

static void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    struct Monitor* m = context;
    if (event != KARVEXEvent_DeviceRemoved)
        return;
    /* Some adapter left; ours only if its handle says so. The udev event can
     * come before the library has seen its node go, so give it a moment. */
    for (int tries = 0; tries < 25; ++tries) {
        if (KARVEX_CheckDeviceConnection(m->handle) == TSTATUS_DEVICE_REMOVED) {
            pthread_mutex_lock(&m->lock);
            m->removed = true;
            pthread_mutex_unlock(&m->lock);
            Wake(m->stopFd);
            return;
        }
        usleep(20000);
    }
}

static void MonitorHelp(void)
{
    printf("Usage: karvexctl gpio monitor [OPTIONS] PATH PIN...\n"
           "Put each pin in input-event mode and print one line per change until\n"
           "SIGINT or SIGTERM:\n"
           "  TIMESTAMP<TAB>rising|falling<TAB>PIN\n"
           "TIMESTAMP is CLOCK_MONOTONIC seconds when karvexctl received the event.\n"
           "The pins stay in input-event mode afterwards. Exit status 1 when the\n"
           "adapter is unplugged while monitoring.\n"
           "\n"
           "Options:\n"
           "  -n, --num-events=N exit after N events\n" COMMON_OPTIONS_HELP);
}

static int CmdMonitor(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"num-events", required_argument, NULL, 'n'},
        {NULL, 0, NULL, 0},
    };
    struct Monitor m;
    unsigned int* pins;
    unsigned long n = 0;
    int c, i, npins, signalFd, result = EXIT_OK;
    TSTATUS st;

    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS "n:", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            MonitorHelp();
            return EXIT_OK;
        case 't':
            ApplyTraceOption(optarg);
            break;
        case 'n':
            if (!ParseUnsigned(optarg, 1000000000UL, &n) || n == 0)
                Usage("invalid number of events '%s'", optarg);
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (argc - optind < 2)
        Usage("expected PATH PIN...");
    npins = argc - optind - 1;
    pins = calloc((size_t)npins, sizeof *pins);
    if (pins == NULL) {
        Error("out of memory");
        return EXIT_DEVICE;
    }
    for (i = 0; i < npins; ++i)
        pins[i] = ParsePin(argv[optind + 1 + i]);

    memset(&m, 0, sizeof m);
    pthread_mutex_init(&m.lock, NULL);
    m.pins = pins;
    m.npins = npins;
    m.wanted = n;
    /* Before any library thread exists, so all of them inherit the mask. */
    signalFd = OpenStopSignalFd();
    m.stopFd = eventfd(0, EFD_CLOEXEC);
    if (signalFd < 0 || m.stopFd < 0) {
        Error("cannot set up the event loop: %s", strerror(errno));
        free(pins);
        return EXIT_DEVICE;
    }
    m.handle = OpenAdapter(argv[optind]);
    if (m.handle == 0) {
        result = EXIT_DEVICE;
        goto out;
    }
    st = KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &m);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot watch for the adapter's removal");
        result = EXIT_DEVICE;
        goto out;
    }
    st = KARVEX_RegisterPinEventCallback(m.handle, OnPinEvent, &m);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot register for pin events");
        result = EXIT_DEVICE;
        goto out;
    }
    for (i = 0; i < npins; ++i) {
        st = KARVEX_SetPinMode(m.handle, pins[i], GPIOMode_InputEvent);
        if (st != TSTATUS_SUCCESS) {
            StatusError(st, "cannot put pin %u in input-event mode", pins[i]);
            result = EXIT_DEVICE;
            goto out;
        }
    }

    for (;;) {
        struct pollfd fds[2] = {{signalFd, POLLIN, 0}, {m.stopFd, POLLIN, 0}};
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
    pthread_mutex_lock(&m.lock);
    if (m.removed) {
        Error("%s was unplugged", argv[optind]);
        result = EXIT_DEVICE;
    }
    pthread_mutex_unlock(&m.lock);

out:
    /* Stop the callbacks before m goes away. */
    KARVEX_RegisterDeviceChangeCallback(NULL, NULL);
    if (m.handle != 0)
        KARVEX_RegisterPinEventCallback(m.handle, NULL, NULL);
    CloseAdapter(m.handle);
    close(m.stopFd);
    close(signalFd);
    free(pins);
    return result;
}

int CmdGpio(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {NULL, 0, NULL, 0},
    };
    static const struct {
        const char* name;
        int (*run)(int, char**);
    } commands[] = {
        {"mode", CmdMode},
        {"get", CmdGet},
        {"set", CmdSet},
        {"monitor", CmdMonitor},
    };
    int c;
    size_t i;

    while ((c = getopt_long(argc, argv, DISPATCH_SHORT_OPTIONS, longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            GpioHelp();
            return EXIT_OK;
        case 't':
            ApplyTraceOption(optarg);
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (optind >= argc)
        Usage("no gpio command given (mode, get, set or monitor)");
    for (i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
        if (strcmp(argv[optind], commands[i].name) == 0) {
            char** sub = argv + optind;
            int subc = argc - optind;
            EnterCommand(commands[i].name);
            return commands[i].run(subc, sub);
        }
    }
    Usage("unknown gpio command '%s'", argv[optind]);
}
