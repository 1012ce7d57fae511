/* A program outside the source tree, built against an installed libkarvex. */
#include <karvex/karvex_api.h>

#include <stdio.h>

int main(void)
{
    unsigned int v = KARVEX_GetApiVersion();
    if (!KARVEX_CheckApiVersion(KARVEX_API_VERSION_MAJOR, KARVEX_API_VERSION_MINOR))
        return 1;
    TPosixSetTraceMask(0);
    printf("libkarvex API %u.%u, %s\n", v >> 16, v & 0xFFFFu, TStatusStringA(KARVEX_CloseDevice(0)));
    return 0;
}
