#include "libtb/TbBitOps.h"

unsigned char TbReverseByte(unsigned char b)
{
    unsigned char r = 0;
    for (int i = 0; i < 8; i++) {
        r = static_cast<unsigned char>((r << 1) | (b & 1));
        b = static_cast<unsigned char>(b >> 1);
    }
    return r;
}

unsigned int TbNumberOfBitsSet(unsigned int bitMask)
{
    return static_cast<unsigned int>(__builtin_popcount(bitMask));
}

unsigned int TbNumberOfBitsSet(unsigned long bitMask)
{
    return static_cast<unsigned int>(__builtin_popcountl(bitMask));
}

unsigned int TbNumberOfBitsSet(unsigned long long bitMask)
{
    return static_cast<unsigned int>(__builtin_popcountll(bitMask));
}
