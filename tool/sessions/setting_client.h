// SPDX-License-Identifier: MIT
// tool/sessions/setting_client.h: one client of a board's setting service, through its own port or a session
// of the main port; the packets are the same.
#pragma once

#include "records/setting_records.h"
#include "sessions/keep_alive.h"
#include "sessions/session_client.h"

#include <memory>
#include <string>
#include <vector>

namespace ledboard
{

enum class SettingDoor { kPort, kSession };

constexpr std::size_t kMaxSettingData = 254;  // bytes of a file in one data packet
constexpr std::size_t kMaxTransferData = 249; // bytes of a file in one packet of a file transfer

// One thread at a time. Every call throws VerbError as SessionClient does.
class SettingClient
{
public:
    // Waits up to 3 s for a board that serves another client; then kRefused.
    SettingClient(const Board &board, const std::string &interfaceName, std::chrono::milliseconds patience,
                  SettingDoor door);

    void Command(wire::SettingCode code, wire::Bytes argument = {});
    void CommandAcknowledged(wire::SettingCode code, wire::Bytes argument = {});
    void Frame(std::uint8_t command, std::uint32_t value); // straight to the FPGA
    void Data(wire::Bytes data);                           // of the settings file under way

    template <wire::Record T> T Receive()
    {
        std::byte bytes[sizeof(T)];
        client_->ReceiveExactly(bytes);
        return *wire::Read<T>(bytes);
    }

    std::int64_t BoardClock(); // of the board, ms since the epoch; all that was sent before has been handled
    std::vector<std::byte> End();                            // ends the service; what the board still sent
    void SendFile(wire::SettingCode code, wire::Bytes file); // a file transfer; kFailed: not stored

private:
    void ConnectToPort(const Endpoint &port, const std::string &interfaceName,
                       std::chrono::milliseconds patience);
    bool TransferFile(wire::SettingCode code,
                      wire::Bytes file); // false: the board says that it is not stored
    void SendPacket(wire::SettingPacketType type, wire::Bytes payload);

    SettingDoor door_;
    std::unique_ptr<SessionClient> client_;
    std::unique_ptr<KeepAlive> keepAlive_; // of a session
};

// The settings file as the board has it (nothing when it has none), and the brightness that it reports. Ends
// the client.
struct BoardSettings {
    std::vector<std::byte> file;
    std::uint32_t brightness = 0; // percent
};
std::optional<BoardSettings> ReadSettings(SettingClient *client);

} // namespace ledboard
