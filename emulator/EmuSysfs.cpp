#include "EmuSysfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kemu {

namespace {

[[noreturn]] void Fail(const char* what, const std::string& path)
{
    std::fprintf(stderr, "kemu: %s '%s' failed: %s\n", what, path.c_str(), std::strerror(errno));
    std::abort();
}

void MakeDirs(const std::string& path)
{
    for (std::size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/')
            continue;
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            Fail("mkdir", part);
    }
}

void WriteFile(const std::string& path, const std::string& data)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        Fail("create", path);
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            Fail("write", path);
        done += static_cast<std::size_t>(n);
    }
    close(fd);
}

void MakeLink(const std::string& target, const std::string& link)
{
    unlink(link.c_str());
    if (symlink(target.c_str(), link.c_str()) != 0)
        Fail("symlink", link);
}

// "../../.." from a /sys/... directory up to /sys itself.
std::string UpToSys(const std::string& syspath)
{
    std::string up;
    for (std::size_t pos = std::strlen("/sys"); pos < syspath.size(); ++pos) {
        if (syspath[pos] == '/')
            up += up.empty() ? ".." : "/..";
    }
    return up;
}

std::string Basename(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

EmuSysfs::EmuSysfs(std::string rootDir) : mRoot(std::move(rootDir)) {}

void EmuSysfs::RemoveTree(const std::string& path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return;
    if (S_ISDIR(st.st_mode)) {
        if (DIR* dir = opendir(path.c_str())) {
            std::vector<std::string> names;
            while (const dirent* entry = readdir(dir)) {
                if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                    names.emplace_back(entry->d_name);
            }
            closedir(dir);
            for (const auto& name : names)
                RemoveTree(path + "/" + name);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

std::string EmuSysfs::RealPath(const std::string& path) const
{
    return mRoot + path;
}

std::string EmuSysfs::AddDevice(const std::string& parentSyspath, const std::string& name,
                                const std::string& subsystem, Kind kind, const KeyValues& attributes,
                                const KeyValues& properties)
{
    const std::string syspath = (parentSyspath.empty() ? std::string("/sys/devices") : parentSyspath) + "/" + name;
    const std::string dir = RealPath(syspath);
    MakeDirs(dir);

    const std::string listDir = kind == Kind::Bus ? "/sys/bus/" + subsystem : "/sys/class/" + subsystem;
    MakeDirs(RealPath(listDir));
    if (kind == Kind::Bus)
        MakeDirs(RealPath(listDir + "/devices"));
    MakeLink(UpToSys(syspath) + listDir.substr(std::strlen("/sys")), dir + "/subsystem");

    std::string uevent;
    std::string devName;
    for (const auto& kv : properties) {
        uevent += kv.first + "=" + kv.second + "\n";
        if (kv.first == "DEVNAME")
            devName = kv.second;
    }
    WriteFile(dir + "/uevent", uevent);

    Listing listing;
    listing.syspath = syspath;
    for (const auto& kv : attributes) {
        WriteFile(dir + "/" + kv.first, kv.second);
        if (kv.first == "dev") {
            // The kernel's /sys/dev/char index, and the record from which the
            // preload library reports the node as a character device.
            std::string devno = kv.second;
            while (!devno.empty() && devno.back() == '\n')
                devno.pop_back();
            const std::string charDir = RealPath("/sys/dev/char");
            MakeDirs(charDir);
            listing.devLink = charDir + "/" + devno;
            MakeLink("../.." + syspath.substr(std::strlen("/sys")), listing.devLink);
            if (!devName.empty()) {
                const std::string nodeDir = RealPath("/dev/.node");
                MakeDirs(nodeDir);
                std::string nodeName = devName;
                for (char& c : nodeName) {
                    if (c == '/')
                        c = '_';
                }
                listing.nodeLink = nodeDir + "/" + nodeName;
                MakeLink(devno, listing.nodeLink);
            }
        }
    }

    // Listing link last: from now on enumerations see the device.
    listing.listLink = RealPath(kind == Kind::Bus ? listDir + "/devices/" + Basename(syspath)
                                                  : listDir + "/" + Basename(syspath));
    MakeLink(UpToSys(listing.listLink.substr(mRoot.size())).substr(3) + syspath.substr(std::strlen("/sys")),
             listing.listLink);
    mListings.push_back(listing);
    return syspath;
}

void EmuSysfs::SetAttribute(const std::string& syspath, const std::string& name, const std::string& value) const
{
    WriteFile(RealPath(syspath) + "/" + name, value);
}

void EmuSysfs::Hide(const std::string& syspath)
{
    for (auto& listing : mListings) {
        if (listing.syspath != syspath)
            continue;
        for (std::string* link : {&listing.listLink, &listing.devLink, &listing.nodeLink}) {
            if (!link->empty())
                unlink(link->c_str());
            link->clear();
        }
    }
}

void EmuSysfs::Remove(const std::string& syspath)
{
    Hide(syspath);
    for (auto it = mListings.begin(); it != mListings.end();) {
        if (it->syspath == syspath)
            it = mListings.erase(it);
        else
            ++it;
    }
    RemoveTree(RealPath(syspath));
}

} // namespace kemu
