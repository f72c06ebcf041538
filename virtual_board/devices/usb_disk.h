// SPDX-License-Identifier: MIT
// virtual_board/devices/usb_disk.h: the USB disk, a file system on "/home/root/usb_dev".
#pragma once

#include "machine/board_root.h"
#include "machine/power.h"

#include <atomic>
#include <string>

namespace board
{

class UsbDisk
{
public:
    UsbDisk(PowerMutex &power, const BoardRoot &root, std::string folder); // `folder`: where its content is
    ~UsbDisk();
    UsbDisk(const UsbDisk &) = delete;
    UsbDisk &operator=(const UsbDisk &) = delete;

    // The content stays while the disk is out. A disk of another size is a new one; 0 MiB: the last disk, and
    // at first one of 1024 MiB.
    void Plug(bool in, unsigned mebibytes = 0);
    bool In() const { return in_; }

private:
    void PullOut();

    PowerMutex &power_;
    const std::string folder_;
    const std::string mountPoint_;
    unsigned mebibytes_ = 0; // 0: there was no disk yet
    std::atomic<bool> in_ = false;
};

} // namespace board
