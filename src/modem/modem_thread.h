// SPDX-License-Identifier: MIT
// src/modem/modem_thread.h: the thread that drives the modem: finds it, brings it into order, looks every 10
// s how it is, reads its messages, keeps its data link.
#pragma once

#include "modem/at_channel.h"
#include "modem/modem_link.h"
#include "modem/modem_state.h"
#include "modem/sms_store.h"

#include <span>
#include <thread>

class ModemThread
{
public:
    explicit ModemThread(ModemState &state);
    ~ModemThread(); // as Stop

    void Start(); // once; a failure is logged, and there is no modem then
    void Stop();  // returns when the thread has ended

private:
    using Take = void (ModemThread::*)(const AtAnswer &answer);
    struct Step {
        AtCommand command;
        Take take;                                           // with an answer that is ok
        void (ModemThread::*refuse)(const AtAnswer &answer); // nullptr: the failure is kept, nothing else
    };
    enum class Sim { kUnknown, kReady, kLocked, kMissing };

    void Run();
    AtResult Serve();       // until the line is gone or has to be opened anew
    AtResult Synchronise(); // until it answers and the line is quiet
    AtResult StartUp();     // synchronises, sets up, asks who it is
    AtResult Prepare();     // what needs a SIM
    AtResult Look();        // one round of the 10 s
    AtResult Wait();        // until the next round
    AtResult ReadSms();
    AtResult RunSteps(std::span<const Step> steps);
    // After a command without an answer: kTimeout when the modem does not answer at all.
    AtResult PassOver(AtResult result, const AtAnswer &answer);

    void TakeSim(const AtAnswer &answer);
    void RefuseSim(const AtAnswer &answer);
    void TakeManufacturer(const AtAnswer &answer);
    void TakeModel(const AtAnswer &answer);
    void TakeImei(const AtAnswer &answer);
    void TakeRegistration(const AtAnswer &answer);
    void TakeOperator(const AtAnswer &answer);
    void TakeSignal(const AtAnswer &answer);
    void TakeAttached(const AtAnswer &answer);
    void TakeUcs2(const AtAnswer &answer);
    void TakeGsm(const AtAnswer &answer);
    void TakeNothing(const AtAnswer &) {}
    void TakeUnsolicited(const std::string &line);
    void SetRegistration(const std::string &line);

    void StepLink();
    void SetSim(Sim sim, const std::string &words);
    void ShowState(); // what the SIM and the registration amount to
    void SetState(wire::ModemState state, const std::string &words); // a line in the log when it changes
    void Forget(const std::string &why);                             // what was known of a modem that is gone
    void OpenAgain();
    void KeepFailure(const std::string &words);

    static const Step kStartUp[];
    static const Step kPreparation[];
    static const Step kLook[];

    ModemState &state_;
    ModemPort port_;
    AtChannel channel_;
    ModemLink link_;
    SmsStore store_;
    Sim sim_ = Sim::kUnknown;
    std::string simWords_; // what a SIM that is not ready says
    bool prepared_ = false;
    bool lookSoon_ = false; // something unsolicited has come
    ModemCharset charset_ = ModemCharset::kRaw;
    bool silent_ = false; // it has been said that the line is opened again
    std::string shown_;   // the state's line in the log
    std::thread thread_;
};
