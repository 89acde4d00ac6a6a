// Mounts that only this process and its children see.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

// False where the system does not allow it. Inside a chroot "/" is no mount point and could not be
// made private; entering the new namespace once more leads out to its real root, and the open
// directories lead back.
inline bool make_mounts_private()
{
    if (unshare(CLONE_NEWNS) != 0) {
        return false;
    }
    const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int here = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int self = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    bool made = setns(self, CLONE_NEWNS) == 0;
    made = made && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    made = fchdir(root) == 0 && chroot(".") == 0 && fchdir(here) == 0 && made;
    close(root);
    close(here);
    close(self);
    return made;
}

// Mounts an empty file system; sources and build stay where they are, should they lie below.
inline bool mount_empty(const char *path, const char *options = "")
{
    constexpr std::array FOLDERS = {WMBUSCTL_SOURCE, WMBUSCTL_BUILD};
    std::array<int, FOLDERS.size()> kept{};
    for (std::size_t i = 0; i < FOLDERS.size(); ++i) {
        kept[i] = open(FOLDERS[i], O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    bool done = mount("tmpfs", path, "tmpfs", 0, options) == 0;
    for (std::size_t i = 0; i < FOLDERS.size(); ++i) {
        if (done && std::string(FOLDERS[i]).starts_with(std::string(path) + '/')) {
            const std::string folder = "/proc/self/fd/" + std::to_string(kept[i]);
            std::filesystem::create_directories(FOLDERS[i]);
            done = mount(folder.c_str(), FOLDERS[i], nullptr, MS_BIND, nullptr) == 0;
        }
        close(kept[i]);
    }
    return done;
}
