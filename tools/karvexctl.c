/* karvexctl: list, inspect and drive Karvex USB GPIO + I2C adapters from the
 * shell. Uses nothing but the public libkarvex interface (and libudev for the
 * USB strings the library does not report). */
#include "karvexctl.h"
#include "tools-common.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifndef KARVEX_VERSION_STRING
#define KARVEX_VERSION_STRING "unknown"
#endif

void EnterCommand(const char* command)
{
    static char names[4][96];
    static int depth;
    char* name = names[depth % 4];
    snprintf(name, sizeof names[0], "%s %s", gToolName, command);
    ++depth;
    gToolName = name;
    /* getopt_long starts afresh on the command's own argv. */
    optind = 0;
}

static void PrintHelp(void)
{
    printf("Usage: karvexctl [OPTIONS] COMMAND [ARGS]...\n"
           "List, inspect and drive Karvex USB GPIO + I2C adapters.\n"
           "\n"
           "Commands:\n"
           "  list                       one line per attached adapter\n"
           "  info PATH                  an adapter's identity and its pins\n"
           "  gpio mode PATH PIN MODE    configure a pin\n"
           "  gpio get PATH PIN...       read pin levels\n"
           "  gpio set PATH PIN=0|1...   drive pins\n"
           "  gpio monitor PATH PIN...   print pin changes until interrupted\n"
           "  i2c transfer PATH BUS DESC [DATA]...\n"
           "                             one write and/or read, i2ctransfer syntax\n"
           "  i2c scan PATH BUS          probe the bus, i2cdetect-style grid\n"
           "  watch                      print adapters arriving and leaving\n"
           "\n"
           "PATH is the adapter's hidraw node as 'list' prints it (/dev/hidrawN).\n"
           "'karvexctl COMMAND --help' describes each command.\n"
           "\n"
           "Options (also accepted by every command):\n"
           "  -t, --trace=MASK   print the library's trace on stdout, filtered by MASK,\n"
           "                     the sum of: 0x01 errors, 0x02 warnings, 0x04 info\n"
           "                     (open, close, attach, remove), 0x08 details and\n"
           "                     dumps, 0x10 every library call with its result,\n"
           "                     0x20 one line per adapter message, 0x40 hex dump of\n"
           "                     every message (default 0: errors are reported by\n"
           "                     karvexctl itself on stderr)\n"
           "  -h, --help         show this help and exit\n"
           "  -v, --version      show the versions and exit\n"
           "\n"
           "Exit status: 0 success, 1 adapter or system failure, 2 wrong usage.\n");
}

int main(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"version", no_argument, NULL, 'v'},
        {NULL, 0, NULL, 0},
    };
    static const struct {
        const char* name;
        int (*run)(int, char**);
    } commands[] = {
        {"list", CmdList}, {"info", CmdInfo}, {"gpio", CmdGpio}, {"i2c", CmdI2c}, {"watch", CmdWatch},
    };
    int c;
    size_t i;

    /* A command-line tool reports failures itself; the library's trace only
     * when asked for. */
    TPosixSetTraceMask(0);
    /* Option errors are reported by us, with the command's full name. */
    opterr = 0;
    while ((c = getopt_long(argc, argv, DISPATCH_SHORT_OPTIONS "v", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            PrintHelp();
            return EXIT_OK;
        case 't':
            ApplyTraceOption(optarg);
            break;
        case 'v': {
            unsigned int api = KARVEX_GetApiVersion();
            printf("karvexctl %s (libkarvex API %u.%u)\n", KARVEX_VERSION_STRING, api >> 16, api & 0xFFFFU);
            return EXIT_OK;
        }
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (optind >= argc)
        Usage("no command given");
    for (i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
        if (strcmp(argv[optind], commands[i].name) == 0) {
            char** sub = argv + optind;
            int subc = argc - optind;
            EnterCommand(commands[i].name);
            return commands[i].run(subc, sub);
        }
    }
    Usage("unknown command '%s'", argv[optind]);
}
