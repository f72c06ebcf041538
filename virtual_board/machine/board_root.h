// SPDX-License-Identifier: MIT
// virtual_board/machine/board_root.h: the board's root file system, an overlay of the host's "/": every
// absolute path exists, and nothing outside is changed.
//
// It is mounted on the PC side, below kPcFolder. It can be read and written there whether or not the board
// runs. Mounts that are made below it later appear inside a running board too.
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

    // --- files; paths are the board's, and symbolic links are followed as the board sees them ---
    std::string Read(const std::string &path) const;                   // throws if it cannot be read
    std::optional<std::string> TryRead(const std::string &path) const; // nullopt and errno
    void Write(const std::string &path, const std::string &content, unsigned mode = 0644); // makes folders
    bool Exists(const std::string &path) const;
    void MakeFolder(const std::string &path); // with those above it
    void CopyIn(const std::string &hostPath, const std::string &path);
    // The root as a folder of the PC side; "/proc" is not there.
    const std::string &Folder() const { return root_; }

    // --- for the board itself ---
    // "/dev", "/tmp" and "/run" as after power-on; everything else stays as it was.
    void MountVolatile();
    // `slave` becomes the device "/dev/NAME"; an empty path removes it. Nothing before the first power-on.
    void ConnectLine(const std::string &name, const std::string &slave);
    const std::string &Journal() const { return journal_; } // path on the PC side

private:
    void MountOverlay(const Options &options);
    void Fill(const Options &options);
    void AddPrograms();
    void AddNetworkFiles(const Options &options);
    void BindIn(const std::string &hostPath, const std::string &path);
    void Link(const std::string &path, const std::string &target);         // replaces what is there
    int Open(const std::string &path, int flags, unsigned mode = 0) const; // -1 and errno

    std::string base_;
    std::string root_;
    std::string journal_;
    ledboard::UniqueFd rootFolder_;
    bool volatileMounted_ = false;
};

} // namespace board
