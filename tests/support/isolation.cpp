#include "support/isolation.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace {

bool isolated = false;
bool shared_memory_private = false;

bool BringLoopbackUp()
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return false;
    struct ifreq request;
    memset(&request, 0, sizeof request);
    strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP;
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return ok;
}

}  // namespace

bool EnterPrivateNamespaces()
{
    if (geteuid() != 0)
        return false;
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if (mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") != 0)
        return false;
    if (mount("tmpfs", "/run", "tmpfs", 0, "mode=755") != 0)
        return false;
    if (!BringLoopbackUp())
        return false;
    isolated = true;
    return true;
}

bool EnterPrivateSharedMemory()
{
    // The tmpfs is mounted only once the namespace is private: it must never reach the host's mount table.
    shared_memory_private = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                            mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
    return shared_memory_private;
}

bool IsSharedMemoryPrivate()
{
    return shared_memory_private || isolated;
}

bool IsIsolated()
{
    return isolated;
}
