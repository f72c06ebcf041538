// SPDX-License-Identifier: MIT
#include "devices/pseudo_terminal.h"

#include "common/unique_fd.h"
#include "machine/errors.h"

#include <fmt/core.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

namespace board
{

using ledboard::UniqueFd;

PseudoTerminal::PseudoTerminal(std::string folder) : folder_(std::move(folder))
{
    std::filesystem::create_directories(folder_);
    Checked(mount("devpts", folder_.c_str(), "devpts", MS_NOSUID | MS_NOEXEC,
                  "newinstance,ptmxmode=0666,mode=666"),
            "mount devpts");
}

PseudoTerminal::~PseudoTerminal()
{
    Close();
    umount2(folder_.c_str(), MNT_DETACH);
    rmdir(folder_.c_str());
}

void PseudoTerminal::Open()
{
    if (IsOpen())
        return;
    master_ = UniqueFd(
        Checked(open((folder_ + "/ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "open ptmx"));
    int unlock = 0;
    Checked(ioctl(master_.Get(), TIOCSPTLCK, &unlock), "unlock the line");
    unsigned number = 0;
    Checked(ioctl(master_.Get(), TIOCGPTN, &number), "number of the line");
    slavePath_ = fmt::format("{}/{}", folder_, number);
    slave_ = UniqueFd(Checked(open(slavePath_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open the line"));
}

void PseudoTerminal::Close()
{
    slave_.Reset();
    master_.Reset();
}

termios PseudoTerminal::Attributes() const
{
    termios attributes{};
    Checked(tcgetattr(slave_.Get(), &attributes), "settings of the line");
    return attributes;
}

} // namespace board
