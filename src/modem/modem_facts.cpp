// SPDX-License-Identifier: MIT
#include "modem/modem_facts.h"

#include "base/diag.h"
#include "base/paths.h"

#include <utility>

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";

bool IsRegistered(const AtRegistration &registration)
{
    return registration.status == wire::kRegisteredHome || registration.status == wire::kRegisteredRoaming;
}

} // namespace

void ModemFacts::TakeSim(const AtAnswer &answer)
{
    const std::string words = answer.lines.empty() ? "" : AtFields(answer.lines.back()).front().text;
    if (words == "READY")
        SetSim(Sim::kReady, "");
    else
        SetSim(Sim::kLocked, words);
}

void ModemFacts::RefuseSim(const AtAnswer &answer)
{
    SetLastError(answer.failure);
    SetSim(answer.meaning == AtMeaning::kSimLocked ? Sim::kLocked : Sim::kMissing, answer.failure);
}

void ModemFacts::SetSim(Sim sim, const std::string &words)
{
    simWords_ = words;
    if (sim_ == sim)
        return;
    sim_ = sim;
    prepared_ = false;
    // The network was the other SIM's.
    circuit_ = {};
    packet_ = {};
    state_.Set([](ModemStatus &status) {
        status.registration = wire::kNotRegistered;
        status.technology = wire::kTechnologyUnknown;
        status.operatorName.clear();
        status.attached = false;
    });
}

void ModemFacts::TakeManufacturer(const AtAnswer &answer)
{
    state_.Set([&](ModemStatus &status) {
        if (!answer.lines.empty())
            status.manufacturer = ValidUtf8(answer.lines.front());
    });
}

void ModemFacts::TakeModel(const AtAnswer &answer)
{
    state_.Set([&](ModemStatus &status) {
        if (!answer.lines.empty())
            status.model = ValidUtf8(answer.lines.front());
    });
}

void ModemFacts::TakeImei(const AtAnswer &answer)
{
    state_.Set([&](ModemStatus &status) {
        if (!answer.lines.empty())
            status.imei = ParseImei(answer.lines.front());
    });
}

// A SIM for data only is registered with the packet-switched part alone.
const AtRegistration &ModemFacts::Registration() const
{
    return !IsRegistered(circuit_) && IsRegistered(packet_) ? packet_ : circuit_;
}

void ModemFacts::ShowRegistration()
{
    const AtRegistration &registration = Registration();
    state_.Set([&](ModemStatus &status) {
        status.registration = registration.status;
        if (registration.technology)
            status.technology = *registration.technology;
    });
}

void ModemFacts::TakeRegistration(const AtAnswer &answer, AtRegistration *registration)
{
    // An unsolicited line with the same prefix may stand among them; the last one is the newest.
    for (const std::string &line : answer.lines)
        *registration = ParseRegistration(line).value_or(*registration);
    ShowRegistration();
}

void ModemFacts::TakeCircuitRegistration(const AtAnswer &answer)
{
    TakeRegistration(answer, &circuit_);
}

void ModemFacts::TakePacketRegistration(const AtAnswer &answer)
{
    TakeRegistration(answer, &packet_);
}

// No failure of the modem: one for GSM without data does not know the command.
void ModemFacts::RefusePacketRegistration(const AtAnswer &)
{
    packet_ = {};
    ShowRegistration();
}

void ModemFacts::TakeOperator(const AtAnswer &answer)
{
    if (answer.lines.empty())
        return;
    const AtOperator found = ParseOperator(answer.lines.back());
    state_.Set([&](ModemStatus &status) {
        status.operatorName = found.name;
        if (found.technology)
            status.technology = *found.technology;
        else if (found.name.empty())
            status.technology = wire::kTechnologyUnknown;
    });
}

void ModemFacts::RefuseOperator(const AtAnswer &answer)
{
    SetLastError(answer.failure);
    const std::uint32_t technology = Registration().technology.value_or(wire::kTechnologyUnknown);
    state_.Set([&](ModemStatus &status) {
        status.operatorName.clear();
        status.technology = technology;
    });
}

void ModemFacts::TakeSignal(const AtAnswer &answer)
{
    if (answer.lines.empty())
        return;
    const std::int32_t signal = ParseSignal(answer.lines.back()).value_or(wire::kSignalUnknown);
    state_.Set([&](ModemStatus &status) { status.signal = signal; });
}

void ModemFacts::TakeAttached(const AtAnswer &answer)
{
    if (answer.lines.empty())
        return;
    const bool attached = AtFields(answer.lines.back()).front().text == "1";
    state_.Set([&](ModemStatus &status) { status.attached = attached; });
}

void ModemFacts::TakeGsm(const AtAnswer &)
{
    charset_ = ModemCharset::kGsm;
}

void ModemFacts::TakeUcs2(const AtAnswer &)
{
    charset_ = ModemCharset::kUcs2;
}

bool ModemFacts::Registered() const
{
    return state_.Status().state == wire::kModemRegistered;
}

void ModemFacts::BeginPreparation()
{
    charset_ = ModemCharset::kRaw;
    prepared_ = true;
}

void ModemFacts::SetLastError(const std::string &words)
{
    if (!words.empty())
        state_.Set([&](ModemStatus &status) { status.lastError = words; });
}

void ModemFacts::SetState(wire::ModemState state, const std::string &words)
{
    state_.Set([&](ModemStatus &status) { status.state = state; });
    if (words == logged_)
        return;
    logged_ = words;
    Diag(kUnit, "ModemThread", __LINE__, "modem %s: %s.", paths::kModemDevice, words.c_str());
}

void ModemFacts::ShowSim()
{
    if (sim_ == Sim::kUnknown) {
        SetState(wire::kModemStarting, "does not report its SIM");
        return;
    }
    if (sim_ == Sim::kMissing) {
        SetState(wire::kModemNoSim, "no SIM: " + simWords_);
        return;
    }
    const std::string wants = "the SIM wants: " + simWords_;
    if (!simWords_.empty())
        SetLastError(wants);
    SetState(wire::kModemLocked, wants);
}

void ModemFacts::ShowSimAndNetwork()
{
    if (sim_ != Sim::kReady) {
        ShowSim();
        return;
    }
    switch (state_.Status().registration) {
    case wire::kRegisteredHome:
        SetState(wire::kModemRegistered, "registered");
        break;
    case wire::kRegisteredRoaming:
        SetState(wire::kModemRegistered, "registered, roaming");
        break;
    case wire::kRegistrationDenied:
        SetState(wire::kModemSearching, "the network refuses it");
        break;
    default:
        SetState(wire::kModemSearching, "searches for a network");
        break;
    }
}

void ModemFacts::Forget(const std::string &why)
{
    sim_ = Sim::kUnknown;
    circuit_ = {};
    packet_ = {};
    state_.Set([](ModemStatus &status) {
        const std::string lastError = std::move(status.lastError);
        status = {};
        status.lastError = lastError;
    });
    SetState(wire::kModemAbsent, why);
}
