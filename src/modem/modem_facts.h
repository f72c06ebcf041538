// SPDX-License-Identifier: MIT
// src/modem/modem_facts.h: what the modem's answers say about it: its identity, its SIM, its network. Writes
// the state that sessions read, and logs when it changes. Modem thread.
#pragma once

#include "modem/at_answers.h"
#include "modem/modem_state.h"
#include "modem/sms_text.h"
#include "records/modem_records.h"

#include <string>

class ModemFacts
{
public:
    explicit ModemFacts(ModemState &state) : state_(state) {} // `state` must outlive it

    // Each takes the answer to one command of modem_steps.h. An answer without the line that it should have
    // changes nothing.
    void TakeSim(const AtAnswer &answer);
    void TakeManufacturer(const AtAnswer &answer);
    void TakeModel(const AtAnswer &answer);
    void TakeImei(const AtAnswer &answer);
    void TakeCircuitRegistration(const AtAnswer &answer);
    void TakePacketRegistration(const AtAnswer &answer);
    void TakeOperator(const AtAnswer &answer);
    void TakeSignal(const AtAnswer &answer);
    void TakeAttached(const AtAnswer &answer);
    void TakeGsm(const AtAnswer &answer);
    void TakeUcs2(const AtAnswer &answer);
    void TakeNothing(const AtAnswer &) {}

    // The same for answers that are failures.
    void RefuseSim(const AtAnswer &answer);
    void RefusePacketRegistration(const AtAnswer &answer);
    void RefuseOperator(const AtAnswer &answer);
    void KeepFailure(const AtAnswer &answer) { SetLastError(answer.failure); }
    void IgnoreFailure(const AtAnswer &) {}

    bool SimReady() const { return sim_ == Sim::kReady; }
    bool Registered() const;                          // the SIM is ready and a network has registered it
    ModemCharset Charset() const { return charset_; } // of the messages

    // Whether the modem has the settings of PreparationSteps(). Another SIM needs them again.
    bool Prepared() const { return prepared_; }
    void BeginPreparation(); // the modem counts as prepared from now on
    void LosePreparation() { prepared_ = false; }

    void SetLastError(const std::string &words); // does nothing for an empty text
    // Sets the state and logs `words`, unless they were logged last.
    void SetState(wire::ModemState state, const std::string &words);
    void ShowSimAndNetwork();            // SetState from what the answers have said
    void Forget(const std::string &why); // the modem is gone: only the last error stays

private:
    enum class Sim { kUnknown, kReady, kLocked, kMissing };

    const AtRegistration &Registration() const;
    void TakeRegistration(const AtAnswer &answer, AtRegistration *registration);
    void ShowRegistration();
    void SetSim(Sim sim, const std::string &words);
    void ShowSim(); // one that is not ready

    ModemState &state_;
    Sim sim_ = Sim::kUnknown;
    std::string simWords_;   // why the SIM is not ready
    AtRegistration circuit_; // with the network's circuit-switched part: telephone, messages
    AtRegistration packet_;  // with its packet-switched part: data
    bool prepared_ = false;
    ModemCharset charset_ = ModemCharset::kRaw;
    std::string logged_; // the words of the last state
};
