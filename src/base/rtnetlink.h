// SPDX-License-Identifier: MIT
// src/base/rtnetlink.h: route netlink (RFC 3549; layout as in <linux/netlink.h> and <linux/rtnetlink.h>):
// walks messages and their attributes, and sends the kernel one request at a time. Any thread.
//
// Messages and attributes are views into the caller's bytes. Headers are in the machine's byte order,
// addresses in attributes are in network byte order.
#pragma once

#include "records/wire_types.h"

#include <linux/rtnetlink.h>

#include <vector>

struct NetlinkMessage {
    nlmsghdr header;
    wire::Bytes body; // after the header, without padding
};

struct NetlinkAttribute {
    std::uint16_t type = 0;
    wire::Bytes value; // without padding
};

// A copy of the kernel's structure at the start of `bytes`, or nothing if it is not complete.
template <typename T> std::optional<T> ReadKernelStruct(wire::Bytes bytes)
{
    static_assert(std::is_trivially_copyable_v<T>);
    if (bytes.size() < sizeof(T))
        return std::nullopt;
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// Take the first message or attribute, with its padding, off `left`. Nothing, with `left` unchanged, if it is
// not complete or its length is invalid.
std::optional<NetlinkMessage> TakeNetlinkMessage(wire::Bytes *left);
std::optional<NetlinkAttribute> TakeNetlinkAttribute(wire::Bytes *left);

// Sends one request and returns the kernel's verdict: true done, false with errno. `body` is what follows the
// message header; `flags` are those besides NLM_F_REQUEST and NLM_F_ACK.
bool RequestRtnetlink(std::uint16_t type, std::uint16_t flags, wire::Bytes body);

// Asks for all entries of a table, for example with RTM_GETROUTE. The messages of the answer one after
// another, to be taken with TakeNetlinkMessage; nothing if the query failed.
std::optional<std::vector<std::byte>> DumpRtnetlink(std::uint16_t type, wire::Bytes body);
