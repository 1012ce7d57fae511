// Writes and removes device entries in the testbed's fake sysfs. Not
// thread-safe: the testbed serialises its calls.
//
// umockdev's own umockdev_testbed_add_device() announces every new device
// with an "add" uevent when the preload library is active, so a device could
// never appear quietly. We lay the entries out ourselves, the way the kernel
// does (device directory with "uevent", "subsystem" link, attribute files,
// /sys/bus/<bus>/devices or /sys/class/<class> link, /sys/dev/char link), and
// send uevents separately, when the test wants them.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kemu {

class EmuSysfs {
public:
    using KeyValues = std::vector<std::pair<std::string, std::string>>;

    enum class Kind {
        Bus,   // listed under /sys/bus/<subsystem>/devices (usb, hid)
        Class, // listed under /sys/class/<subsystem> (hidraw)
    };

    explicit EmuSysfs(std::string rootDir);

    // Creates the device <parentSyspath>/<name> (parent empty: /sys/devices).
    // Attribute values may hold binary data. A "dev" attribute ("major:minor")
    // also gets the /sys/dev/char link and umockdev's /dev/.node record.
    // The listing link is made last, so an enumeration running at the same
    // time never finds a half-written device. Returns the syspath.
    std::string AddDevice(const std::string& parentSyspath, const std::string& name, const std::string& subsystem,
                          Kind kind, const KeyValues& attributes, const KeyValues& properties);

    void SetAttribute(const std::string& syspath, const std::string& name, const std::string& value) const;

    // Removes the listing and /sys/dev links: enumeration no longer finds the
    // device, while its directory stays readable for a "remove" uevent.
    void Hide(const std::string& syspath);
    // Hide() and then delete the directory with everything below it.
    void Remove(const std::string& syspath);

    // Absolute path in the real file system of a /sys/... or /dev/... path.
    std::string RealPath(const std::string& path) const;

    // Deletes a real file or directory tree.
    static void RemoveTree(const std::string& realPath);

private:
    struct Listing {
        std::string syspath;
        std::string listLink;
        std::string devLink;
        std::string nodeLink;
    };

    std::string mRoot;
    std::vector<Listing> mListings;
};

} // namespace kemu
