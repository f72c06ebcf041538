// SPDX-License-Identifier: MIT
// src/settings/serial_thread.h: the setting service and its serial line to the FPGA (docs/protocols.md,
// "Settings" and "FPGA").
//
// One lock guards the packet, the files under way, the caches, the settings files, the serial line and the
// slant lines, so that the service thread (port 8879), the main thread (sessions, player, reboot schedule)
// and the thread that acts on signals never mix. The public functions take it themselves; nothing is sent to
// a peer under it.
#pragma once

#include "base/files.h"
#include "base/serial.h"
#include "records/setting_records.h"
#include "sessions/session_service.h"
#include "settings/setting_port.h"
#include "settings/slant_pattern.h"

#include <QThread>

#include <array>
#include <string>

struct SettingAnswer;
struct SocketSession;

class KSerialThread : public QThread, public SessionService, private SettingPort::Service
{
public:
    KSerialThread();

    void set_serial_name(const char *name);
    // Opens and configures the serial line, loads the caches, sends the settings to the FPGA, listens on port
    // 8879. False when there is no serial line (logged); a port that is not free is tried again later.
    bool Init();
    // Begins to serve port 8879 and to act on signals. Once, when the services are published and the device
    // record is filled.
    void Serve();

    // For the session layer; main thread.
    int LogIn() override;                                    // 0
    int LogOut() override;                                   // 0
    void SessionEnds(const SocketSession *session) override; // before its LogOut: what it was sending is
                                                             // closed
    int DisposePacket(SocketSession *session) override; // non-zero done, 0 refused or the client's last; not
                                                        // used

    // The FPGA and the settings files; any thread.
    int WriteSettingToSerial();                         // 1 all records sent, 0 stopped early (logged)
    void WriteSerial(unsigned id, unsigned value);      // to FPGA and files; 254: brightness in percent
    void RTSaveSerialPara(unsigned id, unsigned value); // to the files only
    int WriteFPGAState(unsigned code, unsigned value);  // 7 sent, anything else not (logged)
    void WriteCloseSmartSetting();
    void TakePlayerCopy();          // the player's copy becomes the working copy, the boot copy follows
    unsigned GetScreenSize();       // record 3 of the working copy, 0 without one
    unsigned GetLuminance();        // reads the caches afresh; the highest luminance, 1 without a file
    unsigned ComputeMaxLuminance(); // 1 to 1000; 0 when the working copy does not say or nothing passes

    // The slant lines on "/dev/fb0" (docs/protocols.md, "Slant lines"); any thread.
    void PaintSlantInit();    // sets them up with phase 0; logged when that fails, they stay off then
    void PaintSlantTimeOut(); // draws the next phase while they are on
    void PaintSlantFinish();  // the panel is dark
    bool PaintSlantToggle();  // sets them up and on, or off and finishes; whether they are on now
    bool HasClient() const { return port_.HasClient(); } // on port 8879

    // Whether first-plane width m (of the second: t times m) reaches 100 Hz; luminance.h names the letters.
    bool ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m, unsigned g,
                        unsigned k, unsigned f) const;
    bool ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m) const;

protected:
    void run() override;

private:
    using Client = const void *; // only compared: a session, or the service itself for port 8879
    class Commands;              // one command, in serial_thread_commands.h

    // A file that a client sends chunk by chunk.
    struct Transfer {
        FilePointer file;
        Client client = nullptr; // who began it
        bool failed = false;     // nothing more is stored until its end, which says so
    };

    // Port 8879; service thread.
    void ClientCame() override;
    void ClientSilent() override;
    void ClientVanished() override;
    void ClientLeft() override;
    int DisposePacket(int fd, wire::Bytes packet) override;

    int Handle(Client client, wire::Bytes bytes, SettingAnswer *answer); // as DisposePacket(int)
    void CloseTransfers(Client client);
    void ProbeUnlessDebugging();
    static void ProbePlayer(); // the answer is not used

    // With the lock held; results as DisposePacket(int) where nothing else is said.
    int HandleCommand(Client client, SettingAnswer *answer);
    int HandleFrame();
    int HandleData();
    int SendBytesToFpga(wire::Bytes bytes);                    // 7 sent, anything else not (logged)
    int SendFrame(std::uint32_t command, std::uint32_t value); // likewise
    int SendLoggedFrame(std::uint32_t command, std::uint32_t value, const char *label, const char *format);
    int SendSettings(); // as WriteSettingToSerial
    void SendCloseSmartSetting();
    void SetBrightness(std::uint8_t percent);
    void SendBrightness();
    void SaveParameter(std::uint32_t id, std::uint32_t value);
    void ScreenSizeChanged();
    void LoadCaches();
    void CopyFromPlayer();
    bool CloseStaging(); // false when what was sent could not be stored (logged, the file is removed)

    KSerial *serial;
    std::string serialName_;
    bool lineWasLost_ = false;

    std::array<std::byte, wire::kSettingPacketSize> packet{};
    FilePointer stagingFile;
    Transfer luminanceFile;
    Transfer bootScreenFile;
    bool rtsFlag = false;
    bool debugFlag = false;
    unsigned maxLuminance = 1;
    unsigned luminance = 1;
    unsigned brightnessPercent = 100;
    SlantPattern slant_;
    SettingPort port_{this};
};

// PaintSlantTimeOut of the one service.
void timeout();
