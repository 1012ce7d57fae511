/* Loads the library and prints its API version and a status name. */
#include <karvex/karvex_api.h>

#include <stdio.h>

int main(void)
{
    unsigned int v = KARVEX_GetApiVersion();
    printf("libkarvex API version %u.%u (compatible with 1.0: %s)\n", v >> 16, v & 0xFFFFu,
           KARVEX_CheckApiVersion(1, 0) ? "yes" : "no");
    printf("status 0x%08X is %s\n", (unsigned int)TSTATUS_OBJECT_NOT_FOUND, TStatusStringA(TSTATUS_OBJECT_NOT_FOUND));
    return 0;
}
