// SPDX-License-Identifier: MIT
// tool/discovery/board.h: one board as it describes itself in its discovery answer: decodes and formats, no
// sockets.
#pragma once

#include "discovery/endpoint.h"
#include "records/discovery_records.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace ledboard
{

// What the board reports on status command 1, besides its record.
struct Addressing {
    bool dynamic;
    int customPort; // 0: no custom port
};

// The byte order of the address in the record: network order after the board's start, reversed after a change
// to a fixed address.
enum class AddressOrder { kUnknown, kNetwork, kReversed };

struct RecordAddress {
    in_addr address;
    AddressOrder order;
};

struct Board {
    wire::DeviceRecord record;
    Endpoint source;        // of the answer; 0.0.0.0 if the board has no address
    unsigned interface = 0; // index of the PC's interface on which the answer came
    std::string interfaceName;
    std::chrono::system_clock::time_point answered;
    std::optional<Addressing> addressing; // nullopt: the board did not report it
};

// The record in a datagram; nullopt unless it is a search answer whose header echoes `cookie` (ph_data_crc).
std::optional<wire::DeviceRecord> DecodeSearchReply(wire::Bytes datagram, std::uint32_t cookie);

struct StatusAnswer {
    std::string id; // all kDeviceIdSize bytes
    Addressing addressing;
};
std::optional<StatusAnswer> DecodeStatusReply(wire::Bytes datagram, std::uint32_t cookie);

wire::SearchRequest MakeSearch(std::uint32_t cookie);
wire::StatusRequest MakeStatusRequest(const wire::DeviceRecord &record, std::uint32_t cookie);

// For the board of this record: its identifier replaces the one in `change`.
wire::AddressChangeRequest MakeAddressChange(const wire::DeviceRecord &record, wire::UpdateLocalIP change,
                                             std::uint32_t cookie);

// The record's address, read in the byte order in which it equals `source`. If `source` is 0.0.0.0, in the
// order in which it is in the gateway's subnet. If that does not decide, in network order with kUnknown.
RecordAddress DecodeRecordAddress(const wire::DeviceRecord &record, in_addr source);

// The address at which the board is reached: the source of its answer, or the record's if that is 0.0.0.0.
in_addr BoardAddress(const Board &board);

// "aa:bb:0c:dd:ee:ff" from the record's blank-padded digits; empty if the board has no MAC.
std::string BoardMac(const wire::DeviceRecord &record);

std::string BoardId(const wire::DeviceRecord &record);   // safe for a terminal
std::string BoardName(const wire::DeviceRecord &record); // safe for a terminal

// Distinguishes boards and orders them: by identifier, then MAC, then (without a MAC) address.
std::string BoardKey(const Board &board);

// How a message names the board: its identifier, else its MAC, else its address.
std::string BoardLabel(const Board &board);

// "dynamic", "fixed", "fixed, port 12000" or "?"
std::string FormatMode(const Board &board);

std::string FormatVersion(std::int32_t version, int numbers); // "1.2.3.4"; "-" for 0
std::string FormatUsbRoom(const wire::DeviceRecord &record);  // "-" without a disk
std::string FormatScreen(const wire::DeviceRecord &record);   // "128x64"

nlohmann::json BoardJson(const Board &board);
std::string DescribeBoard(const Board &board); // the whole record, one field per line

} // namespace ledboard
