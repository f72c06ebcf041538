// SPDX-License-Identifier: MIT
// src/modem/modem_steps.h: the AT commands that the modem thread sends, in their order, and what it does with
// each answer. Pure.
#pragma once

#include "modem/at_answers.h"
#include "modem/modem_facts.h"

#include <chrono>
#include <span>

struct ModemStep {
    AtCommand command;
    void (ModemFacts::*take)(const AtAnswer &answer);    // gets an answer that is ok
    void (ModemFacts::*refused)(const AtAnswer &answer); // gets a failure
};

std::span<const ModemStep> StartUpSteps();     // on a line that was opened, or after the modem fell silent
std::span<const ModemStep> SimSteps();         // in every round
std::span<const ModemStep> PreparationSteps(); // once the SIM is ready: settings that need it
std::span<const ModemStep> RoundSteps();       // in every round while the SIM is ready

constexpr std::chrono::seconds kSimLimit{10}; // for a command that the SIM has to carry out

// Asks for nothing: a modem answers it in any state.
constexpr AtCommand kSynchronise{"AT"};
// All messages (3GPP TS 27.005, 3.4.2). Also those read before: a power cut may have come before they were
// stored.
constexpr AtCommand kListSms{"AT+CMGL=\"ALL\"", kSimLimit, AtKind::kListing, "+CMGL:"};
// Deletes the message whose index follows (3GPP TS 27.005, 3.5.4).
constexpr char kDeleteSms[] = "AT+CMGD=";
