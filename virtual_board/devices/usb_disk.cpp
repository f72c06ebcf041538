// SPDX-License-Identifier: MIT
#include "devices/usb_disk.h"

#include "machine/mounts.h"

#include <fmt/core.h>

#include <sys/mount.h>

#include <filesystem>

namespace board
{

UsbDisk::UsbDisk(PowerMutex &power, const BoardRoot &root, std::string folder)
    : power_(power), folder_(std::move(folder)), mountPoint_(root.Folder() + "/home/root/usb_dev")
{
    std::filesystem::create_directories(folder_);
}

UsbDisk::~UsbDisk()
{
    PullOut();
    Unmount(folder_);
    std::error_code ignored;
    std::filesystem::remove(folder_, ignored);
}

void UsbDisk::Plug(bool in, unsigned mebibytes)
{
    constexpr unsigned kFirst = 1024;
    const PowerLock power(power_);
    PullOut();
    if (!in)
        return;
    if (mebibytes == 0)
        mebibytes = mebibytes_ != 0 ? mebibytes_ : kFirst;
    if (mebibytes != mebibytes_) {
        Unmount(folder_);
        Mount("tmpfs", folder_, "tmpfs", 0, fmt::format("mode=755,size={}m", mebibytes));
        mebibytes_ = mebibytes;
    }
    Mount(folder_.c_str(), mountPoint_, nullptr, MS_BIND);
    in_ = true;
}

void UsbDisk::PullOut()
{
    if (in_)
        Unmount(mountPoint_);
    in_ = false;
}

} // namespace board
