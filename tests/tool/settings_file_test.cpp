// SPDX-License-Identifier: MIT
#include "sessions/settings_file.h"

#include "common/pc/verb_error.h"

#include <gtest/gtest.h>

namespace ledboard
{

namespace
{

std::string Le32(std::uint32_t value)
{
    std::string text;
    for (int shift = 0; shift < 32; shift += 8)
        text += static_cast<char>(value >> shift & 0xFF);
    return text;
}

std::string Header(std::uint32_t count, std::uint32_t dataLength)
{
    const std::string headId = "\x6D\x48";
    return headId + Le32(count).substr(0, 2) + Le32(dataLength);
}

std::string Record(std::uint32_t id, std::uint32_t value)
{
    return Le32(id) + Le32(value);
}

SettingsFile Parse(const std::string &bytes)
{
    return ParseSettings(wire::BytesAt(bytes.data(), bytes.size()), "it");
}

std::string MessageOf(const std::string &bytes)
{
    try {
        Parse(bytes);
    } catch (const VerbError &error) {
        EXPECT_EQ(error.Status(), ExitStatus::kFailed);
        return error.what();
    }
    return "";
}

} // namespace

TEST(SettingsFile, RecordsAreDecodedAndShown)
{
    constexpr std::uint32_t kScreenSize = 3, kLuminance = 9, kMaxLuminance = 254, kNameless = 263;
    const std::string file = Header(4, 32) + Record(kScreenSize, 128 + 64 * 65536) + Record(kLuminance, 20) +
                             Record(kMaxLuminance, 800) + Record(kNameless, 0xFFFFFFFF) + "tail";
    const SettingsFile settings = Parse(file);
    ASSERT_EQ(settings.records.size(), 4U);
    EXPECT_EQ(settings.tailBytes, 4U);
    EXPECT_EQ(ScreenText(settings), "128x64");
    EXPECT_EQ(ScreenText({}), "?");
    const char *const texts[] = {"128x64", "20 of 800", "800", "4294967295"};
    for (std::size_t index = 0; index < settings.records.size(); ++index)
        EXPECT_EQ(SettingText(settings.records[index], settings), texts[index]);
    EXPECT_EQ(SettingText({.id = 9U, .value = 5U}, {}), "5");
    EXPECT_EQ(SettingText({.id = 18U, .value = 13U}, {}), "13 (14 bit planes)");
    EXPECT_EQ(SettingText({.id = 22U, .value = 0U}, {}), "0 (model type 1)");
    const nlohmann::json json = SettingsJson(settings);
    EXPECT_EQ(json["records"][0], nlohmann::json::parse(R"({"id": 3, "name": "screen-size", "value": 4194432,
                                                            "width": 128, "height": 64})"));
    EXPECT_EQ(json["records"][3], nlohmann::json::parse(R"({"id": 263, "value": 4294967295})"));
    EXPECT_EQ(json["tailBytes"], 4);
}

TEST(SettingsFile, WhatABoardWouldNotSendWholeIsRefused)
{
    const std::string record = Record(5, 1);
    const std::string otherHeadId = "\x48\x6D";
    EXPECT_EQ(MessageOf(Header(1, 8) + record), "");
    for (const std::string &bytes :
         {std::string(), Header(1, 8).substr(0, 7), otherHeadId + Header(1, 8).substr(2) + record})
        EXPECT_EQ(MessageOf(bytes), "it is not a settings file");
    for (const std::string &bytes : {Header(0, 0), Header(1, 8), Header(1, 7) + record,
                                     Header(2, 16) + record, Header(1, 0x01000008) + record})
        EXPECT_EQ(MessageOf(bytes), "it is damaged: its header does not fit its records");
}

TEST(SettingsFile, Assignments)
{
    const struct {
        const char *text;
        std::uint8_t id;
        std::uint32_t value;
    } good[] = {
        {"5=1", 5, 1},
        {"255=4294967295", 255, 0xFFFFFFFF},
        {"0x0A=0xfFfFfFfF", 10, 0xFFFFFFFF},
        {"screen-size=128x64", 3, 0x00400080},
        {"3=65535x65535", 3, 0xFFFFFFFF},
        {"screen-size=0x400080", 3, 0x00400080},
        {"max-luminance=800", 254, 800},
        {"model-type=0", 22, 0},
    };
    for (const auto &row : good)
        EXPECT_EQ(ParseAssignment(row.text), std::pair(row.id, row.value)) << row.text;
    for (const char *const text :
         {"5",         "=1",           "5=",        "256=1",  "-1=1",   "5=-1",  "5= 1",
          "5=1 ",      "5=4294967296", "nothing=1", "Scan=1", "3=128x", "3=x64", "3=65536x1",
          "3=1x65536", "3=1x2x3",      "5=0x",      "5=0xG",  "5=1=2",  "5=1.5", ""}) {
        try {
            ParseAssignment(text);
            ADD_FAILURE() << text;
        } catch (const VerbError &error) {
            EXPECT_EQ(error.Status(), ExitStatus::kUsage) << text;
        }
    }
}

} // namespace ledboard
