/* Writes a string into a 24C02 EEPROM (bus 0, address 0x50) on the first
 * adapter and reads it back. */
#include <karvex/karvex_api.h>

#include <stdio.h>
#include <string.h>

#define BUS 0
#define SPEED_HZ 100000
#define EEPROM_ADDRESS 0x50
#define TIMEOUT_MS 100

int main(void)
{
    static const char text[] = "Hello, Karvex!";
    unsigned char write[1 + sizeof text];
    unsigned char offset = 0x00;
    unsigned char back[sizeof text];
    char path[256];
    unsigned int count = 0;
    KARVEXDeviceHandle h = 0;
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

    /* A write: the memory offset, then the bytes to store there. */
    write[0] = offset;
    memcpy(write + 1, text, sizeof text);
    st = KARVEX_I2cTransaction(h, BUS, SPEED_HZ, EEPROM_ADDRESS, write, sizeof write, NULL, 0, TIMEOUT_MS);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "EEPROM write failed: %s (0x%08X)\n", TStatusStringA(st), (unsigned int)st);
        KARVEX_CloseDevice(h);
        return 1;
    }
    /* A read: set the offset with a one-byte write, then read in the same transaction. */
    st = KARVEX_I2cTransaction(h, BUS, SPEED_HZ, EEPROM_ADDRESS, &offset, 1, back, sizeof back, TIMEOUT_MS);
    KARVEX_CloseDevice(h);
    if (st != TSTATUS_SUCCESS) {
        fprintf(stderr, "EEPROM read failed: %s (0x%08X)\n", TStatusStringA(st), (unsigned int)st);
        return 1;
    }
    printf("wrote \"%s\", read back \"%s\": %s\n", text, (const char*)back,
           memcmp(text, back, sizeof text) == 0 ? "match" : "MISMATCH");
    return memcmp(text, back, sizeof text) == 0 ? 0 : 1;
}
