// SPDX-License-Identifier: MIT
// src/settings/setting_packet.h: one packet of a client of the setting service, and the start of an answer
// (docs/protocols.md, "Settings"). Pure; any thread.
#pragma once

#include "records/setting_records.h"

#include <array>

// A copy of the packet with zeros after it: an argument that the client did not send counts as zeros.
class SettingPacket
{
public:
    // The length byte and what it announces, the type at least. What exceeds a packet's maximum is dropped.
    explicit SettingPacket(wire::Bytes bytes);

    std::size_t Length() const { return std::to_integer<std::size_t>(bytes_[0]); } // the length byte
    std::uint8_t Type() const { return std::to_integer<std::uint8_t>(bytes_[1]); } // wire::SettingPacketType
    std::uint32_t Code() const; // of a command: wire::SettingCode

    wire::Bytes Payload() const;      // what the client sent after the type
    wire::Bytes Argument() const;     // what the client sent after the code of a command
    const char *ArgumentText() const; // zero-terminated; belongs to the packet
    template <wire::Record T> T ArgumentAs() const { return *wire::Read<T>(bytes_, kArgumentOffset); }

private:
    static constexpr std::size_t kArgumentOffset = sizeof(wire::SettingCommand);

    wire::Bytes From(std::size_t offset) const; // up to the end of what the client sent

    std::array<std::byte, wire::kSettingPacketSize> bytes_{};
};

// Starts an answer of `size` bytes in all; also the acknowledgement.
wire::SettingCommand MakeSettingCommand(std::uint32_t code, std::size_t size);
