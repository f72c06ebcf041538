// SPDX-License-Identifier: MIT
#include "discovery/board.h"

#include "common/address.h"
#include "common/pc/output.h"
#include "common/pc/text.h"
#include "common/text_field.h"

#include <fmt/format.h>

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <cctype>

namespace ledboard
{

namespace
{

wire::ProtocolHeader MakeHeader(std::size_t length, std::uint32_t cookie)
{
    wire::ProtocolHeader header{};
    header.ph_descrite = std::uint16_t{0x7466}; // "ft"
    header.ph_version = std::uint16_t{0x0100};
    header.ph_length = static_cast<std::uint16_t>(length);
    header.ph_data_crc = cookie; // boards echo it unread; it marks the answers to our own requests
    return header;
}

// The datagram as a `Reply`; nullopt if it has a different size or cookie.
template <wire::Record Reply> std::optional<Reply> ReadReply(wire::Bytes datagram, std::uint32_t cookie)
{
    if (datagram.size() != sizeof(Reply))
        return std::nullopt;
    const auto reply = wire::Read<Reply>(datagram);
    if (!reply || reply->header.ph_data_crc != cookie)
        return std::nullopt;
    return reply;
}

std::uint32_t Unsigned(const wire::I32 &value)
{
    return static_cast<std::uint32_t>(std::int32_t{value});
}

std::string FormatHostOrder(const wire::I32 &address)
{
    return DottedFromHostOrder(Unsigned(address));
}

nlohmann::json TextOrNull(const std::string &text)
{
    return text.empty() || text == "-" ? nlohmann::json() : nlohmann::json(text);
}

nlohmann::json OrderJson(AddressOrder order)
{
    switch (order) {
    case AddressOrder::kNetwork:
        return "network";
    case AddressOrder::kReversed:
        return "reversed";
    case AddressOrder::kUnknown:
        return nullptr;
    }
    return nullptr;
}

bool IsHexPair(std::string_view pair)
{
    const auto digit = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    return digit(pair[1]) && (pair[0] == ' ' || digit(pair[0]));
}

// The address at which the board is reached, and the record's if that differs.
std::string DescribeAddress(const Board &board)
{
    const RecordAddress stored = DecodeRecordAddress(board.record, board.source.address);
    std::string text = Dotted(BoardAddress(board));
    if (stored.address.s_addr != BoardAddress(board).s_addr)
        text += fmt::format(" (its record says {})", Dotted(stored.address));
    else if (stored.order == AddressOrder::kReversed)
        text += " (set since the board's start)";
    return text;
}

std::string OrDash(const std::string &text)
{
    return text.empty() ? "-" : text;
}

} // namespace

std::optional<wire::DeviceRecord> DecodeSearchReply(wire::Bytes datagram, std::uint32_t cookie)
{
    const auto reply = ReadReply<wire::SearchReply>(datagram, cookie);
    if (!reply || reply->answer.command != wire::kAnswerIpAddressCommand)
        return std::nullopt;
    return reply->answer.info.record;
}

std::optional<StatusAnswer> DecodeStatusReply(wire::Bytes datagram, std::uint32_t cookie)
{
    const auto reply = ReadReply<wire::DeviceStatusReply>(datagram, cookie);
    if (!reply || Unsigned(reply->status.cmd) != wire::kStatusAddressing)
        return std::nullopt;
    return StatusAnswer{std::string(reply->status.id, sizeof reply->status.id),
                        {reply->status.status == 1, reply->status.port}};
}

wire::SearchRequest MakeSearch(std::uint32_t cookie)
{
    wire::SearchRequest request{};
    request.header = MakeHeader(sizeof request, cookie);
    return request;
}

wire::StatusRequest MakeStatusRequest(const wire::DeviceRecord &record, std::uint32_t cookie)
{
    wire::StatusRequest request{};
    request.header = MakeHeader(sizeof request, cookie);
    request.cmd = static_cast<std::uint32_t>(wire::kStatusAddressing);
    std::copy(std::begin(record.id), std::end(record.id), request.id);
    return request;
}

wire::AddressChangeRequest MakeAddressChange(const wire::DeviceRecord &record, wire::UpdateLocalIP change,
                                             std::uint32_t cookie)
{
    wire::AddressChangeRequest request{};
    request.header = MakeHeader(sizeof request, cookie);
    request.change = change;
    std::copy(std::begin(record.id), std::end(record.id), request.change.id);
    return request;
}

RecordAddress DecodeRecordAddress(const wire::DeviceRecord &record, in_addr source)
{
    const in_addr stored = {Unsigned(record.ipaddr)};
    const in_addr reversed = {ntohl(stored.s_addr)};
    if (source.s_addr != 0) {
        if (stored.s_addr == source.s_addr)
            return {stored, AddressOrder::kNetwork};
        if (reversed.s_addr == source.s_addr)
            return {reversed, AddressOrder::kReversed};
        return {stored, AddressOrder::kUnknown};
    }
    const std::uint32_t mask = Unsigned(record.maskaddr);
    const std::uint32_t gateway = Unsigned(record.gwaddr);
    const auto inGatewaySubnet = [&](in_addr address) {
        return mask != 0 && gateway != 0 && (ntohl(address.s_addr) & mask) == (gateway & mask);
    };
    if (inGatewaySubnet(stored) != inGatewaySubnet(reversed))
        return inGatewaySubnet(stored) ? RecordAddress{stored, AddressOrder::kNetwork}
                                       : RecordAddress{reversed, AddressOrder::kReversed};
    return {stored, AddressOrder::kUnknown};
}

in_addr BoardAddress(const Board &board)
{
    if (board.source.address.s_addr != 0)
        return board.source.address;
    return DecodeRecordAddress(board.record, board.source.address).address;
}

std::string BoardMac(const wire::DeviceRecord &record)
{
    const std::string_view text = FieldText(record.mac);
    if (text.size() != sizeof record.mac)
        return ForTerminal(text);
    std::string mac;
    // Anything that is not a MAC is shown as it is.
    for (std::size_t i = 0; i < text.size(); i += 3) {
        if (!IsHexPair(text.substr(i, 2)) || (i + 2 < text.size() && text[i + 2] != ':'))
            return ForTerminal(text);
        for (const char c : text.substr(i, 2))
            mac += c == ' ' ? '0' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (i + 2 < text.size())
            mac += ':';
    }
    return mac;
}

std::string BoardId(const wire::DeviceRecord &record)
{
    return ForTerminal(FieldText(record.id));
}

std::string BoardName(const wire::DeviceRecord &record)
{
    return ForTerminal(FieldText(record.name));
}

std::string BoardKey(const Board &board)
{
    const wire::DeviceRecord &record = board.record;
    std::string key = std::string(record.id, sizeof record.id) + std::string(record.mac, sizeof record.mac);
    if (FieldText(record.mac).empty())
        key += Dotted(board.source.address);
    return key;
}

std::string BoardLabel(const Board &board)
{
    for (const std::string &label : {BoardId(board.record), BoardMac(board.record)})
        if (!label.empty())
            return label;
    return Dotted(BoardAddress(board));
}

std::string FormatMode(const Board &board)
{
    if (!board.addressing)
        return "?";
    std::string mode = board.addressing->dynamic ? "dynamic" : "fixed";
    if (board.addressing->customPort != 0)
        mode += fmt::format(", port {}", board.addressing->customPort);
    return mode;
}

std::string FormatVersion(std::int32_t version, int numbers)
{
    if (version == 0)
        return "-";
    std::string text;
    for (int i = 0; i < numbers; ++i)
        // The first number is in the lowest byte.
        text +=
            fmt::format("{}{}", i == 0 ? "" : ".", static_cast<std::uint32_t>(version) >> (8 * i) & 0xFFU);
    return text;
}

std::string FormatUsbRoom(const wire::DeviceRecord &record)
{
    return record.usb_size == 0 ? "-" : FormatKib(Unsigned(record.usb_size));
}

std::string FormatScreen(const wire::DeviceRecord &record)
{
    return fmt::format("{}x{}", std::int32_t{record.width}, std::int32_t{record.height});
}

nlohmann::json BoardJson(const Board &board)
{
    const wire::DeviceRecord &record = board.record;
    const RecordAddress stored = DecodeRecordAddress(record, board.source.address);
    nlohmann::json json = {
        {"id", ToUtf8(FieldText(record.id))},
        {"name", ToUtf8(FieldText(record.name))},
        {"mac", TextOrNull(BoardMac(record))},
        {"address", Dotted(BoardAddress(board))},
        {"netmask", FormatHostOrder(record.maskaddr)},
        {"gateway", record.gwaddr == 0 ? nlohmann::json() : nlohmann::json(FormatHostOrder(record.gwaddr))},
        {"mode", nullptr},
        {"customPort", nullptr},
        {"playerVersion", TextOrNull(FormatVersion(record.plexa, 4))},
        {"fpgaVersion", TextOrNull(FormatVersion(record.fpga, 3))},
        {"screen", {{"width", std::int32_t{record.width}}, {"height", std::int32_t{record.height}}}},
        {"usbRoomKiB", Unsigned(record.usb_size)},
        {"light", std::int32_t{record.light}},
        {"deviceType", std::int32_t{record.device_type}},
        {"modelType", std::int32_t{record.model_type}},
        {"bootScreen", record.boot_screen_flag != 0},
        {"recordAddress", Dotted(stored.address)},
        {"recordAddressOrder", OrderJson(stored.order)},
        {"interface", TextOrNull(board.interfaceName)},
        {"answeredAt", FormatUtc(board.answered)},
    };
    if (board.addressing) {
        json["mode"] = board.addressing->dynamic ? "dynamic" : "fixed";
        if (board.addressing->customPort != 0)
            json["customPort"] = board.addressing->customPort;
    }
    return json;
}

std::string DescribeBoard(const Board &board)
{
    const wire::DeviceRecord &record = board.record;
    return RenderFields({
        {"identifier", OrDash(BoardId(record))},
        {"name", OrDash(BoardName(record))},
        {"MAC", OrDash(BoardMac(record))},
        {"address", DescribeAddress(board)},
        {"netmask", FormatHostOrder(record.maskaddr)},
        {"gateway", record.gwaddr == 0 ? "-" : FormatHostOrder(record.gwaddr)},
        {"mode", FormatMode(board)},
        {"player version", FormatVersion(record.plexa, 4)},
        {"FPGA version", FormatVersion(record.fpga, 3)},
        {"screen", FormatScreen(record)},
        {"USB room", FormatUsbRoom(record)},
        {"brightness", fmt::format("{}", std::int32_t{record.light})},
        {"device type", fmt::format("{}", std::int32_t{record.device_type})},
        {"model type", fmt::format("{}", std::int32_t{record.model_type})},
        {"boot screen", record.boot_screen_flag != 0 ? "yes" : "no"},
        {"heard on", OrDash(board.interfaceName)},
        {"answered at", FormatUtc(board.answered)},
    });
}

} // namespace ledboard
