// SPDX-License-Identifier: MIT
// src/player/server_witch_plexa.h: messages to and from the player (docs/protocols.md, "Player").
#pragma once

struct SocketSession;

// Senders: any thread, and no service lock need be held. Without a player nothing is sent and nothing logged.
void SendMessageToPlexa(const void *buf, unsigned len);
void SmartSettingFlag(bool on);
void NetworkError();
void PaintSlantLine(bool on);

// Handles the message at the start of the player session's buffer. 1 always, 0 when the session has no
// buffer. Main thread.
int DisposePlexaMessage(SocketSession *session);

// Writes out what is pending and reboots the board. Blocks until the command has returned; any thread.
void Reboot();
