// SPDX-License-Identifier: MIT
// src/player/server_witch_plexa.h: messages to and from the player (docs/protocols.md, "Player").
#pragma once

#include "records/player_records.h"

#include <cstdint>

class SessionService;
struct SocketSession;

// Senders: any thread; no lock is needed. Without a player nothing is sent and nothing logged.
void SendMessageToPlexa(const void *buf, unsigned len);
void SendCodeToPlexa(wire::PlayerCode code);
void SendCodeToPlexa(wire::PlayerCode code, std::uint32_t value);
void SmartSettingFlag(bool on);
void NetworkError();
void PaintSlantLine(bool on);

// What the player may ask for that has to do with the screen settings (codes 4, 5, 6 and 11), and the reboot
// (13), which must not overtake them. The settings room implements it and start-up registers it. Main thread;
// the implementation returns at once and carries the requests out in order on another thread.
class PlayerRequests
{
public:
    virtual void ChangeScreenSize(std::uint32_t value) = 0; // width in the low, height in the high 16 bits
    virtual void ChangeBrightness(std::uint32_t value) = 0; // percent
    virtual void UpdateSettingFile() = 0;              // the player's settings file may have something new
    virtual void ScreenOnOff(std::uint32_t value) = 0; // 0 on, anything else off
    virtual void RebootBoard() = 0;                    // as Reboot

protected:
    ~PlayerRequests() = default;
};
void RegisterPlayerRequests(PlayerRequests *requests); // before the work loop starts; it lives for ever

// The player's end of the session layer: every packet goes to DisposePlexaMessage.
SessionService *PlayerService();

// Handles the message at the start of the player session's buffer. 1 always, 0 when the session has no
// buffer. Main thread.
int DisposePlexaMessage(SocketSession *session);

// Writes out what is pending and reboots the board. Blocks until the command has returned; any thread.
void Reboot();
