// SPDX-License-Identifier: MIT
// src/modem/modem_thread.h: the thread that drives the modem: finds it, prepares it, asks every 10 s how it
// is, stores its messages and keeps up its data link.
#pragma once

#include "modem/at_channel.h"
#include "modem/modem_facts.h"
#include "modem/modem_link.h"
#include "modem/modem_state.h"
#include "modem/modem_steps.h"
#include "modem/sms_store.h"

#include <span>
#include <string>
#include <thread>

class ModemThread
{
public:
    explicit ModemThread(ModemState &state); // `state` must outlive it
    ~ModemThread();                          // as Stop

    // Call it once. If no thread can be started (logged), the modem stays in the state "absent".
    void Start();
    void Stop(); // returns when the thread has ended; may be called again

private:
    // All below: modem thread. A result that is no answer ends what is under way.
    void Run();
    AtResult Serve();       // until the line is gone (kGone) or has to be opened again (kTimeout)
    AtResult StartUp();     // first thing on an open line
    AtResult Synchronise(); // until the modem answers and the line is quiet
    AtResult Round();       // all that is done every 10 s
    AtResult Prepare();     // the settings that need a SIM
    AtResult StoreSms();    // moves the messages from the modem to the disk
    AtResult DeleteSms(int index, AtAnswer *answer);
    AtResult Wait(); // until the next round
    AtResult RunSteps(std::span<const ModemStep> steps);
    // Deals with a command that got no answer, so that the next one can be sent. kTimeout: the modem does not
    // answer at all.
    AtResult Recover(AtResult result, const AtAnswer &answer);

    void TakeUnsolicited(const std::string &line);
    void StepLink();
    void Forget(const std::string &why); // the modem is gone
    void LogReopening();

    ModemPort port_;
    AtChannel channel_;
    ModemFacts facts_;
    ModemState &state_;
    ModemLink link_;
    SmsStore store_;
    bool roundDue_ = false;     // an unsolicited line says that something has changed
    bool reopenLogged_ = false; // until the modem answers
    std::thread thread_;
};
