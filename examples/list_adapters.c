/* Lists the attached adapters with their USB identity and serial number. */
#include <karvex/karvex_api.h>

#include <stdio.h>

int main(void)
{
    unsigned int count = 0, i;
    TSTATUS st = KARVEX_EnumerateDevices(&count);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "cannot enumerate adapters: %s\n", TStatusStringA(st));
        return 1;
    }
    printf("%u adapter(s)\n", count);
    for (i = 0; i < count; ++i) {
        char path[256], serial[128];
        unsigned int vid = 0, pid = 0, bcd = 0;
        KARVEXDeviceHandle h = 0;

        st = KARVEX_GetDeviceInstanceId(i, path, sizeof path);
        if (st != TSTATUS_SUCCESS) {
            fprintf(stderr, "adapter %u: no instance id: %s\n", i, TStatusStringA(st));
            continue;
        }
        /* USB identity and serial number need an open adapter. */
        st = KARVEX_OpenDevice(path, &h);
        if (st != TSTATUS_SUCCESS) {
            fprintf(stderr, "%s: cannot open: %s\n", path, TStatusStringA(st));
            continue;
        }
        KARVEX_GetDeviceUsbInfo(h, &vid, &pid, &bcd);
        if (KARVEX_GetDeviceSerialNumber(h, serial, sizeof serial) != TSTATUS_SUCCESS)
            serial[0] = '\0';
        printf("%s  %04x:%04x  release %x.%02x  serial \"%s\"\n", path, vid, pid, bcd >> 8, bcd & 0xFF, serial);
        KARVEX_CloseDevice(h);
    }
    return 0;
}
