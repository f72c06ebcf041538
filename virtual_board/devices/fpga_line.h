// SPDX-License-Identifier: MIT
// virtual_board/devices/fpga_line.h: the far end of "/dev/ttyO0": reads what the daemon sends to the FPGA and
// decodes the frames.
#pragma once

#include "devices/pseudo_terminal.h"
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
    FpgaLine(Watcher &watcher, const std::string &folder); // `folder`: where its own devpts is mounted
    ~FpgaLine();

    const std::string &SlavePath() const { return line_.SlavePath(); }
    void HangUp();  // the daemon's writes fail from now on; nothing when it is hung up
    void Connect(); // a fresh line after HangUp, at a SlavePath of its own; nothing when it is connected
    std::vector<Frame> Frames() const;
    std::string Bytes() const; // everything that came, as it came
    std::size_t StrayBytes() const;
    termios Attributes() const { return line_.Attributes(); }
    void Send(const std::string &bytes); // from the FPGA to the daemon
    void Forget();

private:
    void Receive();

    Watcher &watcher_;
    PseudoTerminal line_;
    FrameDecoder decoder_;
    std::string bytes_;
};

} // namespace board
