// SPDX-License-Identifier: MIT
#include "modem/modem_steps.h"

namespace
{

// The sections in this file are those of 3GPP TS 27.007 unless another document is named.

using enum AtKind;
using Facts = ModemFacts;

constexpr std::chrono::seconds kLimit{3};

// Asked again in every round, since the SIM can be taken out: 8.3.
constexpr ModemStep kSim[] = {
    {{"AT+CPIN?", kSimLimit, kPrefixed, "+CPIN:"}, &Facts::TakeSim, &Facts::RefuseSim},
};

constexpr ModemStep kStartUp[] = {
    {{"ATE0"}, &Facts::TakeNothing, &Facts::KeepFailure},      // no echo: ITU-T V.250, 6.2.4
    {{"AT+CMEE=2"}, &Facts::TakeNothing, &Facts::KeepFailure}, // failures in words: 9.1
    kSim[0],
    {{"AT+CGMI", kLimit, kBare}, &Facts::TakeManufacturer, &Facts::KeepFailure}, // 5.1
    {{"AT+CGMM", kLimit, kBare}, &Facts::TakeModel, &Facts::KeepFailure},        // 5.2
    {{"AT+CGSN", kLimit, kBare}, &Facts::TakeImei, &Facts::KeepFailure},         // 5.4
};

// The daemon also works without these settings, so that a refusal does not matter; without CMGF it would get
// messages in a form that it does not read.
constexpr ModemStep kPreparation[] = {
    // Lines about the registration carry the technology, and come unsolicited too: 7.2.
    {{"AT+CREG=2"}, &Facts::TakeNothing, &Facts::IgnoreFailure},
    {{"AT+CGREG=2"}, &Facts::TakeNothing, &Facts::IgnoreFailure}, // the same of the packet service: 10.1.20
    // The operator by name: 7.3.
    {{"AT+COPS=3,0"}, &Facts::TakeNothing, &Facts::IgnoreFailure},
    // New messages go to the SIM, which is what CMGL lists: 27.005, 3.2.2.
    {{"AT+CPMS=\"SM\",\"SM\",\"SM\"", kSimLimit}, &Facts::TakeNothing, &Facts::IgnoreFailure},
    // Messages as text: 27.005, 3.2.3.
    {{"AT+CMGF=1", kSimLimit}, &Facts::TakeNothing, &Facts::KeepFailure},
    // The header of a message says how long its text is: 27.005, 3.3.3.
    {{"AT+CSDH=1"}, &Facts::TakeNothing, &Facts::IgnoreFailure},
    // An unsolicited line for each new message: 27.005, 3.4.1.
    {{"AT+CNMI=2,1"}, &Facts::TakeNothing, &Facts::IgnoreFailure},
    // The character set: 5.5. UCS2 is preferred; a modem that refuses it stays with its own alphabet.
    {{"AT+CSCS=\"GSM\""}, &Facts::TakeGsm, &Facts::IgnoreFailure},
    {{"AT+CSCS=\"UCS2\""}, &Facts::TakeUcs2, &Facts::IgnoreFailure},
};

constexpr ModemStep kRound[] = {
    {{"AT+CREG?", kLimit, kPrefixed, "+CREG:"}, &Facts::TakeCircuitRegistration, &Facts::KeepFailure}, // 7.2
    // 10.1.20
    {{"AT+CGREG?", kLimit, kPrefixed, "+CGREG:"},
     &Facts::TakePacketRegistration,
     &Facts::RefusePacketRegistration},
    {{"AT+COPS?", kLimit, kPrefixed, "+COPS:"}, &Facts::TakeOperator, &Facts::RefuseOperator}, // 7.3
    {{"AT+CSQ", kLimit, kPrefixed, "+CSQ:"}, &Facts::TakeSignal, &Facts::KeepFailure},         // 8.5
    {{"AT+CGATT?", kLimit, kPrefixed, "+CGATT:"}, &Facts::TakeAttached, &Facts::KeepFailure},  // 10.1.9
};

} // namespace

std::span<const ModemStep> StartUpSteps()
{
    return kStartUp;
}

std::span<const ModemStep> SimSteps()
{
    return kSim;
}

std::span<const ModemStep> PreparationSteps()
{
    return kPreparation;
}

std::span<const ModemStep> RoundSteps()
{
    return kRound;
}
