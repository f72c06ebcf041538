// SPDX-License-Identifier: MIT
#include "modem/sms_text.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <algorithm>
#include <charconv>
#include <vector>

namespace
{

// The default alphabet of 3GPP TS 23.038, 6.2.1, in the order of its codes. 0x1B, here a blank that does not
// break, announces a code of the extension table below (6.2.1.1).
constexpr char16_t kAlphabet[] = u"@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞ\u00A0ÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?"
                                 u"¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà";
static_assert(sizeof kAlphabet == (128 + 1) * sizeof(char16_t));
constexpr char kEscape = 0x1B;

struct Extended {
    char code;
    char16_t character;
};
constexpr Extended kExtension[] = {{0x0A, u'\f'}, {0x14, u'^'}, {0x28, u'{'}, {0x29, u'}'}, {0x2F, u'\\'},
                                   {0x3C, u'['},  {0x3D, u'~'}, {0x3E, u']'}, {0x40, u'|'}, {0x65, u'€'}};

char16_t DefaultCharacter(char septet)
{
    return kAlphabet[static_cast<unsigned char>(septet) & 0x7FU];
}

// Whether a text that a person wrote would begin with this character: the scripts up to Arabic, punctuation,
// or the scripts of East Asia. Plain digits, read as UCS2, usually begin with a character of another range.
bool LooksWritten(char16_t first)
{
    return first < 0x0700 || (first >= 0x2000 && first < 0x2100) || (first >= 0x3000 && first < 0xA000) ||
           (first >= 0xAC00 && first < 0xE000);
}

std::optional<std::vector<char16_t>> Units(std::string_view hexadecimal)
{
    constexpr std::size_t kDigits = 4;
    if (hexadecimal.empty() || hexadecimal.size() % kDigits != 0)
        return std::nullopt;
    std::vector<char16_t> units;
    for (; !hexadecimal.empty(); hexadecimal.remove_prefix(kDigits)) {
        std::uint16_t unit = 0;
        const auto [stopped, error] =
            std::from_chars(hexadecimal.data(), hexadecimal.data() + kDigits, unit, 16);
        if (error != std::errc() || stopped != hexadecimal.data() + kDigits)
            return std::nullopt;
        units.push_back(unit);
    }
    return units;
}

// A part of a long message begins with a header that numbers the parts (3GPP TS 23.040): 05 00 03 with
// numbers of one byte (9.2.3.24.1), 06 08 04 with a reference of two (9.2.3.24.8). Three more bytes follow,
// or four.
std::string_view WithoutPartHeader(std::string_view hexadecimal)
{
    for (const std::string_view start : {"050003", "060804"}) {
        const std::size_t whole = start == "050003" ? 12 : 14;
        if (hexadecimal.starts_with(start) && hexadecimal.size() > whole)
            return hexadecimal.substr(whole);
    }
    return hexadecimal;
}

// Drops all byte order marks at the start. Qt's conversions drop only the first, so that a stored message
// would not be equal to itself when it is read again.
std::string ToUtf8(QStringView text)
{
    while (text.startsWith(QChar::ByteOrderMark))
        text = text.mid(1);
    return text.toUtf8().toStdString();
}

std::string ToUtf8(const std::vector<char16_t> &units)
{
    return ToUtf8(QStringView(units.data(), static_cast<qsizetype>(units.size())));
}

} // namespace

std::string GsmToUtf8(std::string_view septets)
{
    std::vector<char16_t> units;
    for (std::size_t at = 0; at < septets.size(); ++at) {
        if (septets[at] != kEscape) {
            units.push_back(DefaultCharacter(septets[at]));
            continue;
        }
        if (++at == septets.size())
            break;
        const auto known = std::ranges::find(kExtension, septets[at], &Extended::code);
        // An unknown code of the extension is shown as the character of the default alphabet (6.2.1.1).
        units.push_back(known != std::end(kExtension) ? known->character : DefaultCharacter(septets[at]));
    }
    return ToUtf8(units);
}

std::optional<std::string> Ucs2ToUtf8(std::string_view hexadecimal)
{
    const auto units = Units(WithoutPartHeader(hexadecimal));
    if (!units)
        return std::nullopt;
    return ToUtf8(*units);
}

std::string ValidUtf8(std::string_view bytes)
{
    return ToUtf8(QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size())));
}

std::string SmsText(std::string_view body, std::optional<std::size_t> length, ModemCharset charset)
{
    const auto units = Units(body);
    // The length counts characters or, with some modems, bytes: hexadecimal is at least twice as long.
    // Without a length only the first character distinguishes it from a text of digits.
    const bool hexadecimal = units && (charset == ModemCharset::kUcs2 ||
                                       (length ? body.size() >= 2 * *length && *length != 0
                                               : units->size() > 1 && LooksWritten(units->front())));
    const bool part = body.starts_with("050003") || body.starts_with("060804");
    if (hexadecimal || (charset == ModemCharset::kUcs2 && part)) {
        if (const auto text = Ucs2ToUtf8(body))
            return *text;
    }
    return charset == ModemCharset::kGsm ? GsmToUtf8(body) : ValidUtf8(body);
}

std::string FromModemText(std::string_view text)
{
    // A text of decimal digits may be a telephone number: it is decoded only if that gives Latin letters.
    constexpr char16_t kLatinEnd = 0x0250;
    const auto units = Units(text);
    const bool digitsOnly = text.find_first_not_of("0123456789") == std::string_view::npos;
    const auto fits = [&](char16_t unit) {
        return unit >= u' ' && (digitsOnly ? unit < kLatinEnd : LooksWritten(unit));
    };
    if (!units || units->size() < 2 || !std::ranges::all_of(*units, fits))
        return ValidUtf8(text);
    return ToUtf8(*units);
}

std::string SmsToJson(const SmsMessage &message)
{
    QJsonObject object;
    object["sender"] = QString::fromStdString(message.sender);
    object["text"] = QString::fromStdString(message.text);
    object["time"] = message.time == 0
                         ? QJsonValue()
                         : QDateTime::fromSecsSinceEpoch(message.time, Qt::UTC).toString(Qt::ISODate);
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

std::optional<SmsMessage> SmsFromJson(const std::string &line)
{
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(line));
    if (!document.isObject() || !document["sender"].isString() || !document["text"].isString())
        return std::nullopt;
    const QDateTime time = QDateTime::fromString(document["time"].toString(), Qt::ISODate);
    return SmsMessage{time.isValid() ? time.toSecsSinceEpoch() : 0,
                      document["sender"].toString().toStdString(), document["text"].toString().toStdString()};
}
