// SPDX-License-Identifier: MIT
// tool/discovery/board.h: one board as its discovery answer tells it: decoding and showing, no sockets.
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

// What status command 1 tells beside the record.
struct Addressing {
    bool dynamic;
    int customPort; // 0: none
};

// The order in which the record holds the address: network order since the board's start, reversed since a
// change to a fixed address.
enum class AddressOrder { kUnknown, kNetwork, kReversed };

struct RecordAddress {
    in_addr address;
    AddressOrder order;
};

struct Board {
    wire::DeviceRecord record;
    Endpoint source;        // of the answer; address 0.0.0.0 when the board has none
    unsigned interface = 0; // index of the PC's interface on which the answer came
    std::string interfaceName;
    std::chrono::system_clock::time_point answered;
    std::optional<Addressing> addressing; // nothing: the board did not say
};

// The record out of a datagram: only out of a search answer whose header echoes `cookie` (ph_data_crc).
std::optional<wire::DeviceRecord> DecodeSearchReply(wire::Bytes datagram, std::uint32_t cookie);

struct StatusAnswer {
    std::string id; // all kDeviceIdSize bytes
    Addressing addressing;
};
std::optional<StatusAnswer> DecodeStatusReply(wire::Bytes datagram, std::uint32_t cookie);

wire::SearchRequest MakeSearch(std::uint32_t cookie);
wire::StatusRequest MakeStatusRequest(const wire::DeviceRecord &record, std::uint32_t cookie);

// For the board of this record; the change's own identifier is filled in.
wire::AddressChangeRequest MakeAddressChange(const wire::DeviceRecord &record, wire::UpdateLocalIP change,
                                             std::uint32_t cookie);

// The record's address in the order that equals `source`; the other order is tried against the gateway's
// subnet where `source` is 0.0.0.0. An address that equals neither way is given in network order, kUnknown.
RecordAddress DecodeRecordAddress(const wire::DeviceRecord &record, in_addr source);

// The address by which the board is reached: the answer's source where that is known, else the record's.
in_addr BoardAddress(const Board &board);

// "aa:bb:0c:dd:ee:ff" out of the record's blank-padded digits; empty when the board has no MAC.
std::string BoardMac(const wire::DeviceRecord &record);

std::string BoardId(const wire::DeviceRecord &record);   // fit for a terminal
std::string BoardName(const wire::DeviceRecord &record); // fit for a terminal

// Tells boards apart, and orders them: identifier, then MAC, then (for boards without a MAC) address.
std::string BoardKey(const Board &board);

// How a message names the board: its identifier, else its MAC, else its address.
std::string BoardLabel(const Board &board);

// "dynamic", "fixed", "fixed, port 12000" or "?"
std::string FormatMode(const Board &board);

std::string FormatVersion(std::int32_t version, int numbers); // "1.2.3.4"; "-" for 0
std::string FormatUsbRoom(const wire::DeviceRecord &record);  // "-" without a disk
std::string FormatScreen(const wire::DeviceRecord &record);   // "128x64"

nlohmann::json BoardJson(const Board &board);
std::string DescribeBoard(const Board &board); // the whole record, a field a line

} // namespace ledboard
