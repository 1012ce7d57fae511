// Small bit-pattern helpers.
#pragma once

// The bit order of b reversed: bit 7 becomes bit 0.
unsigned char TbReverseByte(unsigned char b);

// Population count: the number of one bits.
unsigned int TbNumberOfBitsSet(unsigned int bitMask);
unsigned int TbNumberOfBitsSet(unsigned long bitMask);
unsigned int TbNumberOfBitsSet(unsigned long long bitMask);
