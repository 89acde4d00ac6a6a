// Mounts that only this process and its children see.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

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
