// SPDX-License-Identifier: MIT
// virtual_board/machine/board_root.h: the board's root file system: an overlay of the host's "/", so that
// every absolute path exists and nothing outside is touched.
//
// It is put together on the PC side, below kPcFolder, and can be read and written there whether or not the
// board runs. Mounts made later below it appear inside a running board too.
#pragma once

#include "common/unique_fd.h"
#include "machine/options.h"

#include <optional>
#include <string>

namespace board
{

constexpr char kDaemonPath[] = "/usr/bin/ledboardd";

class BoardRoot
{
public:
    explicit BoardRoot(const Options &options); // throws std::runtime_error
    ~BoardRoot();
    BoardRoot(const BoardRoot &) = delete;
    BoardRoot &operator=(const BoardRoot &) = delete;

    // "/dev", "/tmp" and "/run" as after power-on; everything else stays as it was.
    void MountVolatile();

    // Paths are the board's; symbolic links are followed as the board sees them.
    std::optional<std::string> Read(const std::string &path) const;
    void Write(const std::string &path, const std::string &content, unsigned mode = 0644); // makes folders
    bool Exists(const std::string &path) const;
    void MakeFolder(const std::string &path);
    void Link(const std::string &path, const std::string &target); // replaces what is there
    void CopyIn(const std::string &hostPath, const std::string &path);
    void BindIn(const std::string &hostPath, const std::string &path);

    // `slave` becomes the device "/dev/NAME"; an empty path takes it away.
    void ConnectLine(const std::string &name, const std::string &slave);
    // The disk's content stays while it is out. `mebibytes` counts when the disk is made or its size changes.
    void PlugUsbDisk(unsigned mebibytes);
    void UnplugUsbDisk();

    const std::string &Folder() const { return root_; }     // the root as the PC side sees it
    const std::string &Journal() const { return journal_; } // path on the PC side

private:
    void MountOverlay(const Options &options);
    void LayOut(const Options &options);
    void LayStandIns();
    void LayNetworkFiles(const Options &options);
    int Open(const std::string &path, int flags, unsigned mode = 0) const; // -1 and errno

    std::string base_;
    std::string root_;
    std::string journal_;
    ledboard::UniqueFd rootFolder_;
    unsigned usbMebibytes_ = 0;
    bool usbIn_ = false;
    bool volatileMounted_ = false;
};

} // namespace board
