// SPDX-License-Identifier: MIT
// src/settings/setting_port.h: port 8879, on which the setting service serves one client at a time.
//
// While a client is served the listening socket is closed, so that others are refused. A port belongs to one
// thread, which calls Run; before that thread starts, another one may call SocketInit.
#pragma once

#include "common/unique_fd.h"
#include "records/setting_records.h"

#include <array>
#include <atomic>

class SettingPort
{
public:
    // What the port asks of the service, on the port's thread and without the service's lock.
    class Service
    {
    public:
        virtual void ClientCame() = 0; // nobody else can connect from now on

        // The client sent nothing for a second. Called again after each further second.
        virtual void ClientSilent() = 0;

        // The client closed the connection, or broke off after the second byte of a packet. ClientLeft
        // follows.
        virtual void ClientVanished() = 0;

        virtual void ClientLeft() = 0; // the connection has ended in whatever way; its socket is closed

        // Handles one packet and answers it on `fd`. Non-zero to go on, 0 to end the connection.
        virtual int DisposePacket(int fd, wire::Bytes packet) = 0;

    protected:
        ~Service() = default;
    };

    explicit SettingPort(Service *service) : service_(service) {} // which outlives the port

    bool SocketInit();                               // makes the port listen; false if it cannot (logged)
    [[noreturn]] void Run();                         // serves clients; tries again while the port is not free
    bool HasClient() const { return clientServed_; } // any thread

private:
    void Accept(); // ends when the port cannot listen again
    void CloseListener();
    void WorkThread(int fd);  // serves a client to its end
    bool WaitForData(int fd); // false if nothing came for a second
    int Read(int fd);         // the packet's length byte, 0 when that is 0, -1 the client is gone
    int ReadBody(int fd, std::size_t length); // as Read

    Service *service_;
    ledboard::UniqueFd listenFd; // closed while a client is served
    std::array<std::byte, wire::kMaxPacketBytes> received_{};
    std::atomic<bool> clientServed_ = false;
};
