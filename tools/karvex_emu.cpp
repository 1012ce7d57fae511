// karvex-emu: runs a command in a world with emulated Karvex adapters.
//
// The emulated adapters live in this process: a umockdev testbed fakes sysfs,
// /dev/hidrawN and the udev netlink, and the adapter firmware answers every
// report written to the nodes. The command runs as our child with the umockdev
// preload library and UMOCKDEV_DIR pointing at the testbed, so an unchanged
// libkarvex (or karvexctl, or any program) in the child finds and drives the
// adapters: umockdev forwards the child's read/write/ioctl calls to our handler
// thread through sockets in the testbed directory, and the uevents we send
// reach the child's udev monitors the same way.
//
// umockdev only builds device trees and sends uevents correctly when the
// process that owns the testbed runs under the preload itself, so karvex-emu
// re-executes itself under it first (the child inherits the preload).

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <getopt.h>
#include <iterator>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "EmuActionScheduler.h"
#include "EmuControlChannel.h"
#include "EmuOptions.h"
#include "emulator/EmuAdapterFirmware.h"
#include "emulator/EmuHidDevice.h"
#include "emulator/EmuTestbed.h"

#ifndef KARVEX_UMOCKDEV_PRELOAD
#define KARVEX_UMOCKDEV_PRELOAD "libumockdev-preload.so.0"
#endif
#ifndef KARVEX_VERSION_STRING
#define KARVEX_VERSION_STRING "unknown"
#endif

using namespace karvexemu;

namespace {

const char* const cProgram = "karvex-emu";
// Set in the environment of our re-executed self, so a preload that does not
// take effect ends in an error instead of an exec loop.
const char* const cReexecMarker = "KARVEX_EMU_REEXEC";
const char* const cPreloadSoname = "libumockdev-preload.so.0";

void PrintHelp()
{
    std::printf(
        "Usage: %s [OPTIONS] -- COMMAND [ARGS]...\n"
        "Run COMMAND with emulated Karvex adapters attached.\n"
        "\n"
        "The adapters (USB 1209:7a01, 16 pins, I2C buses 0 and 1) exist only for\n"
        "COMMAND and its children: they run under the umockdev preload library\n"
        "with UMOCKDEV_DIR set to a private test bed, which disappears when\n"
        "COMMAND ends. SIGINT, SIGTERM, SIGHUP and SIGQUIT sent to %s are passed\n"
        "on to COMMAND. The exit status is COMMAND's (128+N when signal N ended it).\n"
        "\n"
        "Options:\n"
        "  -n, --adapters=N           number of adapters (default 1, at most 32)\n"
        "  -s, --serial=S             serial number of the next adapter; repeat per\n"
        "                             adapter (default KVX000001, KVX000002, ...)\n"
        "  -e, --eeprom=BUS:ADDR[:FILE]\n"
        "                             put a 256-byte EEPROM (24C02-like) at address\n"
        "                             byte ADDR on BUS of every adapter, preloaded from\n"
        "                             FILE (at most 256 bytes; the rest reads 0xff);\n"
        "                             repeatable; default: one at 0:0x50\n"
        "  -t, --toggle=PIN:PERIOD_MS flip input PIN of every adapter every PERIOD_MS\n"
        "                             milliseconds (a pin in input-event mode reports\n"
        "                             each flip); repeatable\n"
        "  -r, --replug=ADAPTER:DELAY_MS[:DOWN_MS]\n"
        "                             unplug adapter ADAPTER (0 is the first) DELAY_MS\n"
        "                             after COMMAND starts and plug it back DOWN_MS\n"
        "                             later (default 500); repeatable\n"
        "  -c, --control=FIFO         read commands, one a line, from the named pipe\n"
        "                             FIFO (created, and removed at the end, unless\n"
        "                             it exists): 'unplug ADAPTER', 'plug ADAPTER',\n"
        "                             'pin PIN 0|1' (input level on every adapter) and\n"
        "                             'start'; with --control, the --toggle and\n"
        "                             --replug times count from 'start', not from\n"
        "                             COMMAND's start, so a script acts when it is ready\n"
        "  -v, --verbose              report every emulator action on stderr\n"
        "  -h, --help                 show this help and exit\n"
        "  -V, --version              show the version and exit\n"
        "\n"
        "Numbers are decimal, or hexadecimal with 0x. Examples:\n"
        "  %s -- karvexctl list\n"
        "  %s --adapters 2 --toggle 3:250 --replug 1:2000 -- ./session\n"
        "  %s --control /tmp/emu.ctl -- karvexctl watch &  echo 'unplug 0' >/tmp/emu.ctl\n",
        cProgram, cProgram, cProgram, cProgram, cProgram);
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void Usage(const char* fmt, ...)
{
    va_list ap;
    std::fprintf(stderr, "%s: ", cProgram);
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "\nTry '%s --help' for more information.\n", cProgram);
    std::exit(2);
}

// Parses a whole unsigned number (decimal or 0x hex) no larger than max.
bool ParseNumber(const std::string& text, unsigned long max, unsigned& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    errno = 0;
    char* end = nullptr;
    unsigned long v = std::strtoul(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max)
        return false;
    out = static_cast<unsigned>(v);
    return true;
}

std::vector<std::string> SplitColons(const std::string& text, std::size_t maxParts)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (parts.size() + 1 < maxParts) {
        std::size_t colon = text.find(':', start);
        if (colon == std::string::npos)
            break;
        parts.push_back(text.substr(start, colon - start));
        start = colon + 1;
    }
    parts.push_back(text.substr(start)); // a file name may contain colons
    return parts;
}

EepromOption ParseEeprom(const char* arg)
{
    std::vector<std::string> parts = SplitColons(arg, 3);
    EepromOption option;
    if (parts.size() < 2 || !ParseNumber(parts[0], 255, option.bus) || !ParseNumber(parts[1], 255, option.address))
        Usage("invalid --eeprom '%s' (expected BUS:ADDR[:FILE], e.g. 0:0x50)", arg);
    if (parts.size() == 3) {
        option.file = parts[2];
        std::ifstream in(option.file, std::ios::binary);
        if (!in)
            Usage("cannot read EEPROM image '%s'", option.file.c_str());
        option.image.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (option.image.size() > 256)
            Usage("EEPROM image '%s' is larger than 256 bytes", option.file.c_str());
    }
    return option;
}

ToggleOption ParseToggle(const char* arg)
{
    std::vector<std::string> parts = SplitColons(arg, 2);
    ToggleOption option;
    if (parts.size() != 2 || !ParseNumber(parts[0], kemu::EmuAdapterFirmware::cPinCount - 1, option.pin) ||
        !ParseNumber(parts[1], 3600000, option.periodMs) || option.periodMs == 0)
        Usage("invalid --toggle '%s' (expected PIN:PERIOD_MS, pin 0..15, period 1..3600000)", arg);
    return option;
}

ReplugOption ParseReplug(const char* arg)
{
    std::vector<std::string> parts = SplitColons(arg, 3);
    ReplugOption option;
    if (parts.size() < 2 || !ParseNumber(parts[0], 31, option.adapter) || !ParseNumber(parts[1], 3600000, option.delayMs) ||
        (parts.size() == 3 && !ParseNumber(parts[2], 3600000, option.downMs)))
        Usage("invalid --replug '%s' (expected ADAPTER:DELAY_MS[:DOWN_MS])", arg);
    return option;
}

Options ParseOptions(int argc, char** argv)
{
    static const struct option longOptions[] = {
        {"adapters", required_argument, nullptr, 'n'}, {"serial", required_argument, nullptr, 's'},
        {"eeprom", required_argument, nullptr, 'e'},   {"toggle", required_argument, nullptr, 't'},
        {"replug", required_argument, nullptr, 'r'},   {"verbose", no_argument, nullptr, 'v'},
        {"control", required_argument, nullptr, 'c'},
        {"help", no_argument, nullptr, 'h'},           {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    Options opts;
    bool eepromGiven = false;
    int c;
    opterr = 0; // reported by Usage, with the program's short name
    // '+': the command and its own options are not ours.
    while ((c = getopt_long(argc, argv, "+n:s:e:t:r:c:vhV", longOptions, nullptr)) != -1) {
        switch (c) {
        case 'n':
            if (!ParseNumber(optarg, 32, opts.adapters) || opts.adapters == 0)
                Usage("invalid number of adapters '%s' (1..32)", optarg);
            break;
        case 's':
            if (*optarg == '\0')
                Usage("empty --serial");
            opts.serials.push_back(optarg);
            break;
        case 'e':
            eepromGiven = true;
            opts.eeproms.push_back(ParseEeprom(optarg));
            break;
        case 't':
            opts.toggles.push_back(ParseToggle(optarg));
            break;
        case 'c':
            if (*optarg == '\0')
                Usage("empty --control");
            opts.control = optarg;
            break;
        case 'r':
            opts.replugs.push_back(ParseReplug(optarg));
            break;
        case 'v':
            opts.verbose = true;
            break;
        case 'h':
            PrintHelp();
            std::exit(0);
        case 'V':
            std::printf("%s (libkarvex) %s\n", cProgram, KARVEX_VERSION_STRING);
            std::exit(0);
        default:
            Usage("invalid option '%s'", argv[optind - 1]);
        }
    }
    if (optind >= argc)
        Usage("no command given (karvex-emu [OPTIONS] -- COMMAND [ARGS]...)");
    if (opts.serials.size() > opts.adapters)
        Usage("more --serial options than adapters (raise --adapters)");
    for (const ReplugOption& r : opts.replugs) {
        if (r.adapter >= opts.adapters)
            Usage("--replug names adapter %u, but there are %u (they count from 0)", r.adapter, opts.adapters);
    }
    if (!eepromGiven)
        opts.eeproms.push_back(EepromOption{});
    for (int i = optind; i < argc; ++i)
        opts.command.push_back(argv[i]);
    opts.command.push_back(nullptr);
    return opts;
}

std::string PreloadLibrary()
{
    struct stat st;
    if (::stat(KARVEX_UMOCKDEV_PRELOAD, &st) == 0)
        return KARVEX_UMOCKDEV_PRELOAD;
    return cPreloadSoname; // let the dynamic loader search its default paths
}

// Starts this program again with the umockdev preload in front of any other.
void ReexecUnderPreload(char** argv)
{
    if (std::getenv(cReexecMarker) != nullptr) {
        std::fprintf(stderr, "%s: the umockdev preload library (%s) did not load; is umockdev installed?\n", cProgram,
                     PreloadLibrary().c_str());
        std::exit(1);
    }
    std::string preload = PreloadLibrary();
    const char* old = std::getenv("LD_PRELOAD");
    if (old != nullptr && *old != '\0')
        preload += std::string(":") + old;
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(cReexecMarker, "1", 1);
    ::execv("/proc/self/exe", argv);
    std::fprintf(stderr, "%s: cannot re-execute itself under the umockdev preload: %s\n", cProgram,
                 std::strerror(errno));
    std::exit(1);
}

// The signals passed on to the command.
const int cForwardedSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// The forwarded signals and SIGCHLD, blocked in every thread of this process
// and taken synchronously by the main thread with sigwaitinfo: no handler
// runs asynchronously, and none can be missed while the child starts.
sigset_t BlockControlSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int sig : cForwardedSignals)
        sigaddset(&set, sig);
    sigaddset(&set, SIGCHLD);
    // An inherited SIG_IGN would reap the child behind our back.
    ::signal(SIGCHLD, SIG_DFL);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

int RunChild(char** command, const std::string& rootDir, const sigset_t& controlSignals)
{
    // The child's environment: ours (the preload is already in LD_PRELOAD)
    // with UMOCKDEV_DIR naming the test bed. Built here rather than with
    // setenv, because umockdev's threads read the environment concurrently.
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::strncmp(*e, "UMOCKDEV_DIR=", 13) != 0)
            envStrings.push_back(*e);
    }
    envStrings.push_back("UMOCKDEV_DIR=" + rootDir);
    std::vector<char*> envp;
    for (std::string& s : envStrings)
        envp.push_back(&s[0]);
    envp.push_back(nullptr);

    // posix_spawn, not fork: this process runs umockdev's threads, and only
    // an immediate exec is safe in a forked copy of it. The child starts with
    // default signal dispositions and nothing blocked.
    sigset_t defaults, empty;
    sigemptyset(&defaults);
    sigemptyset(&empty);
    for (int sig : cForwardedSignals)
        sigaddset(&defaults, sig);
    sigaddset(&defaults, SIGCHLD);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setsigmask(&attr, &empty);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    std::fflush(nullptr);
    pid_t pid = 0;
    int err = ::posix_spawnp(&pid, command[0], nullptr, &attr, command, envp.data());
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        std::fprintf(stderr, "%s: cannot run '%s': %s\n", cProgram, command[0], std::strerror(err));
        return err == ENOENT ? 127 : 126;
    }

    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            if (WIFEXITED(status))
                return WEXITSTATUS(status);
            if (WIFSIGNALED(status))
                return 128 + WTERMSIG(status);
            continue; // stopped or continued: keep waiting
        }
        if (done < 0 && errno != EINTR) {
            std::fprintf(stderr, "%s: waitpid failed: %s\n", cProgram, std::strerror(errno));
            return 1;
        }
        siginfo_t info;
        int sig = ::sigwaitinfo(&controlSignals, &info);
        if (sig < 0 || sig == SIGCHLD)
            continue;
        // Signals the terminal generates (Ctrl-C) reach the child directly,
        // as it is in our process group; only those sent to us are passed on.
        if (info.si_code != SI_KERNEL)
            ::kill(pid, sig);
    }
}

std::string DefaultSerial(unsigned index)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "KVX%06u", index + 1);
    return buf;
}

} // namespace

int main(int argc, char** argv)
{
    Options opts = ParseOptions(argc, argv);
    if (!kemu::EmuTestbed::InMockEnvironment())
        ReexecUnderPreload(argv);
    ::unsetenv(cReexecMarker);
    // Before the test bed and the scheduler start their threads, which
    // inherit the mask.
    const sigset_t controlSignals = BlockControlSignals();

    int exitCode = 1;
    {
        kemu::EmuTestbed testbed;
        std::vector<Adapter> adapters(opts.adapters);
        for (unsigned i = 0; i < opts.adapters; ++i) {
            std::string serial = i < opts.serials.size() ? opts.serials[i] : DefaultSerial(i);
            Adapter& a = adapters[i];
            a.device = &testbed.AddDevice(kemu::AdapterConfig(0x7A01, serial));
            a.firmware = std::make_unique<kemu::EmuAdapterFirmware>(*a.device);
            for (const EepromOption& option : opts.eeproms) {
                auto eeprom = std::make_shared<kemu::EmuEeprom>(256);
                std::vector<std::uint8_t>& mem = eeprom->Memory();
                std::fill(mem.begin(), mem.end(), 0xFF);
                std::copy(option.image.begin(), option.image.end(), mem.begin());
                a.firmware->AttachI2cSlave(option.bus, static_cast<std::uint8_t>(option.address), eeprom);
                a.eeproms.push_back(eeprom);
            }
            if (opts.verbose)
                std::fprintf(stderr, "%s: adapter %u at %s, serial %s\n", cProgram, i, a.device->DevNode().c_str(),
                             serial.c_str());
        }

        EmuActionScheduler scheduler(adapters, opts);
        EmuControlChannel control(scheduler);
        if (opts.control.empty())
            scheduler.Start();
        else if (!control.Open(opts.control))
            return 1;
        exitCode = RunChild(opts.command.data(), testbed.RootDir(), controlSignals);
        control.Close();
        scheduler.Stop();
        // Firmware first: it is the device's write hook.
        for (Adapter& a : adapters)
            a.firmware.reset();
    }
    return exitCode;
}
