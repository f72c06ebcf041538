// SPDX-License-Identifier: MIT
// records/discovery_records.h: datagrams of UDP port 8878 and of the custom port (docs/protocols.md,
// "Discovery").
#pragma once

#include "records/wire_types.h"

namespace wire
{

constexpr std::uint16_t kDiscoveryPort = 8878;

// Starts every discovery datagram and every upload packet. A discovery reply is built on the request's
// header: all fields but ph_length go back as they came.
struct ProtocolHeader {
    U16 ph_descrite;
    U16 ph_version;
    U16 ph_length; // bytes, header included
    U8 ph_types;
    U32 ph_data_crc;
    U32 ph_head_crc;
};
static_assert(sizeof(ProtocolHeader) == 15);
static_assert(offsetof(ProtocolHeader, ph_descrite) == 0);
static_assert(offsetof(ProtocolHeader, ph_version) == 2);
static_assert(offsetof(ProtocolHeader, ph_length) == 4);
static_assert(offsetof(ProtocolHeader, ph_types) == 6);
static_assert(offsetof(ProtocolHeader, ph_data_crc) == 7);
static_assert(offsetof(ProtocolHeader, ph_head_crc) == 11);

constexpr std::size_t kDeviceIdSize = 14;

// What the board reports about itself. `ipaddr` is in network byte order after start and in host byte order
// after a change to a fixed address; `maskaddr` and `gwaddr` are always in host byte order.
struct DeviceRecord {
    char id[kDeviceIdSize];
    char mac[17]; // six times "%2x:" cut to 17 characters: blank-padded, no terminator
    I32 ipaddr;
    I32 maskaddr;
    I32 gwaddr;
    I32 plexa;  // player version, four numbers in byte order
    I32 fpga;   // FPGA version, three numbers in byte order
    I32 width;  // pixels
    I32 height; // pixels
    I32 light;  // never set
    I32 device_type;
    I32 model_type;
    I32 boot_screen_flag;
    I32 usb_size; // KiB
    char name[250];
};
static_assert(sizeof(DeviceRecord) == 329);
static_assert(offsetof(DeviceRecord, id) == 0);
static_assert(offsetof(DeviceRecord, mac) == 14);
static_assert(offsetof(DeviceRecord, ipaddr) == 31);
static_assert(offsetof(DeviceRecord, maskaddr) == 35);
static_assert(offsetof(DeviceRecord, gwaddr) == 39);
static_assert(offsetof(DeviceRecord, plexa) == 43);
static_assert(offsetof(DeviceRecord, fpga) == 47);
static_assert(offsetof(DeviceRecord, width) == 51);
static_assert(offsetof(DeviceRecord, height) == 55);
static_assert(offsetof(DeviceRecord, light) == 59);
static_assert(offsetof(DeviceRecord, device_type) == 63);
static_assert(offsetof(DeviceRecord, model_type) == 67);
static_assert(offsetof(DeviceRecord, boot_screen_flag) == 71);
static_assert(offsetof(DeviceRecord, usb_size) == 75);
static_assert(offsetof(DeviceRecord, name) == 79);

// The record as it travels: the room of the board's 13 operation addresses follows it, always zero.
struct DeviceInformation {
    DeviceRecord record;
    U8 operations[52];
};
static_assert(sizeof(DeviceInformation) == 381);
static_assert(offsetof(DeviceInformation, record) == 0);
static_assert(offsetof(DeviceInformation, operations) == 329);

// Requests differ by their length alone.
struct SearchRequest {
    ProtocolHeader header;
    U8 ignored[15];
};
static_assert(sizeof(SearchRequest) == 30);
static_assert(offsetof(SearchRequest, header) == 0);
static_assert(offsetof(SearchRequest, ignored) == 15);

struct KAnswerIpAddress {
    U8 command; // kAnswerIpAddressCommand
    I32 address;
    I32 recv_thread_status;
    I32 serial_thread_status;
    DeviceInformation info;
};
constexpr std::uint8_t kAnswerIpAddressCommand = 15;
static_assert(sizeof(KAnswerIpAddress) == 394);
static_assert(offsetof(KAnswerIpAddress, command) == 0);
static_assert(offsetof(KAnswerIpAddress, address) == 1);
static_assert(offsetof(KAnswerIpAddress, recv_thread_status) == 5);
static_assert(offsetof(KAnswerIpAddress, serial_thread_status) == 9);
static_assert(offsetof(KAnswerIpAddress, info) == 13);

struct SearchReply {
    ProtocolHeader header;
    KAnswerIpAddress answer;
};
static_assert(sizeof(SearchReply) == 409);
static_assert(offsetof(SearchReply, header) == 0);
static_assert(offsetof(SearchReply, answer) == 15);

enum StatusCommand : std::uint32_t {
    kStatusAddressing = 1,
    kStatusConnectServer = 2,
    kStatusSetRemoteAddress = 4, // only in the reply to a SetRemoteServerRequest
    kStatusDisconnectServer = 5,
    kStatusGetRemoteAddress = 6,
};

struct StatusRequest {
    ProtocolHeader header;
    U32 cmd;
    char id[kDeviceIdSize];
};
static_assert(sizeof(StatusRequest) == 33);
static_assert(offsetof(StatusRequest, header) == 0);
static_assert(offsetof(StatusRequest, cmd) == 15);
static_assert(offsetof(StatusRequest, id) == 19);

struct DeviceStatus {
    I32 cmd;
    I32 status; // 1 dynamic addressing, 0 fixed address
    I32 port;   // custom port, 0 none
    char id[kDeviceIdSize];
};
static_assert(sizeof(DeviceStatus) == 26);
static_assert(offsetof(DeviceStatus, cmd) == 0);
static_assert(offsetof(DeviceStatus, status) == 4);
static_assert(offsetof(DeviceStatus, port) == 8);
static_assert(offsetof(DeviceStatus, id) == 12);

struct DeviceStatusReply {
    ProtocolHeader header;
    DeviceStatus status;
};
static_assert(sizeof(DeviceStatusReply) == 41);
static_assert(offsetof(DeviceStatusReply, header) == 0);
static_assert(offsetof(DeviceStatusReply, status) == 15);

// Answer to the commands 2 and 5 and to the request that sets the remote server.
struct RemoteStatusReply {
    ProtocolHeader header;
    U32 cmd;
    char id[kDeviceIdSize];
    U8 connected;
};
static_assert(sizeof(RemoteStatusReply) == 34);
static_assert(offsetof(RemoteStatusReply, header) == 0);
static_assert(offsetof(RemoteStatusReply, cmd) == 15);
static_assert(offsetof(RemoteStatusReply, id) == 19);
static_assert(offsetof(RemoteStatusReply, connected) == 33);

// Address of the remote management server. Neither text need end in a zero byte.
struct AddrParam {
    I16 domainFlag; // 0: addr is a dotted address; 1: addr is a host name
    char addr[256];
    I32 port;
    char username[20];
};
static_assert(sizeof(AddrParam) == 282);
static_assert(offsetof(AddrParam, domainFlag) == 0);
static_assert(offsetof(AddrParam, addr) == 2);
static_assert(offsetof(AddrParam, port) == 258);
static_assert(offsetof(AddrParam, username) == 262);

struct SetRemoteServerRequest {
    ProtocolHeader header;
    U32 cmd;                // not looked at
    char id[kDeviceIdSize]; // not looked at
    AddrParam server;
};
static_assert(sizeof(SetRemoteServerRequest) == 315);
static_assert(offsetof(SetRemoteServerRequest, header) == 0);
static_assert(offsetof(SetRemoteServerRequest, cmd) == 15);
static_assert(offsetof(SetRemoteServerRequest, id) == 19);
static_assert(offsetof(SetRemoteServerRequest, server) == 33);

struct RemoteAddressReply {
    ProtocolHeader header;
    U32 cmd;
    char id[kDeviceIdSize];
    AddrParam server;
};
static_assert(sizeof(RemoteAddressReply) == 315);
static_assert(offsetof(RemoteAddressReply, header) == 0);
static_assert(offsetof(RemoteAddressReply, cmd) == 15);
static_assert(offsetof(RemoteAddressReply, id) == 19);
static_assert(offsetof(RemoteAddressReply, server) == 33);

// A change of the board's addressing. The three addresses are in network byte order.
struct UpdateLocalIP {
    I32 ip;
    I32 mask;
    I32 gateway;
    I32 dhcpFlag; // 1: DHCP; anything else: the fixed address above
    I32 port;     // requested custom port
    char id[kDeviceIdSize];
};
static_assert(sizeof(UpdateLocalIP) == 34);
static_assert(offsetof(UpdateLocalIP, ip) == 0);
static_assert(offsetof(UpdateLocalIP, mask) == 4);
static_assert(offsetof(UpdateLocalIP, gateway) == 8);
static_assert(offsetof(UpdateLocalIP, dhcpFlag) == 12);
static_assert(offsetof(UpdateLocalIP, port) == 16);
static_assert(offsetof(UpdateLocalIP, id) == 20);

struct AddressChangeRequest {
    ProtocolHeader header;
    UpdateLocalIP change;
};
static_assert(sizeof(AddressChangeRequest) == 49);
static_assert(offsetof(AddressChangeRequest, header) == 0);
static_assert(offsetof(AddressChangeRequest, change) == 15);

} // namespace wire
