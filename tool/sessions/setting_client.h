// SPDX-License-Identifier: MIT
// tool/sessions/setting_client.h: a client of a board's setting service, on its own port (8879) or in a
// session of the main port; the packets are the same.
#pragma once

#include "records/setting_records.h"
#include "sessions/keep_alive.h"
#include "sessions/session_client.h"

#include <memory>
#include <string>
#include <vector>

namespace ledboard
{

enum class SettingTransport { kPort, kSession };

constexpr std::size_t kMaxSettingData = 254;  // bytes of a file in one data packet
constexpr std::size_t kMaxTransferData = 249; // bytes of a file in one packet of a file transfer

// One thread at a time. Every call throws VerbError as SessionClient does.
class SettingClient
{
public:
    // If the board serves another client, retries for up to 3 s; then kRefused.
    SettingClient(const Board &board, const std::string &interfaceName, std::chrono::milliseconds patience,
                  SettingTransport transport);

    void Command(wire::SettingCode code, wire::Bytes argument = {});
    void CommandAcknowledged(wire::SettingCode code, wire::Bytes argument = {});
    void Frame(std::uint8_t command, std::uint32_t value); // straight to the FPGA
    void Data(wire::Bytes data);                           // the next bytes of a settings file

    template <wire::Record T> T Receive()
    {
        std::byte bytes[sizeof(T)];
        client_->ReceiveExactly(bytes);
        return *wire::Read<T>(bytes);
    }

    // The board's time, ms since the epoch. It also shows that the board has handled everything sent before.
    std::int64_t BoardClock();
    std::vector<std::byte> End(); // ends the service; what the board sends until it closes
    void SendFile(wire::SettingCode code, wire::Bytes file); // a file transfer; kFailed if it is not stored

private:
    void ConnectToPort(const Endpoint &port, const std::string &interfaceName,
                       std::chrono::milliseconds patience);
    bool TransferFile(wire::SettingCode code,
                      wire::Bytes file); // false: the board reports that it is not stored
    void SendPacket(wire::SettingPacketType type, wire::Bytes payload);

    SettingTransport transport_;
    std::unique_ptr<SessionClient> client_;
    std::unique_ptr<KeepAlive> keepAlive_; // of a session
};

struct BoardSettings {
    std::vector<std::byte> file;  // the settings file as the board has it
    std::uint32_t brightness = 0; // percent
};
// nullopt if the board has no settings file. Ends the service.
std::optional<BoardSettings> ReadSettings(SettingClient *client);

} // namespace ledboard
