/* karvexctl i2c: transfers in i2ctransfer's syntax and an i2cdetect-style scan. */
#include "i2c-message.h"
#include "karvexctl.h"
#include "tools-common.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define DEFAULT_SPEED 100000UL
#define DEFAULT_TIMEOUT_MS 1000UL
#define DEFAULT_SCAN_TIMEOUT_MS 100UL
#define MAX_TIMEOUT_MS 30000UL

static void I2cHelp(void)
{
    printf("Usage: karvexctl i2c COMMAND [ARGS]...\n"
           "\n"
           "Commands:\n"
           "  transfer PATH BUS DESC [DATA] [DESC [DATA]]\n"
           "                             one write and/or read (i2ctransfer syntax)\n"
           "  scan PATH BUS [FIRST LAST] find the addresses that answer\n"
           "\n"
           "BUS is the adapter's bus number (0, 1, ...). Addresses are 7-bit, as in\n"
           "i2c-tools (the EEPROM of a 24C02 is 0x50); the adapter receives that\n"
           "number unchanged as its address byte.\n"
           "'karvexctl i2c COMMAND --help' for details.\n"
           "\n"
           "Options:\n" COMMON_OPTIONS_HELP);
}

static void TransferHelp(void)
{
    printf("Usage: karvexctl i2c transfer [OPTIONS] PATH BUS DESC [DATA] [DESC [DATA]]\n"
           "Run one I2C transfer and print each read message on its own line as\n"
           "space-separated 0x%%02x bytes, like i2ctransfer.\n"
           "\n"
           "DESC is {r|w}LENGTH[@ADDRESS]: r reads, w writes LENGTH bytes (0..256)\n"
           "to the 7-bit ADDRESS (0x08-0x77; with -a 0x00-0x7f); a message without\n"
           "@ADDRESS uses the previous one. A write is followed by its LENGTH DATA\n"
           "bytes; a byte with a suffix fills the rest of the message: VALUE= repeats\n"
           "it, VALUE+ counts up, VALUE- counts down, VALUEp continues with an 8-bit\n"
           "pseudo-random sequence seeded by VALUE.\n"
           "\n"
           "The adapter runs one write followed by one read on one address, with a\n"
           "repeated start between them: so a transfer is 'wN@A ...', 'rN@A' or\n"
           "'wN@A ... rM'. Anything else is refused before the adapter is opened.\n"
           "\n"
           "Examples:\n"
           "  karvexctl i2c transfer /dev/hidraw0 0 w1@0x50 0x00 r16   (read 16 bytes)\n"
           "  karvexctl i2c transfer /dev/hidraw0 0 w9@0x50 0x10 0x41+ (write 8 bytes)\n"
           "\n"
           "Options:\n"
           "  -a, --all-addresses   allow the reserved addresses 0x00-0x07, 0x78-0x7f\n"
           "  -s, --speed=HZ        bus clock passed to the adapter (default 100000)\n"
           "      --timeout=MS      the adapter's time limit, 1..30000 (default 1000);\n"
           "                        karvexctl waits twice as long, at least 1 s\n"
           "  -y, --yes             accepted for i2ctransfer habits; karvexctl never asks\n" COMMON_OPTIONS_HELP);
}

struct I2cOptions {
    bool allAddresses;
    unsigned long speed;
    unsigned long timeoutMs;
};

static void ParseI2cOptions(int argc, char** argv, struct I2cOptions* opts, void (*help)(void))
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"all-addresses", no_argument, NULL, 'a'},
        {"speed", required_argument, NULL, 's'},
        {"timeout", required_argument, NULL, 'T'},
        {"yes", no_argument, NULL, 'y'},
        {NULL, 0, NULL, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS "as:y", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            help();
            exit(EXIT_OK);
        case 't':
            ApplyTraceOption(optarg);
            break;
        case 'a':
            opts->allAddresses = true;
            break;
        case 's':
            if (!ParseUnsigned(optarg, 0xFFFFFFFFUL, &opts->speed))
                Usage("invalid speed '%s'", optarg);
            break;
        case 'T':
            if (!ParseUnsigned(optarg, MAX_TIMEOUT_MS, &opts->timeoutMs) || opts->timeoutMs == 0)
                Usage("invalid timeout '%s' (1..30000 ms)", optarg);
            break;
        case 'y':
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
}

static unsigned int ParseBus(const char* text)
{
    unsigned long bus;
    if (!ParseUnsigned(text, 255, &bus))
        Usage("invalid bus '%s' (a number 0..255)", text);
    return (unsigned int)bus;
}

static int CmdTransfer(int argc, char** argv)
{
    static struct I2cMessage messages[I2C_MAX_MESSAGES];
    struct I2cOptions opts = {false, DEFAULT_SPEED, DEFAULT_TIMEOUT_MS};
    char error[256];
    const struct I2cMessage* write = NULL;
    const struct I2cMessage* read = NULL;
    unsigned char readData[I2C_MESSAGE_MAX_LENGTH];
    const char* path;
    const char* why;
    unsigned int bus, i;
    int count;
    KARVEXDeviceHandle handle;
    TSTATUS st;

    ParseI2cOptions(argc, argv, &opts, TransferHelp);
    if (argc - optind < 3)
        Usage("expected PATH BUS DESC [DATA]...");
    path = argv[optind];
    bus = ParseBus(argv[optind + 1]);
    count = ParseI2cMessages(argc - optind - 2, argv + optind + 2, opts.allAddresses, messages, I2C_MAX_MESSAGES,
                             error, sizeof error);
    if (count < 0)
        Usage("%s", error);
    why = CheckAdapterTransaction(messages, count);
    if (why != NULL)
        Usage("%s", why);
    for (i = 0; i < (unsigned int)count; ++i) {
        if (messages[i].read)
            read = &messages[i];
        else
            write = &messages[i];
    }

    handle = OpenAdapter(path);
    if (handle == 0)
        return EXIT_DEVICE;
    st = KARVEX_I2cTransaction(handle, bus, (unsigned int)opts.speed, messages[0].address,
                               write != NULL ? write->data : NULL, write != NULL ? write->length : 0U, readData,
                               read != NULL ? read->length : 0U, (unsigned int)opts.timeoutMs);
    CloseAdapter(handle);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "transfer to 0x%02x on bus %u failed", messages[0].address, bus);
        if (IsAdapterRefusal(st))
            Error("(is there a device at 0x%02x, and does the adapter have bus %u?)", messages[0].address, bus);
        return EXIT_DEVICE;
    }
    if (read != NULL) {
        for (i = 0; i < read->length; ++i)
            printf("%s0x%02x", i == 0 ? "" : " ", readData[i]);
        printf("\n");
    }
    return EXIT_OK;
}

static void ScanHelp(void)
{
    printf("Usage: karvexctl i2c scan [OPTIONS] PATH BUS [FIRST LAST]\n"
           "Probe the 7-bit addresses FIRST..LAST (default 0x08..0x77; with -a\n"
           "0x00..0x7f) and print an i2cdetect-style grid: '--' no answer, the\n"
           "address when a device answered, blank when not probed.\n"
           "\n"
           "Each address is probed with a 1-byte read, the only probe the adapter\n"
           "offers: a device that answers gives up one byte (a FIFO or a device\n"
           "with read side effects may notice). An address counts as empty when\n"
           "the adapter reports a failure for it; any other error ends the scan.\n"
           "\n"
           "Options:\n"
           "  -a, --all-addresses   probe 0x00..0x7f\n"
           "  -s, --speed=HZ        bus clock passed to the adapter (default 100000)\n"
           "      --timeout=MS      the adapter's limit per probe (default 100)\n"
           "  -y, --yes             accepted for i2cdetect habits; karvexctl never asks\n" COMMON_OPTIONS_HELP);
}

static int CmdScan(int argc, char** argv)
{
    struct I2cOptions opts = {false, DEFAULT_SPEED, DEFAULT_SCAN_TIMEOUT_MS};
    unsigned long first = 0x08, last = 0x77;
    const char* path;
    unsigned int bus, row, col, found;
    TSTATUS firstRefusal;
    bool sameRefusal;
    KARVEXDeviceHandle handle;

    ParseI2cOptions(argc, argv, &opts, ScanHelp);
    if (opts.allAddresses) {
        first = 0x00;
        last = 0x7F;
    }
    if (argc - optind != 2 && argc - optind != 4)
        Usage("expected PATH BUS [FIRST LAST]");
    path = argv[optind];
    bus = ParseBus(argv[optind + 1]);
    if (argc - optind == 4) {
        unsigned long lo = opts.allAddresses ? 0x00 : 0x03, hi = opts.allAddresses ? 0x7F : 0x77;
        if (!ParseUnsigned(argv[optind + 2], 0x7F, &first) || first < lo)
            Usage("invalid FIRST '%s' (0x%02lx..0x%02lx)", argv[optind + 2], lo, hi);
        if (!ParseUnsigned(argv[optind + 3], 0x7F, &last) || last > hi || last < first)
            Usage("invalid LAST '%s' (FIRST..0x%02lx)", argv[optind + 3], hi);
    }

    handle = OpenAdapter(path);
    if (handle == 0)
        return EXIT_DEVICE;
    found = 0;
    firstRefusal = TSTATUS_SUCCESS;
    sameRefusal = true;
    printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n");
    for (row = 0; row < 128; row += 16) {
        printf("%02x: ", row);
        for (col = 0; col < 16; ++col) {
            unsigned int address = row + col;
            unsigned char byte;
            TSTATUS st;
            if (address < first || address > last) {
                printf("   ");
                continue;
            }
            st = KARVEX_I2cTransaction(handle, bus, (unsigned int)opts.speed, address, NULL, 0, &byte, 1,
                                       (unsigned int)opts.timeoutMs);
            if (st == TSTATUS_SUCCESS) {
                printf("%02x ", address);
                ++found;
            } else if (IsAdapterRefusal(st)) {
                printf("-- ");
                if (firstRefusal == TSTATUS_SUCCESS)
                    firstRefusal = st;
                sameRefusal = sameRefusal && st == firstRefusal;
            } else {
                printf("\n");
                fflush(stdout);
                StatusError(st, "probing 0x%02x on bus %u failed", address, bus);
                CloseAdapter(handle);
                return EXIT_DEVICE;
            }
        }
        printf("\n");
        fflush(stdout);
    }
    CloseAdapter(handle);
    /* An adapter says no the same way to every address on a bus it lacks. */
    if (found == 0 && firstRefusal != TSTATUS_SUCCESS && sameRefusal)
        Error("note: no device answered; the adapter gave status 0x%02X for every address (does bus %u exist?)",
              (unsigned int)firstRefusal & 0xFFU, bus);
    return EXIT_OK;
}

int CmdI2c(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {NULL, 0, NULL, 0},
    };
    int c;

    while ((c = getopt_long(argc, argv, DISPATCH_SHORT_OPTIONS, longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            I2cHelp();
            return EXIT_OK;
        case 't':
            ApplyTraceOption(optarg);
            break;
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (optind >= argc)
        Usage("no i2c command given (transfer or scan)");
    {
        /* EnterCommand resets optind: take the subcommand's argv first. */
        char** sub = argv + optind;
        int subc = argc - optind;
        if (strcmp(sub[0], "transfer") == 0) {
            EnterCommand("transfer");
            return CmdTransfer(subc, sub);
        }
        if (strcmp(sub[0], "scan") == 0) {
            EnterCommand("scan");
            return CmdScan(subc, sub);
        }
        Usage("unknown i2c command '%s'", sub[0]);
    }
}
