/* A whole session with the library, told as it happens: list the adapters,
 * open them, drive and read pins, write and read back an EEPROM, receive pin
 * events, and see an adapter unplugged and plugged in again. scripts/demo.sh
 * runs it against two emulated adapters:
 *   karvex-emu --adapters 2 --toggle 5:150 --replug 1:1500:500 -- ./session */
#define _POSIX_C_SOURCE 200809L
#include <karvex/karvex_api.h>

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#define EVENT_PIN 5
#define EEPROM_BUS 0
#define EEPROM_ADDRESS 0x50
#define I2C_SPEED_HZ 100000
#define I2C_TIMEOUT_MS 100

static pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t gChanged = PTHREAD_COND_INITIALIZER;
static unsigned int gPinEvents, gRemoved, gAttached;

static void Say(const char* fmt, const char* arg)
{
    printf(fmt, arg);
    fflush(stdout);
}

static int Check(const char* what, TSTATUS st)
{
    if (st == TSTATUS_SUCCESS)
        return 1;
    printf("  !! %s failed: %s (0x%08X)\n", what, TStatusStringA(st), (unsigned int)st);
    fflush(stdout);
    return 0;
}

/* On the adapter's pin event thread. */
static void OnPinEvent(void* context, unsigned int pinId, KARVEX_GPIOState state)
{
    (void)context;
    printf("  [pin event thread] pin %u went %s\n", pinId, state == GPIOState_High ? "high" : "low");
    fflush(stdout);
    pthread_mutex_lock(&gLock);
    ++gPinEvents;
    pthread_cond_broadcast(&gChanged);
    pthread_mutex_unlock(&gLock);
}

/* On the library's hot-plug thread. */
static void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    unsigned int count = 0;
    (void)context;
    KARVEX_EnumerateDevices(&count);
    printf("  [hot-plug thread] %s, %u adapter(s) attached now\n",
           event == KARVEXEvent_DeviceAttached ? "an adapter arrived" : "an adapter left", count);
    fflush(stdout);
    pthread_mutex_lock(&gLock);
    if (event == KARVEXEvent_DeviceAttached)
        ++gAttached;
    else if (event == KARVEXEvent_DeviceRemoved)
        ++gRemoved;
    pthread_cond_broadcast(&gChanged);
    pthread_mutex_unlock(&gLock);
}

/* Waits until *counter reaches target or seconds pass; returns the count. */
static unsigned int WaitFor(const unsigned int* counter, unsigned int target, int seconds)
{
    struct timespec deadline;
    unsigned int value;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    pthread_mutex_lock(&gLock);
    while (*counter < target && pthread_cond_timedwait(&gChanged, &gLock, &deadline) == 0) {
    }
    value = *counter;
    pthread_mutex_unlock(&gLock);
    return value;
}

static const char* ModeName(KARVEX_GPIOMode mode)
{
    static const char* const names[] = {"GPIOMode_Input", "GPIOMode_InputEvent", "GPIOMode_Output_Low",
                                        "GPIOMode_Output_High"};
    return (unsigned int)mode < 4 ? names[mode] : "?";
}

static void PrintHex(const unsigned char* data, unsigned int length)
{
    unsigned int i;
    for (i = 0; i < length; ++i)
        printf("%02x%s", data[i], i + 1 < length ? " " : "");
}

int main(void)
{
    char paths[2][256];
    KARVEXDeviceHandle handles[2] = {0, 0};
    unsigned int count = 0, i, api = KARVEX_GetApiVersion();
    int ok = 1;

    printf("== libkarvex API %u.%u, session against the attached adapters\n", api >> 16, api & 0xFFFFU);
    printf("   (lines that start with a C++ signature are the library's own trace on stdout;\n"
           "    mask 0x%02X by default: errors and warnings)\n", TPosixGetTraceMask());

    printf("\n== 1. Listening for adapters arriving and leaving\n");
    ok = Check("KARVEX_RegisterDeviceChangeCallback", KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, NULL));

    printf("\n== 2. Listing and opening the adapters\n");
    if (!Check("KARVEX_EnumerateDevices", KARVEX_EnumerateDevices(&count)) || count < 2) {
        printf("  this session needs two adapters, found %u\n", count);
        return 1;
    }
    for (i = 0; i < 2; ++i) {
        unsigned int vid = 0, pid = 0, bcd = 0;
        char serial[64] = "";
        if (!Check("KARVEX_GetDeviceInstanceId", KARVEX_GetDeviceInstanceId(i, paths[i], sizeof paths[i])) ||
            !Check("KARVEX_OpenDevice", KARVEX_OpenDevice(paths[i], &handles[i])))
            return 1;
        KARVEX_GetDeviceUsbInfo(handles[i], &vid, &pid, &bcd);
        KARVEX_GetDeviceSerialNumber(handles[i], serial, sizeof serial);
        printf("  adapter %u: %s, USB %04x:%04x release %x.%02x, serial %s, handle 0x%08X\n", i, paths[i], vid, pid,
               bcd >> 8, bcd & 0xFF, serial, handles[i]);
    }

    printf("\n== 3. Pins of %s\n", paths[0]);
    {
        KARVEX_GPIOState level = GPIOState_Low;
        KARVEX_GPIOMode mode = GPIOMode_Input;
        ok = ok && Check("KARVEX_SetPinMode", KARVEX_SetPinMode(handles[0], 0, GPIOMode_Output_Low));
        Say("  pin 0 is an output, driven %s\n", "low");
        ok = ok && Check("KARVEX_SetPinState", KARVEX_SetPinState(handles[0], 0, GPIOState_High));
        ok = ok && Check("KARVEX_GetPinState", KARVEX_GetPinState(handles[0], 0, &level));
        ok = ok && Check("KARVEX_GetPinMode", KARVEX_GetPinMode(handles[0], 0, &mode));
        printf("  pin 0 driven high: reads %s, mode %s\n", level == GPIOState_High ? "high" : "low", ModeName(mode));
        ok = ok && Check("KARVEX_SetPinMode", KARVEX_SetPinMode(handles[0], 1, GPIOMode_Input));
        ok = ok && Check("KARVEX_GetPinState", KARVEX_GetPinState(handles[0], 1, &level));
        printf("  pin 1 is an input and reads %s\n", level == GPIOState_High ? "high" : "low");
        {
            TSTATUS st = KARVEX_SetPinMode(handles[0], 99, GPIOMode_Input);
            printf("  pin 99 does not exist: the adapter answers 0x%08X (TSTATUS_RESPONSE_STATUS_BASE + its "
                   "status 0x%02X)\n", (unsigned int)st, (unsigned int)st & 0xFFU);
        }
    }

    printf("\n== 4. The EEPROM at 0x%02X on I2C bus %d of %s\n", EEPROM_ADDRESS, EEPROM_BUS, paths[0]);
    {
        static const char text[] = "Hello from libkarvex";
        unsigned char write[1 + sizeof text - 1];
        unsigned char offset = 0x10, back[sizeof text - 1];
        write[0] = offset;
        memcpy(write + 1, text, sizeof text - 1);
        if (Check("KARVEX_I2cTransaction (write)",
                  KARVEX_I2cTransaction(handles[0], EEPROM_BUS, I2C_SPEED_HZ, EEPROM_ADDRESS, write, sizeof write, NULL,
                                        0, I2C_TIMEOUT_MS))) {
            printf("  wrote \"%s\" at offset 0x%02X\n", text, offset);
        } else {
            ok = 0;
        }
        if (Check("KARVEX_I2cTransaction (read)",
                  KARVEX_I2cTransaction(handles[0], EEPROM_BUS, I2C_SPEED_HZ, EEPROM_ADDRESS, &offset, 1, back,
                                        sizeof back, I2C_TIMEOUT_MS))) {
            printf("  read back: ");
            PrintHex(back, sizeof back);
            printf("\n  as text:   \"%.*s\" (%s)\n", (int)sizeof back, (const char*)back,
                   memcmp(back, text, sizeof back) == 0 ? "same" : "DIFFERENT");
            ok = ok && memcmp(back, text, sizeof back) == 0;
        } else {
            ok = 0;
        }
        {
            unsigned char byte;
            TSTATUS st = KARVEX_I2cTransaction(handles[0], EEPROM_BUS, I2C_SPEED_HZ, 0x51, NULL, 0, &byte, 1,
                                               I2C_TIMEOUT_MS);
            printf("  nobody at 0x51: the adapter answers 0x%08X\n", (unsigned int)st);
        }
    }

    printf("\n== 5. Pin events: pin %d of %s in input-event mode\n", EVENT_PIN, paths[0]);
    ok = ok && Check("KARVEX_RegisterPinEventCallback", KARVEX_RegisterPinEventCallback(handles[0], OnPinEvent, NULL));
    ok = ok && Check("KARVEX_SetPinMode", KARVEX_SetPinMode(handles[0], EVENT_PIN, GPIOMode_InputEvent));
    printf("  waiting for 4 changes...\n");
    fflush(stdout);
    if (WaitFor(&gPinEvents, 4, 5) < 4) {
        printf("  !! fewer than 4 pin events arrived (was the pin toggled? karvex-emu --toggle %d:150)\n", EVENT_PIN);
        ok = 0;
    }
    ok = ok && Check("KARVEX_SetPinMode", KARVEX_SetPinMode(handles[0], EVENT_PIN, GPIOMode_Input));
    ok = ok && Check("KARVEX_RegisterPinEventCallback", KARVEX_RegisterPinEventCallback(handles[0], NULL, NULL));
    printf("  pin %d back to plain input (the adapter stops reporting it), callback removed\n", EVENT_PIN);

    printf("\n== 6. Unplugging %s\n", paths[1]);
    printf("  waiting for it to leave and come back...\n");
    fflush(stdout);
    if (WaitFor(&gRemoved, 1, 6) < 1) {
        printf("  !! no removal seen (karvex-emu --replug 1:1500)\n");
        ok = 0;
    } else {
        TSTATUS st = KARVEX_CheckDeviceConnection(handles[1]);
        printf("  the old handle 0x%08X now says %s; closing it\n", handles[1], TStatusStringA(st));
        ok = ok && st == TSTATUS_DEVICE_REMOVED;
        KARVEX_CloseDevice(handles[1]);
        handles[1] = 0;
    }
    if (WaitFor(&gAttached, 1, 6) < 1) {
        printf("  !! the adapter did not come back\n");
        ok = 0;
    } else if (Check("KARVEX_OpenDevice", KARVEX_OpenDevice(paths[1], &handles[1]))) {
        char serial[64] = "";
        KARVEX_GetDeviceSerialNumber(handles[1], serial, sizeof serial);
        printf("  reopened %s: serial %s, new handle 0x%08X, connection %s\n", paths[1], serial, handles[1],
               TStatusStringA(KARVEX_CheckDeviceConnection(handles[1])));
    } else {
        ok = 0;
    }

    printf("\n== 7. One call with the function trace on (mask 0x%02X)\n", KARVEX_TRACE_FUNCTION);
    fflush(stdout);
    {
        KARVEX_GPIOState level;
        unsigned int old = TPosixGetTraceMask();
        TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_FUNCTION);
        KARVEX_GetPinState(handles[0], 0, &level);
        TPosixSetTraceMask(old);
        fflush(stdout);
    }

    printf("\n== 8. Closing\n");
    KARVEX_RegisterDeviceChangeCallback(NULL, NULL);
    for (i = 0; i < 2; ++i) {
        if (handles[i] != 0)
            Check("KARVEX_CloseDevice", KARVEX_CloseDevice(handles[i]));
    }
    printf("  done: %s\n", ok ? "every step worked" : "some steps FAILED");
    return ok ? 0 : 1;
}
