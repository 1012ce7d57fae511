/* Prints the changes of input pin 3 of the first adapter as the library's
 * pin event thread reports them: six of them, or what came in 3 seconds.
 * Try it with: karvex-emu --toggle 3:200 -- ./pin_events */
#define _POSIX_C_SOURCE 200809L
#include <karvex/karvex_api.h>

#include <pthread.h>
#include <stdio.h>
#include <time.h>

#define PIN 3
#define WANTED 6

static pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t gChanged = PTHREAD_COND_INITIALIZER;
static unsigned int gEvents;

/* Runs on the library's pin event thread. */
static void OnPinEvent(void* context, unsigned int pinId, KARVEX_GPIOState state)
{
    (void)context;
    printf("pin %u is now %s\n", pinId, state == GPIOState_High ? "high" : "low");
    fflush(stdout);
    pthread_mutex_lock(&gLock);
    ++gEvents;
    pthread_cond_signal(&gChanged);
    pthread_mutex_unlock(&gLock);
}

int main(void)
{
    char path[256];
    unsigned int count = 0, seen;
    KARVEXDeviceHandle h = 0;
    struct timespec deadline;
    TSTATUS st;

    if (KARVEX_EnumerateDevices(&count) != TSTATUS_SUCCESS || count == 0 ||
        KARVEX_GetDeviceInstanceId(0, path, sizeof path) != TSTATUS_SUCCESS) {
        fprintf(stderr, "no adapter attached\n");
        return 1;
    }
    st = KARVEX_OpenDevice(path, &h);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "cannot open %s: %s\n", path, TStatusStringA(st));
        return 1;
    }
    /* Callback first, then the mode: no change is lost in between. */
    st = KARVEX_RegisterPinEventCallback(h, OnPinEvent, NULL);
    if (st == TSTATUS_SUCCESS)
        st = KARVEX_SetPinMode(h, PIN, GPIOMode_InputEvent);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "cannot watch pin %d: %s\n", PIN, TStatusStringA(st));
        KARVEX_CloseDevice(h);
        return 1;
    }
    printf("watching pin %d of %s\n", PIN, path);
    fflush(stdout);

    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 3;
    pthread_mutex_lock(&gLock);
    while (gEvents < WANTED && pthread_cond_timedwait(&gChanged, &gLock, &deadline) == 0) {
    }
    seen = gEvents;
    pthread_mutex_unlock(&gLock);

    /* Closing stops the pin event thread; no callback runs after it returns. */
    KARVEX_CloseDevice(h);
    printf("%u event(s)\n", seen);
    return seen > 0 ? 0 : 1;
}
