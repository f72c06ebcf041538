// SPDX-License-Identifier: MIT
#include "settings/setting_packet.h"

#include <algorithm>

SettingPacket::SettingPacket(wire::Bytes bytes)
{
    std::copy_n(bytes.begin(), std::min(bytes.size(), wire::kMaxPacketBytes), bytes_.begin());
}

std::uint32_t SettingPacket::Code() const
{
    return wire::Read<wire::SettingCommand>(bytes_)->code;
}

wire::Bytes SettingPacket::Payload() const
{
    return From(sizeof(wire::SettingHeader));
}

wire::Bytes SettingPacket::Argument() const
{
    return From(kArgumentOffset);
}

const char *SettingPacket::ArgumentText() const
{
    return reinterpret_cast<const char *>(bytes_.data() + kArgumentOffset);
}

wire::Bytes SettingPacket::From(std::size_t offset) const
{
    const std::size_t end = sizeof(wire::SettingHeader::length) + Length();
    return wire::Bytes(bytes_).subspan(offset, end < offset ? 0 : end - offset);
}

wire::SettingCommand MakeSettingCommand(std::uint32_t code, std::size_t size)
{
    return {.header = {.length = static_cast<std::uint8_t>(size - 1), .type = wire::kPacketCommand},
            .code = code};
}
