// SPDX-License-Identifier: MIT
// virtual_board/devices/modem.h: the 3G modem on "/dev/ttyUSB3". It answers AT commands as a real one does:
// after a delay, in pieces, with blank lines, echo and unsolicited lines in between. After power-up it says
// nothing at first, then that its SIM is busy, then it searches for a network.
#pragma once

#include "devices/pseudo_terminal.h"
#include "machine/board_root.h"
#include "machine/power.h"
#include "machine/watcher.h"

#include <cstdint>
#include <string>
#include <vector>

namespace board
{

enum class ModemSim { kReady, kNone, kPin };
// kDataOnly: as with a SIM for data only, its home network has it for the packet service alone.
enum class ModemNetwork { kSearching, kHome, kRoaming, kDenied, kDataOnly };

struct ModemView {
    bool in = false;
    bool hangs = false;
    ModemSim sim = ModemSim::kReady;
    ModemNetwork network = ModemNetwork::kHome; // what it finds some time after power-up
    unsigned signal = 17;                       // as "AT+CSQ" gives it; 99: not known
    std::size_t sms = 0;                        // in its store
};

class Modem
{
public:
    // `folder`: where its own devpts is mounted.
    Modem(Watcher &watcher, PowerMutex &power, BoardRoot &root, const std::string &folder, bool plugged);
    ~Modem() { Switch(false); }

    // true: "/dev/ttyUSB3" is there from now on, at every boot too. A modem that is plugged in again has
    // forgotten its settings, not its messages.
    void Plug(bool in);
    void PowerOn(const PowerLock &); // after every MountVolatile: it starts anew
    termios Attributes() const { return line_.Attributes(); }
    const std::string &SlavePath() const
    {
        return line_.SlavePath();
    } // the line that "/dev/ttyUSB3" leads to

    void SetSim(ModemSim sim);
    void SetNetwork(ModemNetwork network); // tells of it unasked, where that was wanted
    void RefuseOperator(bool refuses);     // true: the question for the operator ends in an error
    void SetSignal(unsigned steps);
    void Hang(bool hangs);                   // true: says nothing; what it is told meanwhile it answers later
    void Ignore(const std::string &command); // has no answer to this one
    void KnowUcs2(bool knows); // false: it refuses the character set UCS2 and gives texts as they are
    void Deliver(const std::string &sender, const std::string &text); // UTF-8
    void Say(const std::string &bytes);                               // unasked, as they are

    ModemView View() const;
    std::vector<std::string> Commands() const; // what it was told, since power-up or the last Forget
    void Forget();

private:
    struct Message {
        int index;
        bool read;
        std::string sender, text, time;
    };

    void Switch(bool on);
    void Restart(bool on);
    void Tick();
    void Receive();
    void TakeInput();
    void TakeCommand(const std::string &command);
    std::string Answer(const std::string &command);
    bool TakeSetting(const std::string &command);
    std::string AboutSim();
    std::string AboutNetwork(bool packet) const;
    std::string ListMessages();
    std::string Encode(const std::string &text) const;
    std::string Failure(int code, const std::string &words) const;
    ModemNetwork Found() const;
    bool PoweredFor(Milliseconds time) const;
    void Announce();
    void Put(const std::string &bytes);

    Watcher &watcher_;
    PowerMutex &power_;
    BoardRoot &root_;
    bool plugged_; // guarded by the power lock
    PseudoTerminal line_;
    // Guarded by the watcher's Lock:
    ModemView view_;
    std::vector<Message> store_;
    std::vector<std::string> commands_;
    std::string input_;
    std::string output_;
    std::size_t pieces_ = 0; // sent so far
    std::chrono::steady_clock::time_point powered_{};
    std::chrono::steady_clock::time_point sayAfter_{};
    std::string ignored_;
    bool knowsUcs2_ = true;
    bool refusesOperator_ = false;
    bool listsSim_ = false; // else its own memory, where nothing comes in
    bool echo_ = true, headers_ = false, ucs2_ = false, announces_ = false, announced_ = false;
    int errors_ = 0;
};

} // namespace board
