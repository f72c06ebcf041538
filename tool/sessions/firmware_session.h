// SPDX-License-Identifier: MIT
// tool/sessions/firmware_session.h: a client of a board's firmware service (docs/protocols.md, "Firmware").
// One thread at a time; every call throws VerbError.
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
    UpgradeState AskState(); // the board forgets a failure once it has reported it

    // `advance` is called with the number of bytes that have gone out.
    void SendArchive(const std::string &archive, const std::function<void(std::uint64_t)> &advance);

    // Starts the installation. True if the board ended the session to install, false if it reports that it
    // cannot unpack the archive. It does not answer while it unpacks; `patience` is the limit for that.
    bool Install(std::chrono::milliseconds patience);

private:
    void Send(wire::FirmwareKind kind, wire::Bytes tail);
    template <wire::Record Request> void SendRequest(wire::FirmwareCode code, Request request);
    template <wire::Record Reply> Reply Receive();

    SessionClient client_;
    KeepAlive keepAlive_;
};

} // namespace ledboard
