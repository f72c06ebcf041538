// SPDX-License-Identifier: MIT
#include "boards.h"

#include "common/address.h"
#include "common/pc/text.h"
#include "common/text_field.h"

#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>

namespace server
{

namespace
{

using SystemClock = std::chrono::system_clock;
using namespace std::chrono_literals;

constexpr std::chrono::seconds kMaxSilence = 45s; // a board sends something every 7 seconds
constexpr std::size_t kMaxAway = 4096;            // entries of boards that are not connected

// The four bytes in the order in which they lie in the record: addresses in network order, versions.
std::string DottedBytes(const wire::I32 &bytes)
{
    return ledboard::Dotted({static_cast<in_addr_t>(std::int32_t{bytes})});
}

nlohmann::json RecordJson(const wire::DeviceRecord &record)
{
    return {{"name", ledboard::FieldText(record.name)},
            {"mac", std::string(record.mac, sizeof record.mac)},
            {"address", DottedBytes(record.ipaddr)},
            {"player", DottedBytes(record.plexa)},
            {"fpga", DottedBytes(record.fpga)},
            {"width", static_cast<int>(record.width)},
            {"height", static_cast<int>(record.height)},
            {"deviceType", static_cast<int>(record.device_type)},
            {"modelType", static_cast<int>(record.model_type)},
            {"usbKib", static_cast<int>(record.usb_size)}};
}

nlohmann::json EntryJson(const BoardEntry &entry)
{
    nlohmann::json json = {{"id", entry.id},
                           {"user", entry.username},
                           {"connected", entry.link != nullptr},
                           {"peer", entry.peer},
                           {"since", ledboard::FormatUtc(entry.since)},
                           {"heard", ledboard::FormatUtc(entry.heard)},
                           {"logins", entry.logins},
                           {"heartbeats", entry.heartbeats},
                           {"device", nullptr},
                           {"push", nullptr}};
    if (entry.record)
        json["device"] = RecordJson(*entry.record);
    if (!entry.push.empty())
        json["push"] = entry.push;
    return json;
}

} // namespace

Boards::Boards(const asio::any_io_executor &executor) : changed_(executor), sweep_(executor)
{
    changed_.expires_at(asio::steady_timer::time_point::max());
}

BoardEntry &Boards::LogIn(const BoardLogin &login, const std::shared_ptr<BoardLink> &link)
{
    if (!boards_.contains(login.id))
        ForgetOldest();
    BoardEntry &entry = boards_[login.id];
    if (entry.link != nullptr)
        entry.link->Close();
    entry.id = login.id;
    entry.username = login.username;
    entry.peer = link->PeerText();
    entry.link = link;
    entry.since = entry.heard = SystemClock::now();
    ++entry.logins;
    Notify();
    return entry;
}

void Boards::Lose(const BoardLink &link)
{
    BoardEntry *const entry = Find(link.Id());
    // A newer link of the same board may have replaced this one.
    if (entry == nullptr || entry->link.get() != &link)
        return;
    entry->link = nullptr;
    entry->since = SystemClock::now();
}

void Boards::TakePacket(const std::shared_ptr<BoardLink> &link, wire::Bytes packet)
{
    BoardEntry *const entry = Find(link->Id());
    if (entry == nullptr || entry->link != link)
        return;
    entry->heard = SystemClock::now();
    switch (wire::Read<wire::RemotePrefix>(packet)->command) {
    case wire::kRemoteDeviceParam:
        if (const auto param = wire::Read<wire::RemoteDeviceParamPacket>(packet))
            entry->record = param->param.answer.info.record;
        break;
    case wire::kRemoteHeartbeat:
        ++entry->heartbeats;
        break;
    case wire::kRemoteSession:
        link->PutReply(ReadReply(packet));
        break;
    default:
        break;
    }
}

BoardEntry *Boards::Find(const std::string &id)
{
    const auto found = boards_.find(id);
    return found == boards_.end() ? nullptr : &found->second;
}

std::vector<std::string> Boards::ConnectedIds() const
{
    std::vector<std::string> ids;
    for (const auto &[id, entry] : boards_) {
        if (entry.link != nullptr)
            ids.push_back(id);
    }
    return ids;
}

nlohmann::json Boards::List() const
{
    nlohmann::json list = nlohmann::json::array();
    for (const auto &[id, entry] : boards_)
        list.push_back(EntryJson(entry));
    return list;
}

asio::awaitable<void> Boards::Change()
{
    asio::error_code cancelled;
    co_await changed_.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
}

void Boards::Notify()
{
    changed_.cancel();
}

asio::awaitable<void> Boards::WatchSilence()
{
    for (;;) {
        sweep_.expires_after(5s);
        co_await sweep_.async_wait(asio::use_awaitable);
        const auto oldest = std::chrono::steady_clock::now() - kMaxSilence;
        for (const auto &[id, entry] : boards_) {
            if (entry.link != nullptr && entry.link->LastHeard() < oldest)
                entry.link->Close();
        }
    }
}

// Anybody can log in with any identifier, so the number of entries that are not connected is limited.
void Boards::ForgetOldest()
{
    std::vector<const BoardEntry *> away;
    for (const auto &[id, entry] : boards_) {
        if (entry.link == nullptr && entry.push.empty())
            away.push_back(&entry);
    }
    if (away.size() < kMaxAway)
        return;
    const auto older = [](const BoardEntry *a, const BoardEntry *b) { return a->since < b->since; };
    boards_.erase(boards_.find((*std::min_element(away.begin(), away.end(), older))->id));
}

} // namespace server
