/* Messages written in i2ctransfer's syntax: DESC [DATA]... where DESC is
 * {r|w}LENGTH[@ADDRESS], and how they map onto the adapter's transaction. */
#ifndef KARVEX_TOOLS_I2C_MESSAGE_H
#define KARVEX_TOOLS_I2C_MESSAGE_H

#include <stdbool.h>
#include <stddef.h>

#define I2C_MESSAGE_MAX_LENGTH 256U
#define I2C_MAX_MESSAGES 42

struct I2cMessage {
    bool read;
    unsigned int length;
    unsigned int address; /* 7-bit */
    unsigned char data[I2C_MESSAGE_MAX_LENGTH];
};

/* Parses argv[0..argc-1] into at most maxMessages messages. allAddresses
 * admits the reserved addresses 0x00-0x07 and 0x78-0x7f. Returns the number
 * of messages, or -1 with a sentence in error. */
int ParseI2cMessages(int argc, char** argv, bool allAddresses, struct I2cMessage* messages, int maxMessages,
                     char* error, size_t errorSize);

/* The adapter runs one transaction: at most one write followed by at most one
 * read, both to the same address. NULL when the messages fit, else why not. */
const char* CheckAdapterTransaction(const struct I2cMessage* messages, int count);

#endif
