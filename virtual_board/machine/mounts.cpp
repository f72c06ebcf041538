// SPDX-License-Identifier: MIT
#include "machine/mounts.h"

#include "machine/errors.h"

#include <sys/mount.h>

namespace board
{

void Mount(const char *source, const std::string &target, const char *type, unsigned long flags,
           const std::string &data)
{
    Checked(mount(source, target.c_str(), type, flags, data.empty() ? nullptr : data.c_str()),
            "mount " + target);
}

void Unmount(const std::string &target)
{
    umount2(target.c_str(), MNT_DETACH);
}

} // namespace board
