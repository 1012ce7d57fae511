/* Compiled as C99 with -pedantic -Werror: the public header must stay C-clean
 * and the version functions must answer from a C program. */
#include <karvex/karvex_api.h>

#include <stdio.h>
#include <string.h>

static void on_change(void* ctx, KARVEXDeviceEvent ev) { (void)ctx; (void)ev; }
static void on_pin(void* ctx, unsigned int pin, KARVEX_GPIOState st) { (void)ctx; (void)pin; (void)st; }

int main(void)
{
    KARVEXCB_DeviceChangeEvent* cb1 = on_change;
    KARVEXCB_InputPinEvent* cb2 = on_pin;
    KARVEXDeviceHandle h = 0;
    int failures = 0;
    (void)cb1;
    (void)cb2;
    (void)h;
    if (KARVEX_GetApiVersion() != KARVEX_API_VERSION || KARVEX_API_VERSION != 0x00010000u) {
        printf("api version mismatch\n");
        failures++;
    }
    if (KARVEX_GetUniCharSize() != sizeof(T_UNICHAR)) {
        printf("unichar size mismatch\n");
        failures++;
    }
    TPosixSetTraceMask(0);
    if (KARVEX_CheckApiVersion(1, 0) != 1 || KARVEX_CheckApiVersion(1, 1) != 0) {
        printf("check version wrong\n");
        failures++;
    }
    if (strcmp(TStatusStringA(TSTATUS_OBJECT_NOT_FOUND), "TSTATUS_OBJECT_NOT_FOUND") != 0) {
        printf("status name wrong\n");
        failures++;
    }
    return failures ? 1 : 0;
}
