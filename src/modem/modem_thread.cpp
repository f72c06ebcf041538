// SPDX-License-Identifier: MIT
#include "modem/modem_thread.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/threads.h"
#include "modem/at_answers.h"

#include <cerrno>
#include <system_error>

using namespace std::chrono_literals;

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";
constexpr auto kLookForDevice = 5s;
constexpr auto kRound = 10s;
constexpr auto kLinkStep = 1s;
constexpr int kSilentAfter = 2;   // time-outs in a row; the first command after power-up is lost mostly
constexpr int kMostTimeouts = 10; // in a row; then the line is opened anew
constexpr int kMostSyncs = 10;
constexpr auto kSimLimit = 10s;

constexpr AtCommand kSync{"AT"};
constexpr AtCommand kListSms{"AT+CMGL=\"ALL\"", kSimLimit, AtKind::kListing, "+CMGL:"};

} // namespace

const ModemThread::Step ModemThread::kStartUp[] = {
    {{"ATE0"}, &ModemThread::TakeNothing, nullptr},
    {{"AT+CMEE=2"}, &ModemThread::TakeNothing, nullptr},
    {{"AT+CPIN?", kSimLimit, AtKind::kPrefixed, "+CPIN:"}, &ModemThread::TakeSim, &ModemThread::RefuseSim},
    {{"AT+CGMI", 3s, AtKind::kBare}, &ModemThread::TakeManufacturer, nullptr},
    {{"AT+CGMM", 3s, AtKind::kBare}, &ModemThread::TakeModel, nullptr},
    {{"AT+CGSN", 3s, AtKind::kBare}, &ModemThread::TakeImei, nullptr},
};

const ModemThread::Step ModemThread::kPreparation[] = {
    {{"AT+CREG=2"}, &ModemThread::TakeNothing, &ModemThread::TakeNothing},
    {{"AT+COPS=3,0"}, &ModemThread::TakeNothing, &ModemThread::TakeNothing},
    // New messages go where they are looked for (27.005, 3.2.2).
    {{"AT+CPMS=\"SM\",\"SM\",\"SM\"", kSimLimit}, &ModemThread::TakeNothing, &ModemThread::TakeNothing},
    {{"AT+CMGF=1", kSimLimit}, &ModemThread::TakeNothing, nullptr},
    {{"AT+CSDH=1"}, &ModemThread::TakeNothing, &ModemThread::TakeNothing},
    {{"AT+CNMI=2,1"}, &ModemThread::TakeNothing, &ModemThread::TakeNothing},
    // The later one that is taken counts.
    {{"AT+CSCS=\"GSM\""}, &ModemThread::TakeGsm, &ModemThread::TakeNothing},
    {{"AT+CSCS=\"UCS2\""}, &ModemThread::TakeUcs2, &ModemThread::TakeNothing},
};

const ModemThread::Step ModemThread::kLook[] = {
    {{"AT+CREG?", 3s, AtKind::kPrefixed, "+CREG:"}, &ModemThread::TakeRegistration, nullptr},
    {{"AT+COPS?", 3s, AtKind::kPrefixed, "+COPS:"}, &ModemThread::TakeOperator, nullptr},
    {{"AT+CSQ", 3s, AtKind::kPrefixed, "+CSQ:"}, &ModemThread::TakeSignal, nullptr},
    {{"AT+CGATT?", 3s, AtKind::kPrefixed, "+CGATT:"}, &ModemThread::TakeAttached, nullptr},
};

ModemThread::ModemThread(ModemState &state)
    : state_(state), channel_(port_, [this](const std::string &line) { TakeUnsolicited(line); })
{
}

ModemThread::~ModemThread()
{
    Stop();
}

void ModemThread::Start()
{
    const SignalsBlocked blocked;
    try {
        thread_ = std::thread(&ModemThread::Run, this);
    } catch (const std::system_error &error) {
        errno = error.code().value();
        DiagErrno(kUnit, __func__, __LINE__, "modem thread: ");
    }
}

void ModemThread::Stop()
{
    port_.Stop();
    if (thread_.joinable())
        thread_.join();
}

void ModemThread::Run()
{
    store_.Load();
    state_.SetLastSms(store_.Last());
    ModemPort::Event event = ModemPort::kTimeout;
    while (event != ModemPort::kStopped) {
        if (port_.Open()) {
            if (!silent_)
                SetState(wire::kModemStarting, "found");
            channel_.Reset();
            const AtResult result = Serve();
            port_.Close();
            if (result == AtResult::kStopped)
                return;
            if (result == AtResult::kTimeout) {
                OpenAgain();
                continue;
            }
            Forget("no device");
        } else {
            Forget(port_.Failure());
        }
        StepLink();
        event = port_.Sleep(kLookForDevice);
    }
}

// Said once for as long as the modem is silent.
void ModemThread::OpenAgain()
{
    if (!silent_)
        Diag(kUnit, "ModemThread", __LINE__, "modem %s: opened again.", paths::kModemDevice);
    silent_ = true;
}

AtResult ModemThread::Serve()
{
    for (;;) {
        AtResult result = StartUp();
        silent_ = silent_ && !IsAnswer(result);
        while (IsAnswer(result)) {
            result = Look();
            if (IsAnswer(result))
                result = Wait();
        }
        if (result != AtResult::kTimeout || channel_.Timeouts() >= kMostTimeouts)
            return result;
        if (channel_.Timeouts() >= kSilentAfter)
            SetState(wire::kModemSilent, "does not answer");
        StepLink();
    }
}

AtResult ModemThread::RunSteps(std::span<const Step> steps)
{
    for (const Step &step : steps) {
        AtAnswer answer;
        const AtResult result = channel_.Ask(step.command, &answer);
        if (!IsAnswer(result)) {
            if (const AtResult passed = PassOver(result, answer); !IsAnswer(passed))
                return passed;
            continue;
        }
        if (result == AtResult::kOk)
            (this->*step.take)(answer);
        else if (step.refuse != nullptr)
            (this->*step.refuse)(answer);
        else
            KeepFailure(answer.failure);
    }
    return AtResult::kOk;
}

AtResult ModemThread::PassOver(AtResult result, const AtAnswer &answer)
{
    KeepFailure(answer.failure);
    if (result != AtResult::kTimeout)
        return result;
    prepared_ = false; // its settings may be lost
    return Synchronise();
}

AtResult ModemThread::Synchronise()
{
    AtResult result = AtResult::kRefused;
    for (int attempt = 0; result == AtResult::kRefused && attempt < kMostSyncs; ++attempt) {
        AtAnswer answer;
        result = channel_.Ask(kSync, &answer);
        if (!IsAnswer(result))
            KeepFailure(answer.failure);
    }
    if (IsAnswer(result))
        result = channel_.Settle();
    lookSoon_ = false; // a late answer looks like news
    return result;
}

AtResult ModemThread::StartUp()
{
    prepared_ = false;
    const AtResult result = Synchronise();
    return IsAnswer(result) ? RunSteps(kStartUp) : result;
}

AtResult ModemThread::Look()
{
    lookSoon_ = false;
    AtResult result = RunSteps(std::span(kStartUp).subspan(2, 1)); // the SIM may have been taken out
    if (IsAnswer(result) && sim_ == Sim::kReady && !prepared_)
        result = Prepare();
    if (IsAnswer(result) && sim_ == Sim::kReady)
        result = RunSteps(kLook);
    if (!IsAnswer(result))
        return result;
    ShowState();
    StepLink();
    return sim_ == Sim::kReady ? ReadSms() : result;
}

AtResult ModemThread::Prepare()
{
    charset_ = ModemCharset::kRaw;
    prepared_ = true; // until a step is passed over
    return RunSteps(kPreparation);
}

AtResult ModemThread::Wait()
{
    const auto end = ModemClock::now() + kRound;
    while (!lookSoon_ && ModemClock::now() < end) {
        const AtResult result = channel_.Listen(kLinkStep);
        if (result == AtResult::kGone || result == AtResult::kStopped)
            return result;
        if (!port_.StillThere())
            return AtResult::kGone;
        StepLink();
    }
    return AtResult::kOk;
}

// A message is deleted only when it is on the disk.
AtResult ModemThread::ReadSms()
{
    AtAnswer answer;
    AtResult result = channel_.Ask(kListSms, &answer);
    if (result != AtResult::kOk)
        return PassOver(result, answer);
    for (const AtMessage &message : answer.messages) {
        const auto header = ParseMessageHeader(message.header);
        if (!header || !header->received || !message.whole)
            continue;
        const std::string body = SmsText(message.body, message.length, charset_);
        if (!store_.Keep(header->index, {header->time, header->sender, body}))
            continue;
        state_.SetLastSms(store_.Last());
        const std::string text = "AT+CMGD=" + std::to_string(header->index);
        const AtCommand command{text.c_str(), kSimLimit};
        AtAnswer deleted;
        result = channel_.Ask(command, &deleted);
        if (!IsAnswer(result))
            return PassOver(result, deleted);
        if (result == AtResult::kOk)
            store_.Deleted(header->index);
        KeepFailure(deleted.failure);
    }
    return AtResult::kOk;
}

void ModemThread::StepLink()
{
    const ModemStatus status = state_.Status();
    const bool registered = status.state == wire::kModemRegistered;
    if (const std::string failure = link_.Step(registered); !failure.empty())
        KeepFailure(failure);
}

void ModemThread::TakeSim(const AtAnswer &answer)
{
    const std::string words = answer.lines.empty() ? "" : AtFields(answer.lines.back()).front().text;
    if (words == "READY")
        SetSim(Sim::kReady, "");
    else
        SetSim(Sim::kLocked, words);
}

void ModemThread::RefuseSim(const AtAnswer &answer)
{
    KeepFailure(answer.failure);
    SetSim(answer.meaning == AtMeaning::kSimLocked ? Sim::kLocked : Sim::kMissing, answer.failure);
}

void ModemThread::SetSim(Sim sim, const std::string &words)
{
    simWords_ = words;
    if (sim_ == sim)
        return;
    sim_ = sim;
    prepared_ = false;
    state_.Set([](ModemStatus &status) {
        status.registration = wire::kNotRegistered;
        status.technology = wire::kTechnologyUnknown;
        status.operatorName.clear();
        status.attached = false;
    });
}

void ModemThread::TakeManufacturer(const AtAnswer &answer)
{
    state_.Set([&](ModemStatus &status) {
        if (!answer.lines.empty())
            status.manufacturer = ValidUtf8(answer.lines.front());
    });
}

void ModemThread::TakeModel(const AtAnswer &answer)
{
    state_.Set([&](ModemStatus &status) {
        if (!answer.lines.empty())
            status.model = ValidUtf8(answer.lines.front());
    });
}

void ModemThread::TakeImei(const AtAnswer &answer)
{
    state_.Set([&](ModemStatus &status) {
        if (!answer.lines.empty())
            status.imei = ParseImei(answer.lines.front());
    });
}

void ModemThread::SetRegistration(const std::string &line)
{
    const auto registration = ParseRegistration(line);
    if (!registration)
        return;
    state_.Set([&](ModemStatus &status) {
        status.registration = registration->status;
        if (registration->technology)
            status.technology = *registration->technology;
    });
}

void ModemThread::TakeRegistration(const AtAnswer &answer)
{
    for (const std::string &line : answer.lines)
        SetRegistration(line);
}

void ModemThread::TakeOperator(const AtAnswer &answer)
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

void ModemThread::TakeSignal(const AtAnswer &answer)
{
    if (answer.lines.empty())
        return;
    if (const auto signal = ParseSignal(answer.lines.back()))
        state_.Set([&](ModemStatus &status) { status.signal = *signal; });
}

void ModemThread::TakeAttached(const AtAnswer &answer)
{
    if (answer.lines.empty())
        return;
    const bool attached = AtFields(answer.lines.back()).front().text == "1";
    state_.Set([&](ModemStatus &status) { status.attached = attached; });
}

void ModemThread::TakeGsm(const AtAnswer &)
{
    charset_ = ModemCharset::kGsm;
}

void ModemThread::TakeUcs2(const AtAnswer &)
{
    charset_ = ModemCharset::kUcs2;
}

// A new message, another registration or SIM: the next round comes now. Everything else is of no interest.
void ModemThread::TakeUnsolicited(const std::string &line)
{
    for (const char *const prefix : {"+CMTI:", "+CREG:", "+CPIN:"})
        lookSoon_ = lookSoon_ || line.starts_with(prefix);
}

void ModemThread::ShowState()
{
    if (sim_ == Sim::kUnknown) {
        SetState(wire::kModemStarting, "does not tell of its SIM");
        return;
    }
    if (sim_ != Sim::kReady) {
        const bool locked = sim_ == Sim::kLocked;
        if (locked && !simWords_.empty())
            KeepFailure("the SIM wants: " + simWords_);
        SetState(locked ? wire::kModemLocked : wire::kModemNoSim,
                 (locked ? "the SIM wants: " : "no SIM: ") + simWords_);
        return;
    }
    const ModemStatus status = state_.Status();
    switch (status.registration) {
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

void ModemThread::SetState(wire::ModemState state, const std::string &words)
{
    state_.Set([&](ModemStatus &status) { status.state = state; });
    if (words == shown_)
        return;
    shown_ = words;
    Diag(kUnit, "ModemThread", __LINE__, "modem %s: %s.", paths::kModemDevice, words.c_str());
}

void ModemThread::Forget(const std::string &why)
{
    sim_ = Sim::kUnknown;
    silent_ = false;
    state_.Set([](ModemStatus &status) {
        const std::string lastError = std::move(status.lastError);
        status = {};
        status.lastError = lastError;
    });
    SetState(wire::kModemAbsent, why);
}

void ModemThread::KeepFailure(const std::string &words)
{
    if (!words.empty())
        state_.Set([&](ModemStatus &status) { status.lastError = words; });
}
