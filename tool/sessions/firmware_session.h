// SPDX-License-Identifier: MIT
// tool/sessions/firmware_session.h: the client's side of the firmware service (docs/protocols.md,
// "Firmware"). One thread at a time; every call throws VerbError.
#pragma once

#include "records/firmware_records.h"
#include "sessions/keep_alive.h"
#include "sessions/session_client.h"

#include <functional>
#include <string>

namespace ledboard
{

struct FirmwareVersions {
    std::int32_t player;
    std::int32_t fpga;
};

struct UpgradeState {
    bool succeeded;
    FirmwareVersions versions;
};

class FirmwareSession
{
public:
    FirmwareSession(const Board &board, const std::string &interfaceName, std::chrono::milliseconds patience);

    FirmwareVersions AskVersions();
    UpgradeState AskState(); // the board forgets a failure that it has told

    // `advance` is called with the number of bytes that have gone out.
    void SendArchive(const std::string &archive, const std::function<void(std::uint64_t)> &advance);

    // Has the archive installed. True when the board has ended the session to do so; false when it says that
    // it cannot, for which it has `patience`: it answers nothing while it unpacks.
    bool Install(std::chrono::milliseconds patience);

private:
    void Send(wire::FirmwareKind kind, wire::Bytes tail);
    template <wire::Record Request> void SendRequest(wire::FirmwareCode code, Request request);
    template <wire::Record Reply> Reply Receive();

    SessionClient client_;
    KeepAlive keepAlive_;
};

} // namespace ledboard
