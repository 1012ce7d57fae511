#include "EmuTestbed.h"

#include "EmuHidDeviceImpl.h"
#include "EmuTestbedImpl.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <umockdev.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace kemu {

namespace {

std::string TakeGString(gchar* text)
{
    std::string result = text != nullptr ? text : "";
    g_free(text);
    return result;
}

// Testbeds kept alive for descriptors left open. Never freed (the process
// may still use them while it exits); their directories go at exit.
struct Graveyard {
    std::mutex mutex;
    std::vector<std::pair<UMockdevTestbed*, std::string>> testbeds;
};

void RemoveGraveyardDirectories();

Graveyard& TheGraveyard()
{
    static Graveyard* graveyard = [] {
        std::atexit(RemoveGraveyardDirectories);
        return new Graveyard;
    }();
    return *graveyard;
}

void RemoveGraveyardDirectories()
{
    Graveyard& graveyard = TheGraveyard();
    std::lock_guard<std::mutex> lock(graveyard.mutex);
    for (const auto& entry : graveyard.testbeds)
        EmuSysfs::RemoveTree(entry.second);
}

} // namespace

// ---- Impl ----

EmuTestbed::Impl::Impl()
    : testbed(umockdev_testbed_new()), root(TakeGString(umockdev_testbed_get_root_dir(testbed))), sysfs(root)
{
    // The directory is created private; open it up so that a test can drop
    // its privileges and still reach the nodes (whose own modes then count).
    chmod(root.c_str(), 0755);
    mkdir((root + "/dev").c_str(), 0755);
}

EmuTestbed::Impl::~Impl()
{
    // umockdev learns of a close() a moment later, on its own thread.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    std::size_t open = 0;
    for (;;) {
        open = 0;
        for (const auto& device : devices)
            open += device->OpenDescriptorCount();
        if (open == 0 || std::chrono::steady_clock::now() >= deadline)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    devices.clear(); // each one unplugs quietly
    if (open == 0) {
        g_object_unref(testbed);
        return;
    }
    // Finalising the testbed stops the thread that answers for our devices:
    // a descriptor still open would then block for ever in its next read,
    // write or ioctl. Keep the testbed (and its directory) so that such a
    // descriptor gets the errors of an unplugged device instead.
    std::fprintf(stderr, "kemu: testbed %s destroyed with %zu device descriptor(s) still open; kept alive\n",
                 root.c_str(), open);
    Graveyard& graveyard = TheGraveyard();
    std::lock_guard<std::mutex> lock(graveyard.mutex);
    graveyard.testbeds.emplace_back(testbed, root);
}

void EmuTestbed::Impl::Uevent(const std::string& syspath, const char* action)
{
    umockdev_testbed_uevent(testbed, syspath.c_str(), action);
}

int EmuTestbed::Impl::FreeHidrawIndex() const
{
    for (int index = 0;; ++index) {
        bool used = false;
        for (const auto& device : devices)
            used = used || device->HidrawIndex() == index;
        if (!used)
            return index;
    }
}

std::string EmuTestbed::Impl::FreeUsbPort() const
{
    for (unsigned n = 1;; ++n) {
        const std::string port = "1-" + std::to_string(n);
        bool used = false;
        for (const auto& device : devices)
            used = used || (device->Config().usbParent && device->UsbPort() == port);
        if (!used)
            return port;
    }
}

// ---- EmuTestbed ----

EmuTestbed::EmuTestbed() : mImpl(std::make_unique<Impl>()) {}

EmuTestbed::~EmuTestbed() = default;

bool EmuTestbed::InMockEnvironment()
{
    // umockdev_in_mock_environment() caches its first answer, which is wrong
    // when asked before a testbed exists; ask the dynamic loader instead.
    void* preload = dlopen("libumockdev-preload.so.0", RTLD_NOW | RTLD_NOLOAD);
    if (preload == nullptr)
        return false;
    dlclose(preload);
    return true;
}

EmuHidDevice& EmuTestbed::AddDevice(const EmuHidDeviceConfig& config, bool plug, bool uevents)
{
    int index = config.hidrawIndex;
    if (index < 0) {
        index = mImpl->FreeHidrawIndex();
    } else {
        for (const auto& device : mImpl->devices) {
            if (device->HidrawIndex() == index) {
                std::fprintf(stderr, "kemu: /dev/hidraw%d is taken by another device\n", index);
                std::abort();
            }
        }
    }
    std::string port = config.usbPort.empty() ? mImpl->FreeUsbPort() : config.usbPort;
    auto impl = std::make_unique<EmuHidDevice::Impl>(*mImpl, config, index, std::move(port));
    mImpl->devices.push_back(std::make_unique<EmuHidDevice>(std::move(impl)));
    EmuHidDevice& device = *mImpl->devices.back();
    if (plug)
        device.Plug(uevents);
    return device;
}

const std::vector<std::unique_ptr<EmuHidDevice>>& EmuTestbed::Devices() const
{
    return mImpl->devices;
}

std::string EmuTestbed::RootDir() const
{
    return mImpl->root;
}

} // namespace kemu
