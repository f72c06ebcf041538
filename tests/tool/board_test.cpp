// SPDX-License-Identifier: MIT
#include "discovery/board.h"

#include "common/address.h"
#include "example_board.h"

#include <gtest/gtest.h>

namespace ledboard
{

TEST(Board, AddressIsReadInTheOrderThatEqualsTheSource)
{
    struct Row {
        const char *stored; // the record's four bytes in memory order
        const char *source;
        const char *shown;
        AddressOrder order;
    };
    const Row rows[] = {
        {"192.168.1.7", "192.168.1.7", "192.168.1.7", AddressOrder::kNetwork},
        {"7.1.168.192", "192.168.1.7", "192.168.1.7", AddressOrder::kReversed},
        {"10.1.1.10", "10.1.1.10", "10.1.1.10", AddressOrder::kNetwork}, // reads the same both ways
        {"192.168.1.9", "192.168.1.7", "192.168.1.9", AddressOrder::kUnknown},
        {"192.168.1.7", "0.0.0.0", "192.168.1.7", AddressOrder::kNetwork}, // by the gateway 192.168.1.1
        {"7.1.168.192", "0.0.0.0", "192.168.1.7", AddressOrder::kReversed},
        {"10.9.8.7", "0.0.0.0", "10.9.8.7", AddressOrder::kUnknown},
    };
    for (const Row &row : rows) {
        Board board = ExampleBoard();
        board.record.ipaddr = static_cast<std::int32_t>(Address(row.stored).s_addr);
        board.source.address = Address(row.source);
        const RecordAddress decoded = DecodeRecordAddress(board.record, board.source.address);
        EXPECT_EQ(Dotted(decoded.address), row.shown) << row.stored << " from " << row.source;
        EXPECT_EQ(decoded.order, row.order) << row.stored << " from " << row.source;
    }
}

TEST(Board, MacIsShownInTheUsualForm)
{
    const std::pair<const char *, const char *> rows[] = {
        {"aa:bb: c:dd:ee:ff", "aa:bb:0c:dd:ee:ff"},
        {" 0: 1: 2: 3: 4: 5", "00:01:02:03:04:05"},
        {"AA:bb:0C:dd:ee:ff", "aa:bb:0c:dd:ee:ff"},
        {"", ""},
        {"aa:bb:cc:dd:ee:\x1b"
         "f",
         "aa:bb:cc:dd:ee:\\x1bf"},
        {"aa-bb-cc-dd-ee-ff", "aa-bb-cc-dd-ee-ff"},
        {"short", "short"},
        {"  :bb:cc:dd:ee:ff", "  :bb:cc:dd:ee:ff"},
    };
    for (const auto &[stored, shown] : rows) {
        Board board = ExampleBoard();
        SetFieldText(board.record.mac, stored);
        EXPECT_EQ(BoardMac(board.record), shown);
    }
}

TEST(Board, OnlyAnswersToOurOwnQuestionsCount)
{
    wire::SearchReply reply{};
    reply.header.ph_data_crc = 77U;
    reply.answer.command = 15;
    SetFieldText(reply.answer.info.record.id, "C1-0000000001");
    const auto decode = [](const wire::SearchReply &r) { return DecodeSearchReply(wire::BytesOf(r), 77); };
    ASSERT_TRUE(decode(reply));
    EXPECT_EQ(BoardId(*decode(reply)), "C1-0000000001");
    EXPECT_FALSE(DecodeSearchReply(wire::BytesOf(reply), 78));
    EXPECT_FALSE(DecodeSearchReply(wire::BytesOf(reply).first(408), 77));
    reply.answer.command = 14;
    EXPECT_FALSE(decode(reply));

    wire::DeviceStatusReply status{};
    status.header.ph_data_crc = 77U;
    status.status.cmd = 1;
    status.status.status = 1;
    status.status.port = 12000;
    const auto answer = DecodeStatusReply(wire::BytesOf(status), 77);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->addressing.dynamic);
    EXPECT_EQ(answer->addressing.customPort, 12000);
    EXPECT_EQ(answer->id, std::string(14, '\0'));
    status.status.cmd = 2;
    EXPECT_FALSE(DecodeStatusReply(wire::BytesOf(status), 77));
}

TEST(Board, JsonTakesAnyBytesAndHasNullForWhatIsNotKnown)
{
    Board board = ExampleBoard();
    SetFieldText(board.record.name, "\xFF\x1b[31m");
    board.record.gwaddr = 0;
    board.record.plexa = 0;
    board.record.usb_size = -1; // 4 TiB less 1 KiB: the field is a count, whatever its type
    const nlohmann::json json = nlohmann::json::parse(BoardJson(board).dump());
    EXPECT_EQ(json["name"], "�\x1b[31m");
    EXPECT_EQ(json["usbRoomKiB"], 4294967295U);
    EXPECT_EQ(json["netmask"], "255.255.255.0");
    for (const char *unknown : {"gateway", "playerVersion", "mode", "customPort", "interface"})
        EXPECT_TRUE(json[unknown].is_null()) << unknown;
    EXPECT_EQ(json["fpgaVersion"], "1.2.3");
    EXPECT_EQ(FormatMode(board), "?");
    board.addressing = Addressing{false, 12000};
    EXPECT_EQ(FormatMode(board), "fixed, port 12000");
    EXPECT_EQ(BoardJson(board)["customPort"], 12000);
}

TEST(Board, KeysDistinguishBoards)
{
    const Board one = ExampleBoard();
    Board other = ExampleBoard();
    other.source.address = Address("192.168.1.8"); // the same board with a new address
    EXPECT_EQ(BoardKey(one), BoardKey(other));
    other.record.mac[16] = '9';
    EXPECT_LT(BoardKey(one), BoardKey(other));
    other.record.id[12] = '0';
    EXPECT_GT(BoardKey(one), BoardKey(other));

    Board bare = one;
    SetFieldText(bare.record.mac, "");
    Board bareElsewhere = bare;
    bareElsewhere.source.address = Address("192.168.1.8");
    EXPECT_NE(BoardKey(bare), BoardKey(bareElsewhere));
}

} // namespace ledboard
