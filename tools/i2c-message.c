#include "i2c-message.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int Fail(char* error, size_t errorSize, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
static int Fail(char* error, size_t errorSize, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(error, errorSize, fmt, ap);
    va_end(ap);
    return -1;
}

/* Strict unsigned parse of text[0..len) in the given base (0: C prefixes). */
static bool ParseNumber(const char* text, size_t len, int base, unsigned long max, unsigned long* value)
{
    char buf[32];
    char* end = NULL;
    unsigned long v;
    if (len == 0 || len >= sizeof buf || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return false;
    memcpy(buf, text, len);
    buf[len] = '\0';
    errno = 0;
    v = strtoul(buf, &end, base);
    if (errno != 0 || *end != '\0' || v > max)
        return false;
    *value = v;
    return true;
}

/* One step of an 8-bit maximal-length LFSR (x^8 + x^6 + x^5 + x^4 + 1). */
static unsigned char NextPseudoRandom(unsigned char v)
{
    return (unsigned char)((v >> 1) ^ ((v & 1U) ? 0xB8U : 0U));
}

int ParseI2cMessages(int argc, char** argv, bool allAddresses, struct I2cMessage* messages, int maxMessages,
                     char* error, size_t errorSize)
{
    int arg = 0, count = 0;
    long lastAddress = -1;

    while (arg < argc) {
        const char* desc = argv[arg++];
        const char* at;
        struct I2cMessage* m;
        unsigned long length, address;
        size_t lengthChars;

        if (count == maxMessages)
            return Fail(error, errorSize, "too many messages (at most %d)", maxMessages);
        m = &messages[count];
        memset(m, 0, sizeof *m);
        if (desc[0] != 'r' && desc[0] != 'w')
            return Fail(error, errorSize, "invalid message '%s' (expected {r|w}LENGTH[@ADDRESS], e.g. w2@0x50)", desc);
        m->read = desc[0] == 'r';
        at = strchr(desc, '@');
        lengthChars = at != NULL ? (size_t)(at - desc - 1) : strlen(desc + 1);
        if (!ParseNumber(desc + 1, lengthChars, 10, 0xFFFFFFUL, &length))
            return Fail(error, errorSize, "invalid length in '%s' (expected {r|w}LENGTH[@ADDRESS])", desc);
        if (length > I2C_MESSAGE_MAX_LENGTH)
            return Fail(error, errorSize, "message '%s' is longer than the adapter's %u bytes", desc,
                        I2C_MESSAGE_MAX_LENGTH);
        m->length = (unsigned int)length;
        if (at != NULL) {
            if (!ParseNumber(at + 1, strlen(at + 1), 0, 0xFFFFUL, &address))
                return Fail(error, errorSize, "invalid address in '%s'", desc);
            if (address > 0x7F)
                return Fail(error, errorSize,
                            "address 0x%lx in '%s' is not a 7-bit address (0x00-0x7f; karvexctl takes 7-bit "
                            "addresses like i2c-tools)",
                            address, desc);
            if (!allAddresses && (address < 0x08 || address > 0x77))
                return Fail(error, errorSize, "address 0x%02lx is reserved (0x00-0x07, 0x78-0x7f); use -a to allow it",
                            address);
            lastAddress = (long)address;
        } else if (lastAddress < 0) {
            return Fail(error, errorSize, "the first message '%s' needs an address (e.g. %c%lu@0x50)", desc, desc[0],
                        length);
        }
        m->address = (unsigned int)lastAddress;

        if (!m->read) {
            unsigned int i = 0;
            while (i < m->length) {
                const char* text;
                size_t len;
                unsigned long value;
                char suffix = '\0';
                if (arg >= argc)
                    return Fail(error, errorSize, "message '%s' needs %u data bytes, got %u", desc, m->length, i);
                text = argv[arg++];
                len = strlen(text);
                if (len > 0 && strchr("=+-p", text[len - 1]) != NULL)
                    suffix = text[--len];
                if (!ParseNumber(text, len, 0, 0xFF, &value))
                    return Fail(error, errorSize, "invalid data byte '%s' for '%s' (0x00-0xff, optionally followed "
                                "by =, +, - or p)", text, desc);
                m->data[i++] = (unsigned char)value;
                if (suffix != '\0') {
                    /* The suffix fills the rest of the message. */
                    unsigned char v = (unsigned char)value;
                    while (i < m->length) {
                        switch (suffix) {
                        case '+':
                            v = (unsigned char)(v + 1U);
                            break;
                        case '-':
                            v = (unsigned char)(v - 1U);
                            break;
                        case 'p':
                            v = NextPseudoRandom(v);
                            break;
                        default:
                            break;
                        }
                        m->data[i++] = v;
                    }
                }
            }
        }
        ++count;
    }
    if (count == 0)
        return Fail(error, errorSize, "no message given (e.g. w1@0x50 0x00 r8)");
    return count;
}

const char* CheckAdapterTransaction(const struct I2cMessage* messages, int count)
{
    if (count > 2)
        return "the adapter runs at most two messages per transfer: one write followed by one read";
    if (count == 2) {
        if (messages[0].read && !messages[1].read)
            return "the adapter cannot write after a read in one transfer; the write must come first";
        if (messages[0].read == messages[1].read)
            return messages[0].read ? "the adapter cannot run two reads in one transfer"
                                    : "the adapter cannot run two writes in one transfer; join them into one";
        if (messages[0].address != messages[1].address)
            return "the write and the read of one transfer must go to the same address";
    }
    return NULL;
}
