// SPDX-License-Identifier: MIT
// virtual_board/devices/fpga_line.h: the far end of "/dev/ttyO0": reads what the daemon sends to the FPGA and
// decodes the frames.
#pragma once

#include "devices/pseudo_terminal.h"
#include "machine/board_root.h"
#include "machine/power.h"
#include "machine/watcher.h"

#include <cstdint>
#include <string>
#include <vector>

namespace board
{

struct Frame {
    std::uint8_t command;
    std::uint32_t value;
    std::string meaning;
    std::chrono::steady_clock::time_point at;

    bool operator==(const Frame &other) const { return command == other.command && value == other.value; }
};

// Splits the byte stream into frames and gives each its meaning, which depends on what came before.
class FrameDecoder
{
public:
    void Feed(const char *bytes, std::size_t size);
    const std::vector<Frame> &Frames() const { return frames_; }
    std::size_t StrayBytes() const { return strayBytes_; } // bytes that belong to no frame
    void Forget();

private:
    std::string Explain(std::uint8_t command, std::uint32_t value);

    std::string pending_;
    std::vector<Frame> frames_;
    std::size_t strayBytes_ = 0;
    bool transferOpen_ = false; // after {1, 0}: a parameter block may follow
    bool inBlock_ = false;
};

class FpgaLine
{
public:
    // `folder`: where its own devpts is mounted.
    FpgaLine(Watcher &watcher, PowerMutex &power, BoardRoot &root, const std::string &folder, bool connected);
    ~FpgaLine();

    // true: "/dev/ttyO0" is there from now on, at every boot too. false: it is gone, and the daemon's writes
    // fail.
    void Connect(bool on);
    void PowerOn(const PowerLock &); // after every MountVolatile

    termios Attributes() const { return line_.Attributes(); }
    std::vector<Frame> Frames() const; // oldest first, since the start or the last Forget
    std::size_t StrayBytes() const;    // bytes that belong to no frame
    bool WaitForFrame(std::uint8_t command, std::uint32_t value, Milliseconds limit = kDefaultLimit) const;
    bool WaitForFrames(std::size_t count, Milliseconds limit = kDefaultLimit) const; // at least so many
    void Forget();

private:
    void Open();
    void Close();
    void Receive();

    Watcher &watcher_;
    PowerMutex &power_;
    BoardRoot &root_;
    PseudoTerminal line_;
    FrameDecoder decoder_; // guarded by the watcher's Lock
};

} // namespace board
