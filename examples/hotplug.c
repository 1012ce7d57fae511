/* Reports adapters arriving and leaving for 5 seconds (or until one has left
 * and come back). Try it with: karvex-emu --replug 0:500 -- ./hotplug */
#define _POSIX_C_SOURCE 200809L
#include <karvex/karvex_api.h>

#include <pthread.h>
#include <stdio.h>
#include <time.h>

static pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t gChanged = PTHREAD_COND_INITIALIZER;
static unsigned int gRemoved, gAttached;

/* Runs on the library's hot-plug thread; it may call the library. The event
 * does not say which adapter: a new enumeration tells what is there now. */
static void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    unsigned int count = 0;
    (void)context;
    KARVEX_EnumerateDevices(&count);
    printf("%s; %u adapter(s) attached now\n",
           event == KARVEXEvent_DeviceAttached ? "an adapter arrived" : "an adapter left", count);
    fflush(stdout);
    pthread_mutex_lock(&gLock);
    if (event == KARVEXEvent_DeviceAttached)
        ++gAttached;
    else
        ++gRemoved;
    pthread_cond_signal(&gChanged);
    pthread_mutex_unlock(&gLock);
}

int main(void)
{
    unsigned int count = 0, removed, attached;
    struct timespec deadline;
    TSTATUS st = KARVEX_EnumerateDevices(&count);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "cannot enumerate adapters: %s\n", TStatusStringA(st));
        return 1;
    }
    printf("%u adapter(s) attached; waiting for changes\n", count);
    fflush(stdout);
    st = KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, NULL);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "cannot watch for adapters: %s\n", TStatusStringA(st));
        return 1;
    }

    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 5;
    pthread_mutex_lock(&gLock);
    while ((gRemoved == 0 || gAttached == 0) && pthread_cond_timedwait(&gChanged, &gLock, &deadline) == 0) {
    }
    removed = gRemoved;
    attached = gAttached;
    pthread_mutex_unlock(&gLock);

    /* Unregistering stops the hot-plug thread. */
    KARVEX_RegisterDeviceChangeCallback(NULL, NULL);
    printf("%u removal(s), %u arrival(s)\n", removed, attached);
    return removed + attached > 0 ? 0 : 1;
}
