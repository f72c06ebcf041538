// SPDX-License-Identifier: MIT
// src/settings/serial_thread.h: the setting service: clients on port 8879 and in sessions, the parameters of
// the screen, and the serial line to the FPGA (docs/protocols.md, "Settings" and "FPGA").
//
// KSerialThread is the face of the parts that do the work: the port, the commands, what these work on, and
// the slant lines. It takes the service's lock (setting_lock.h); callers must not hold it, and nothing is
// sent to a peer while it is held. Its thread serves port 8879.
#pragma once

#include "sessions/session_service.h"
#include "settings/setting_commands.h"
#include "settings/setting_port.h"
#include "settings/slant_pattern.h"

#include <QThread>

#include <string>

class KSerialThread : public QThread, public SessionService, private SettingPort::Service
{
public:
    void set_serial_name(const char *name); // of the serial device, before Init

    // Opens the serial line, loads the caches, sends the settings to the FPGA and listens on port 8879. False
    // if the line cannot be opened or configured (logged); a port that is not free is tried again later.
    bool Init();

    // Starts the threads that serve port 8879 and act on signals. Once, after all services are published and
    // the device record is filled.
    void Serve();

    // For the session layer; main thread.
    int LogIn() override;                                    // 0
    int LogOut() override;                                   // 0
    void SessionEnds(const SocketSession *session) override; // closes the file that it was sending
    // Non-zero: handled; 0: refused, or the client's last packet. A session that does not take its answer in
    // time gets connectFlag 0.
    int DisposePacket(SocketSession *session) override;

    // The FPGA and the settings files; any thread.
    int WriteSettingToSerial();                    // 1 sent, 0 no valid working copy
    void WriteSerial(unsigned id, unsigned value); // to the FPGA and the files; 254: brightness in percent
    void RTSaveSerialPara(unsigned id, unsigned value); // to the files only
    int WriteFPGAState(unsigned code, unsigned value);  // 7 sent, anything else not sent
    void WriteCloseSmartSetting();                      // the frame that ends the smart setting
    void TakePlayerCopy();          // the player's copy becomes the working copy, the boot copy follows
    unsigned GetScreenSize();       // record 3 of the working copy; 0 without one
    unsigned GetLuminance();        // reloads the caches; the maximum luminance, 1 without a working copy
    unsigned ComputeMaxLuminance(); // 1 to 1000; 0 if parameters are missing or not even 1 is possible

    // The slant lines on "/dev/fb0" (docs/protocols.md, "Slant lines"); any thread.
    void PaintSlantInit();    // prepares them with phase 0; if that fails (logged) nothing is drawn
    void PaintSlantTimeOut(); // draws the next phase while they are on
    void PaintSlantFinish();  // darkens the panel and releases it
    bool PaintSlantToggle();  // on: prepares them; off: finishes. Returns whether they are on now
    bool HasClient() const { return port_.HasClient(); } // on port 8879

    // Whether a panel with first-plane width m (second form: t times m) refreshes at least 100 times a
    // second; luminance.h explains the letters. Any thread.
    bool ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m, unsigned g,
                        unsigned k, unsigned f) const;
    bool ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m) const;

protected:
    void run() override;

private:
    // For port 8879, whose client counts as the service itself; service thread.
    void ClientCame() override;
    void ClientSilent() override;
    void ClientVanished() override;
    void ClientLeft() override;
    int DisposePacket(int fd, wire::Bytes packet) override;

    bool StartLine(); // opens it, loads the caches and sends the settings
    int Handle(SettingClient client, wire::Bytes packet, SettingAnswer *answer);
    void AbandonTransfers(SettingClient client);
    void ProbeUnlessDebugging();

    // Every use needs the lock.
    SettingParts parts_;
    SlantPattern slant_;

    std::string serialName_;
    SettingPort port_{this};
};

void timeout(); // PaintSlantTimeOut of g_serial
