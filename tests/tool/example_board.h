// SPDX-License-Identifier: MIT
// tests/tool/example_board.h: a board to vary: C1-0000000001 "Main gate" at 192.168.1.7.
#pragma once

#include "common/text_field.h"
#include "discovery/board.h"

#include <arpa/inet.h>

namespace ledboard
{

inline in_addr Address(const char *text)
{
    in_addr address = {};
    inet_pton(AF_INET, text, &address);
    return address;
}

inline Board ExampleBoard()
{
    Board board = {};
    SetFieldText(board.record.id, "C1-0000000001");
    SetFieldText(board.record.mac, " 2:fc: 0: 0: 0: 1");
    SetFieldText(board.record.name, "Main gate");
    board.record.ipaddr = static_cast<std::int32_t>(Address("192.168.1.7").s_addr);
    board.record.maskaddr = static_cast<std::int32_t>(0xFFFFFF00U);
    board.record.gwaddr = static_cast<std::int32_t>(0xC0A80101U);
    board.record.plexa = 0x04030201;
    board.record.fpga = 0x00030201;
    board.source = {Address("192.168.1.7"), wire::kDiscoveryPort};
    return board;
}

} // namespace ledboard
