/* karvexctl list and karvexctl info: who is attached and what it is. */
#include "karvexctl.h"
#include "tools-common.h"
#include "usb-strings.h"

#include <getopt.h>
#include <stdio.h>
#include <string.h>

/* The most pins an adapter is asked about; probing stops at the first pin
 * the adapter refuses. */
#define MAX_PROBED_PINS 256U

struct AdapterIdentity {
    char path[256];
    unsigned int vendorId, productId, bcdDevice;
    char serial[128];
    struct UsbStrings usb;
    bool haveUsb;
};

/* Identity through the library (opened adapter) plus the USB strings. */
static TSTATUS ReadIdentity(KARVEXDeviceHandle handle, struct AdapterIdentity* id)
{
    TSTATUS st = KARVEX_GetDeviceUsbInfo(handle, &id->vendorId, &id->productId, &id->bcdDevice);
    if (st != TSTATUS_SUCCESS)
        return st;
    st = KARVEX_GetDeviceSerialNumber(handle, id->serial, sizeof id->serial);
    if (st == TSTATUS_NOT_SUPPORTED)
        id->serial[0] = '\0';
    else if (st != TSTATUS_SUCCESS)
        return st;
    id->haveUsb = ReadUsbStrings(id->path, &id->usb);
    return TSTATUS_SUCCESS;
}

static void PrintRelease(FILE* out, unsigned int bcd)
{
    fprintf(out, "%x.%02x", (bcd >> 8) & 0xFFU, bcd & 0xFFU);
}

static void PrintIdentityJson(const struct AdapterIdentity* id)
{
    printf("{\"path\": ");
    JsonString(stdout, id->path);
    printf(", \"vendor_id\": %u, \"product_id\": %u, \"bcd_device\": %u, \"release\": \"", id->vendorId,
           id->productId, id->bcdDevice);
    PrintRelease(stdout, id->bcdDevice);
    printf("\", \"serial\": ");
    JsonString(stdout, id->serial);
    printf(", \"manufacturer\": ");
    JsonString(stdout, id->haveUsb ? id->usb.manufacturer : "");
    printf(", \"product\": ");
    JsonString(stdout, id->haveUsb ? id->usb.product : "");
}

static void ListHelp(void)
{
    printf("Usage: karvexctl list [OPTIONS]\n"
           "Print one line per attached adapter:\n"
           "  PATH VID:PID RELEASE \"SERIAL\" \"MANUFACTURER\" \"PRODUCT\"\n"
           "The first four come from the adapter through libkarvex; manufacturer and\n"
           "product are the USB strings, read from sysfs. An adapter that cannot be\n"
           "opened is still listed from sysfs, its error goes to stderr and the exit\n"
           "status is 1.\n"
           "\n"
           "Options:\n"
           "  -j, --json         print a JSON array of objects instead\n" COMMON_OPTIONS_HELP);
}

int CmdList(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"json", no_argument, NULL, 'j'},
        {NULL, 0, NULL, 0},
    };
    bool json = false;
    int c, result = EXIT_OK;
    unsigned int count = 0, i, printed = 0;
    TSTATUS st;

    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS "j", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            ListHelp();
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
    if (optind < argc)
        Usage("unexpected argument '%s'", argv[optind]);

    st = KARVEX_EnumerateDevices(&count);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot list the adapters");
        return EXIT_DEVICE;
    }
    if (json)
        printf("[");
    for (i = 0; i < count; ++i) {
        struct AdapterIdentity id;
        KARVEXDeviceHandle handle = 0;
        memset(&id, 0, sizeof id);
        st = KARVEX_GetDeviceInstanceId(i, id.path, sizeof id.path);
        if (st != TSTATUS_SUCCESS) {
            StatusError(st, "cannot read the path of adapter %u", i);
            result = EXIT_DEVICE;
            continue;
        }
        st = KARVEX_OpenDevice(id.path, &handle);
        if (st == TSTATUS_SUCCESS) {
            st = ReadIdentity(handle, &id);
            KARVEX_CloseDevice(handle);
        }
        if (st != TSTATUS_SUCCESS) {
            /* Still show what sysfs knows: the usual cause is a missing
             * permission, and the user wants to see which node it is. */
            StatusError(st, "cannot open %s", id.path);
            result = EXIT_DEVICE;
            id.haveUsb = ReadUsbStrings(id.path, &id.usb);
            if (!id.haveUsb)
                continue;
            id.vendorId = id.usb.vendorId;
            id.productId = id.usb.productId;
            id.bcdDevice = id.usb.bcdDevice;
            snprintf(id.serial, sizeof id.serial, "%s", id.usb.serial);
        }
        if (json) {
            printf("%s\n  ", printed == 0 ? "" : ",");
            PrintIdentityJson(&id);
            printf("}");
        } else {
            printf("%s %04x:%04x ", id.path, id.vendorId, id.productId);
            PrintRelease(stdout, id.bcdDevice);
            putchar(' ');
            QuotedString(stdout, id.serial);
            putchar(' ');
            QuotedString(stdout, id.haveUsb ? id.usb.manufacturer : "");
            putchar(' ');
            QuotedString(stdout, id.haveUsb ? id.usb.product : "");
            putchar('\n');
        }
        ++printed;
    }
    if (json)
        printf("%s]\n", printed == 0 ? "" : "\n");
    return result;
}

static void InfoHelp(void)
{
    printf("Usage: karvexctl info [OPTIONS] PATH\n"
           "Print the adapter's USB identity and the mode and level of each pin.\n"
           "The pin count is found by asking for pins 0, 1, 2, ... until the\n"
           "adapter refuses one.\n"
           "\n"
           "Options:\n"
           "  -j, --json         print one JSON object instead\n" COMMON_OPTIONS_HELP);
}

int CmdInfo(int argc, char** argv)
{
    static const struct option longOptions[] = {
        COMMON_LONG_OPTIONS,
        {"json", no_argument, NULL, 'j'},
        {NULL, 0, NULL, 0},
    };
    static KARVEX_GPIOMode modes[MAX_PROBED_PINS];
    static KARVEX_GPIOState levels[MAX_PROBED_PINS];
    bool json = false;
    int c;
    unsigned int pins = 0, pin, api;
    struct AdapterIdentity id;
    KARVEXDeviceHandle handle;
    TSTATUS st;

    while ((c = getopt_long(argc, argv, COMMON_SHORT_OPTIONS "j", longOptions, NULL)) != -1) {
        switch (c) {
        case 'h':
            InfoHelp();
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
    if (argc - optind != 1)
        Usage("expected exactly one PATH");
    memset(&id, 0, sizeof id);
    snprintf(id.path, sizeof id.path, "%s", argv[optind]);

    handle = OpenAdapter(id.path);
    if (handle == 0)
        return EXIT_DEVICE;
    st = ReadIdentity(handle, &id);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot read the identity of %s", id.path);
        CloseAdapter(handle);
        return EXIT_DEVICE;
    }
    for (pin = 0; pin < MAX_PROBED_PINS; ++pin) {
        st = KARVEX_GetPinMode(handle, pin, &modes[pin]);
        if (st == TSTATUS_SUCCESS)
            st = KARVEX_GetPinState(handle, pin, &levels[pin]);
        if (st != TSTATUS_SUCCESS)
            break;
    }
    pins = pin;
    CloseAdapter(handle);
    if (st != TSTATUS_SUCCESS && !IsAdapterRefusal(st)) {
        StatusError(st, "cannot read pin %u of %s", pin, id.path);
        return EXIT_DEVICE;
    }

    api = KARVEX_GetApiVersion();
    if (json) {
        PrintIdentityJson(&id);
        printf(", \"pins\": [");
        for (pin = 0; pin < pins; ++pin)
            printf("%s{\"pin\": %u, \"mode\": \"%s\", \"level\": %d}", pin == 0 ? "" : ", ", pin, GpioModeName(modes[pin]),
                   levels[pin] == GPIOState_High ? 1 : 0);
        printf("]}\n");
        return EXIT_OK;
    }
    printf("path          %s\n", id.path);
    printf("usb id        %04x:%04x\n", id.vendorId, id.productId);
    printf("release       ");
    PrintRelease(stdout, id.bcdDevice);
    printf("\nserial        %s\n", id.serial[0] != '\0' ? id.serial : "(none)");
    printf("manufacturer  %s\n", id.haveUsb ? id.usb.manufacturer : "(unknown)");
    printf("product       %s\n", id.haveUsb ? id.usb.product : "(unknown)");
    printf("library API   %u.%u\n", api >> 16, api & 0xFFFFU);
    printf("pins          %u\n", pins);
    for (pin = 0; pin < pins; ++pin)
        printf("  pin %3u     %-12s %s\n", pin, GpioModeName(modes[pin]), levels[pin] == GPIOState_High ? "high" : "low");
    return EXIT_OK;
}
