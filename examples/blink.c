/* Blinks pin 0 of the first adapter five times and reads each level back. */
#define _POSIX_C_SOURCE 200809L
#include <karvex/karvex_api.h>

#include <stdio.h>
#include <time.h>

#define LED_PIN 0

static int Fail(const char* what, TSTATUS st)
{
    fprintf(stderr, "%s failed: %s\n", what, TStatusStringA(st));
    return 1;
}

int main(void)
{
    char path[256];
    unsigned int count = 0, i;
    KARVEXDeviceHandle h = 0;
    const struct timespec halfPeriod = {0, 100 * 1000 * 1000};
    TSTATUS st = KARVEX_EnumerateDevices(&count);
    if (st != TSTATUS_SUCCESS)
        return Fail("KARVEX_EnumerateDevices", st);
    if (count == 0) {
        fprintf(stderr, "no adapter attached\n");
        return 1;
    }
    st = KARVEX_GetDeviceInstanceId(0, path, sizeof path);
    if (st != TSTATUS_SUCCESS)
        return Fail("KARVEX_GetDeviceInstanceId", st);
    st = KARVEX_OpenDevice(path, &h);
    if (st != TSTATUS_SUCCESS)
        return Fail("KARVEX_OpenDevice", st);

    /* Output mode with the level it starts at; then only the level changes. */
    st = KARVEX_SetPinMode(h, LED_PIN, GPIOMode_Output_Low);
    for (i = 0; st == TSTATUS_SUCCESS && i < 10; ++i) {
        KARVEX_GPIOState want = (i % 2 == 0) ? GPIOState_High : GPIOState_Low, got = GPIOState_Low;
        st = KARVEX_SetPinState(h, LED_PIN, want);
        if (st == TSTATUS_SUCCESS)
            st = KARVEX_GetPinState(h, LED_PIN, &got);
        if (st == TSTATUS_SUCCESS)
            printf("%s: pin %d %s\n", path, LED_PIN, got == GPIOState_High ? "on" : "off");
        nanosleep(&halfPeriod, NULL);
    }
    KARVEX_CloseDevice(h);
    return st == TSTATUS_SUCCESS ? 0 : Fail("driving the pin", st);
}
