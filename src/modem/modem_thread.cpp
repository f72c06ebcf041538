// SPDX-License-Identifier: MIT
#include "modem/modem_thread.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/threads.h"

#include <cerrno>
#include <system_error>

using namespace std::chrono_literals;

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";
constexpr auto kDevicePause = 5s; // between two attempts to open the device
constexpr auto kRoundPause = 10s;
constexpr auto kLinkPause = 1s;
constexpr int kSilentTimeouts = 2; // in a row; a single command is often lost after power-up
constexpr int kMaxTimeouts = 10;   // in a row; then the line is opened again
constexpr int kMaxRefusals = 10;   // of the command that any modem answers

} // namespace

ModemThread::ModemThread(ModemState &state)
    : channel_(port_, [this](const std::string &line) { TakeUnsolicited(line); }), facts_(state),
      state_(state)
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
            if (!reopenLogged_)
                facts_.SetState(wire::kModemStarting, "found");
            channel_.Reset();
            const AtResult result = Serve();
            port_.Close();
            if (result == AtResult::kStopped)
                return;
            if (result == AtResult::kTimeout) {
                LogReopening();
                continue;
            }
            Forget("no device");
        } else {
            Forget(port_.Failure());
        }
        StepLink();
        event = port_.Sleep(kDevicePause);
    }
}

void ModemThread::Forget(const std::string &why)
{
    reopenLogged_ = false;
    facts_.Forget(why);
}

// A modem that stays silent is reopened over and over: one line in the log is enough.
void ModemThread::LogReopening()
{
    if (!reopenLogged_)
        Diag(kUnit, "ModemThread", __LINE__, "modem %s: opened again.", paths::kModemDevice);
    reopenLogged_ = true;
}

AtResult ModemThread::Serve()
{
    for (;;) {
        AtResult result = StartUp();
        reopenLogged_ = reopenLogged_ && !IsAnswer(result);
        while (IsAnswer(result)) {
            result = Round();
            if (IsAnswer(result))
                result = Wait();
        }
        if (result != AtResult::kTimeout || channel_.Timeouts() >= kMaxTimeouts)
            return result;
        if (channel_.Timeouts() >= kSilentTimeouts)
            facts_.SetState(wire::kModemSilent, "does not answer");
        StepLink(); // the data link may live on although the modem takes no commands
    }
}

AtResult ModemThread::StartUp()
{
    facts_.LosePreparation(); // the modem may have been restarted
    const AtResult result = Synchronise();
    return IsAnswer(result) ? RunSteps(StartUpSteps()) : result;
}

AtResult ModemThread::Synchronise()
{
    AtResult result = AtResult::kRefused;
    for (int attempt = 0; result == AtResult::kRefused && attempt < kMaxRefusals; ++attempt) {
        AtAnswer answer;
        result = channel_.Ask(kSynchronise, &answer);
        if (!IsAnswer(result))
            facts_.SetLastError(answer.failure);
    }
    if (IsAnswer(result))
        result = channel_.Settle();
    roundDue_ = false; // what Settle has seen may be late answers, which look like unsolicited lines
    return result;
}

AtResult ModemThread::RunSteps(std::span<const ModemStep> steps)
{
    for (const ModemStep &step : steps) {
        AtAnswer answer;
        const AtResult result = channel_.Ask(step.command, &answer);
        if (!IsAnswer(result)) {
            if (const AtResult recovered = Recover(result, answer); !IsAnswer(recovered))
                return recovered;
            continue;
        }
        (facts_.*(result == AtResult::kOk ? step.take : step.refused))(answer);
    }
    return AtResult::kOk;
}

AtResult ModemThread::Recover(AtResult result, const AtAnswer &answer)
{
    facts_.SetLastError(answer.failure);
    if (result != AtResult::kTimeout)
        return result;
    facts_.LosePreparation(); // the modem may have been restarted
    return Synchronise();
}

AtResult ModemThread::Round()
{
    roundDue_ = false;
    AtResult result = RunSteps(SimSteps());
    if (IsAnswer(result) && facts_.SimReady() && !facts_.Prepared())
        result = Prepare();
    if (IsAnswer(result) && facts_.SimReady())
        result = RunSteps(RoundSteps());
    if (!IsAnswer(result))
        return result;
    facts_.ShowSimAndNetwork();
    StepLink();
    return facts_.SimReady() ? StoreSms() : result;
}

AtResult ModemThread::Prepare()
{
    facts_.BeginPreparation(); // first: a step without an answer takes it back
    return RunSteps(PreparationSteps());
}

AtResult ModemThread::Wait()
{
    const auto end = ModemClock::now() + kRoundPause;
    while (!roundDue_ && ModemClock::now() < end) {
        const AtResult result = channel_.Listen(kLinkPause);
        if (result == AtResult::kGone || result == AtResult::kStopped)
            return result;
        if (!port_.StillThere())
            return AtResult::kGone;
        StepLink();
    }
    return AtResult::kOk;
}

// A message is deleted from the modem only when it is on the disk.
AtResult ModemThread::StoreSms()
{
    AtAnswer answer;
    const AtResult listed = channel_.Ask(kListSms, &answer);
    if (listed != AtResult::kOk)
        return Recover(listed, answer);
    for (const AtMessage &message : answer.messages) {
        const auto header = ParseMessageHeader(message.header);
        if (!header || !header->received || !message.whole)
            continue;
        const std::string text = SmsText(message.body, message.length, facts_.Charset());
        if (!store_.Keep(header->index, {header->time, header->sender, text}))
            continue;
        state_.SetLastSms(store_.Last());
        AtAnswer deletion;
        const AtResult deleted = DeleteSms(header->index, &deletion);
        if (!IsAnswer(deleted))
            return Recover(deleted, deletion); // the rest is listed again in the next round
    }
    return AtResult::kOk;
}

AtResult ModemThread::DeleteSms(int index, AtAnswer *answer)
{
    const std::string text = kDeleteSms + std::to_string(index);
    const AtResult result = channel_.Ask(AtCommand{text.c_str(), kSimLimit}, answer);
    if (result == AtResult::kOk)
        store_.Deleted(index);
    if (result == AtResult::kRefused)
        facts_.SetLastError(answer->failure);
    return result;
}

void ModemThread::StepLink()
{
    facts_.SetLastError(link_.Step(facts_.Registered()));
}

void ModemThread::TakeUnsolicited(const std::string &line)
{
    // A new message, another registration or SIM. Everything else can wait for the next round.
    for (const char *const prefix : {"+CMTI:", "+CREG:", "+CGREG:", "+CPIN:"})
        roundDue_ = roundDue_ || line.starts_with(prefix);
}
