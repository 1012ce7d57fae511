/* Helpers shared by the karvexctl commands: messages and exit codes, number
 * parsing, opening an adapter, JSON strings. Uses the public header only. */
#ifndef KARVEX_TOOLS_COMMON_H
#define KARVEX_TOOLS_COMMON_H

#include <karvex/karvex_api.h>

#include <stdbool.h>
#include <stdio.h>

/* Exit codes of every command. */
#define EXIT_OK 0
#define EXIT_DEVICE 1 /* the adapter or the system failed */
#define EXIT_USAGE 2  /* the command line is wrong */

/* Set by main() to "karvexctl", extended by each level ("karvexctl gpio set"). */
extern const char* gToolName;

/* "karvexctl gpio set: <message>" on stderr, then a pointer to --help; exits 2. */
void Usage(const char* fmt, ...) __attribute__((format(printf, 1, 2), noreturn));
/* "karvexctl gpio set: <message>" on stderr. */
void Error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
/* "karvexctl gpio set: <what>: TSTATUS_NAME: <plain explanation>" on stderr. */
void StatusError(TSTATUS status, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
/* A sentence saying what a status means for the user. */
const char* StatusExplanation(TSTATUS status);

/* Whole unsigned numbers in decimal, 0x hex or 0 octal, at most max. */
bool ParseUnsigned(const char* text, unsigned long max, unsigned long* value);
/* Parses the trace mask argument and applies it; exits 2 when malformed. */
void ApplyTraceOption(const char* text);

/* Options every command understands (besides its own). Commands that lead to
 * subcommands stop at the first word ("+"); the others take options anywhere. */
#define DISPATCH_SHORT_OPTIONS "+ht:"
#define COMMON_SHORT_OPTIONS "ht:"
#define COMMON_LONG_OPTIONS                                                                                            \
    {"help", no_argument, NULL, 'h'}, { "trace", required_argument, NULL, 't' }
#define COMMON_OPTIONS_HELP                                                                                            \
    "  -t, --trace=MASK   library trace bits on stdout (see 'karvexctl --help')\n"                                   \
    "  -h, --help         show this help and exit\n"

/* Opens the adapter at path; reports the failure and returns 0 when it cannot. */
KARVEXDeviceHandle OpenAdapter(const char* path);
void CloseAdapter(KARVEXDeviceHandle handle);

/* A pin number 0..255 from the command line; exits 2 when malformed. */
unsigned int ParsePin(const char* text);

/* "input", "input-event", "output-low", "output-high". */
const char* GpioModeName(KARVEX_GPIOMode mode);
/* Accepts those names (and "event", "low", "high" for short); false otherwise. */
bool ParseGpioMode(const char* text, KARVEX_GPIOMode* mode);

/* True for a status the adapter itself answered with (its status byte is non-zero). */
bool IsAdapterRefusal(TSTATUS status);

/* Writes s as a JSON string literal (with quotes). */
void JsonString(FILE* out, const char* s);
/* Writes s in double quotes for the text output (no escaping needed: printable). */
void QuotedString(FILE* out, const char* s);

/* Seconds.nanoseconds of CLOCK_MONOTONIC, for event lines. */
void PrintTimestamp(FILE* out);

/* Blocks SIGINT and SIGTERM in this thread and every thread created later and
 * returns a descriptor that becomes readable when one arrives. */
int OpenStopSignalFd(void);

#endif
