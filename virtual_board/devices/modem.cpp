// SPDX-License-Identifier: MIT
#include "devices/modem.h"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace board
{

namespace
{

constexpr char kDevice[] = "ttyUSB3";
constexpr Milliseconds kSilence{300}; // after power-up
constexpr Milliseconds kSimBusy{900};
constexpr Milliseconds kSearch{1500};
constexpr Milliseconds kThinking{30};
constexpr std::array<std::size_t, 6> kPieces = {7, 1, 23, 16, 2, 40};
constexpr std::size_t kNoiseEvery = 4; // commands
constexpr std::size_t kStoreSize = 20;

// Characters of valid UTF-8.
std::vector<char32_t> Characters(const std::string &text)
{
    std::vector<char32_t> all;
    for (std::size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at]);
        const std::size_t size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        char32_t value = size == 1 ? lead : lead & (0xFFU >> (size + 1));
        for (std::size_t i = 1; i < size && at + i < text.size(); ++i)
            value = value << 6U | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
        all.push_back(value);
        at += size;
    }
    return all;
}

std::string Hexadecimal(const std::string &text)
{
    std::string digits;
    for (const char32_t one : Characters(text)) {
        if (one > 0xFFFF)
            digits += fmt::format("{:04X}{:04X}", 0xD800 + ((one - 0x10000) >> 10U), 0xDC00 + (one & 0x3FFU));
        else
            digits += fmt::format("{:04X}", static_cast<unsigned>(one));
    }
    return digits;
}

// Whether ASCII and the modem's own alphabet agree in every character.
bool IsCommon(const std::string &text)
{
    return std::ranges::all_of(text, [](char c) {
        return c == '\n' || c == '\r' ||
               (c >= ' ' && c <= 'z' && std::string_view("$@[\\]^_`").find(c) == std::string_view::npos);
    });
}

} // namespace

Modem::Modem(Watcher &watcher, PowerMutex &power, BoardRoot &root, const std::string &folder, bool plugged)
    : watcher_(watcher), power_(power), root_(root), plugged_(plugged), line_(folder)
{
    watcher_.AddTick([this] { Tick(); });
}

void Modem::Plug(bool in)
{
    const PowerLock power(power_);
    plugged_ = in;
    Switch(in);
}

void Modem::PowerOn(const PowerLock &)
{
    Switch(false);
    Switch(plugged_);
}

void Modem::Switch(bool on)
{
    if (View().in == on)
        return;
    if (!on) {
        root_.ConnectLine(kDevice, "");
        watcher_.Remove(line_.Master());
    }
    Restart(on);
    if (on) {
        watcher_.Add(line_.Master(), [this] { Receive(); });
        root_.ConnectLine(kDevice, line_.SlavePath());
    }
}

// Everything but the messages and what was set from outside is as after power-up.
void Modem::Restart(bool on)
{
    const std::lock_guard guard(watcher_.Lock());
    view_.in = on;
    if (on)
        line_.Open();
    else
        line_.Close();
    input_.clear();
    output_.clear();
    commands_.clear();
    echo_ = true;
    headers_ = ucs2_ = announces_ = announced_ = listsSim_ = false;
    errors_ = 0;
    powered_ = std::chrono::steady_clock::now();
}

bool Modem::PoweredFor(Milliseconds time) const
{
    return std::chrono::steady_clock::now() - powered_ >= time;
}

void Modem::Receive()
{
    std::array<char, 1024> bytes;
    const std::lock_guard guard(watcher_.Lock());
    const ssize_t got = read(line_.Master(), bytes.data(), bytes.size());
    if (got <= 0 || !PoweredFor(kSilence))
        return;
    input_.append(bytes.data(), static_cast<std::size_t>(got));
    TakeInput();
}

void Modem::TakeInput()
{
    if (view_.hangs)
        return;
    for (std::size_t end = 0; (end = input_.find('\r')) != std::string::npos; input_.erase(0, end + 1))
        TakeCommand(input_.substr(0, end));
}

void Modem::TakeCommand(const std::string &command)
{
    commands_.push_back(command);
    if (command == ignored_)
        return;
    if (echo_)
        Put(command + "\r");
    if (commands_.size() % kNoiseEvery == 0)
        Put(fmt::format("\r\n^RSSI:{}\r\n", view_.signal));
    Put("\r\n" + Answer(command) + "\r\n");
}

void Modem::Put(const std::string &bytes)
{
    if (output_.empty())
        sayAfter_ = std::chrono::steady_clock::now() + kThinking;
    output_ += bytes;
}

void Modem::Tick()
{
    const std::lock_guard guard(watcher_.Lock());
    if (!view_.in || view_.hangs)
        return;
    if (!announced_ && PoweredFor(kSearch)) {
        announced_ = true;
        Announce();
    }
    if (output_.empty() || std::chrono::steady_clock::now() < sayAfter_)
        return;
    const std::string piece = output_.substr(0, kPieces[pieces_++ % kPieces.size()]);
    const ssize_t said = write(line_.Master(), piece.data(), piece.size());
    if (said > 0)
        output_.erase(0, static_cast<std::size_t>(said));
}

ModemNetwork Modem::Found() const
{
    return PoweredFor(kSearch) ? view_.network : ModemNetwork::kSearching;
}

std::string Modem::AboutNetwork(bool packet) const
{
    switch (Found()) {
    case ModemNetwork::kSearching:
        return "2";
    case ModemNetwork::kDenied:
        return "3";
    case ModemNetwork::kDataOnly:
        return packet ? "1,\"00C3\",\"01A2B3C4\",2,\"00\"" : "3";
    case ModemNetwork::kHome:
        return "1,\"00C3\",\"01A2B3C4\",2";
    case ModemNetwork::kRoaming:
        return "5,\"00C4\",\"01A2B3C5\",2";
    }
    return "4";
}

void Modem::Announce()
{
    if (announces_ && view_.sim == ModemSim::kReady)
        Put("\r\n+CREG: " + AboutNetwork(false) + "\r\n\r\n+CGREG: " + AboutNetwork(true) + "\r\n");
}

std::string Modem::Failure(int code, const std::string &words) const
{
    if (errors_ == 0)
        return "ERROR";
    return fmt::format("+{} ERROR: {}", code < 300 ? "CME" : "CMS",
                       errors_ == 1 ? std::to_string(code) : words);
}

std::string Modem::AboutSim()
{
    if (!PoweredFor(kSimBusy))
        return Failure(14, "SIM busy");
    switch (view_.sim) {
    case ModemSim::kReady:
        return "+CPIN: READY\r\n\r\nOK";
    case ModemSim::kPin:
        return "+CPIN: SIM PIN\r\n\r\nOK";
    case ModemSim::kNone:
        break;
    }
    return Failure(10, "SIM not inserted");
}

std::string Modem::Encode(const std::string &text) const
{
    return ucs2_ || !IsCommon(text) ? Hexadecimal(text) : text;
}

std::string Modem::ListMessages()
{
    if (!listsSim_)
        return "OK";
    std::string listing;
    for (Message &one : store_) {
        listing +=
            fmt::format("+CMGL: {},\"{}\",\"{}\",,\"{}\"", one.index, one.read ? "REC READ" : "REC UNREAD",
                        ucs2_ ? Hexadecimal(one.sender) : one.sender, one.time);
        if (headers_)
            listing += fmt::format(",145,{}", Characters(one.text).size());
        listing += "\r\n" + Encode(one.text) + "\r\n";
        one.read = true;
    }
    return listing + (listing.empty() ? "" : "\r\n") + "OK";
}

bool Modem::TakeSetting(const std::string &command)
{
    if (command == "ATE0" || command == "ATE1")
        echo_ = command == "ATE1";
    else if (command.starts_with("AT+CMEE=") && command.size() == 9)
        errors_ = command[8] - '0';
    else if (command == "AT+CSDH=1")
        headers_ = true;
    else if (command.starts_with("AT+CREG=") && command.size() == 9)
        announces_ = command[8] != '0';
    else if (command.starts_with("AT+CGREG=") && command.size() == 10)
        return true; // it goes along with +CREG
    else if (command == "AT+CSCS=\"GSM\"")
        ucs2_ = false;
    else if (command == "AT+CSCS=\"UCS2\"" && knowsUcs2_)
        ucs2_ = true;
    else
        return command == "AT" || command == "AT+COPS=3,0" || command == "AT+CMGF=1" ||
               command == "AT+CNMI=2,1";
    return true;
}

std::string Modem::Answer(const std::string &command)
{
    const auto said = [](const std::string &line) { return line + "\r\n\r\nOK"; };
    if (TakeSetting(command))
        return "OK";
    if (command == "AT+CGMI")
        return said("Example Works");
    if (command == "AT+CGMM")
        return said("Model 3");
    if (command == "AT+CGSN")
        return said("490154203237518");
    if (command == "AT+CPIN?")
        return AboutSim();
    if (command == "AT+CSQ")
        return said(fmt::format("+CSQ: {},99", view_.signal));
    if (view_.sim != ModemSim::kReady)
        return view_.sim == ModemSim::kNone ? Failure(10, "SIM not inserted")
                                            : Failure(11, "SIM PIN required");
    const bool registered = Found() != ModemNetwork::kSearching && Found() != ModemNetwork::kDenied;
    if (command == "AT+CREG?")
        return said(fmt::format("+CREG: {},{}", announces_ ? 2 : 0, AboutNetwork(false)));
    if (command == "AT+CGREG?")
        return said(fmt::format("+CGREG: {},{}", announces_ ? 2 : 0, AboutNetwork(true)));
    if (command == "AT+COPS?" && refusesOperator_)
        return Failure(30, "no network service");
    if (command == "AT+COPS?")
        return said(registered ? "+COPS: 0,0,\"Example, Net\",2" : "+COPS: 0");
    if (command == "AT+CGATT?")
        return said(registered ? "+CGATT: 1" : "+CGATT: 0");
    if (command == "AT+CPMS=\"SM\",\"SM\",\"SM\"") {
        listsSim_ = true;
        const std::string memory = fmt::format("{},{}", store_.size(), kStoreSize);
        return said(fmt::format("+CPMS: {0},{0},{0}", memory));
    }
    if (command == "AT+CMGL=\"ALL\"")
        return ListMessages();
    if (command.starts_with("AT+CMGD=")) {
        const auto gone = std::erase_if(store_, [&](const Message &one) {
            return std::to_string(one.index) == command.substr(8);
        });
        view_.sms = store_.size();
        return gone != 0 ? "OK" : Failure(321, "Invalid memory index");
    }
    return "ERROR";
}

void Modem::SetSim(ModemSim sim)
{
    const std::lock_guard guard(watcher_.Lock());
    view_.sim = sim;
    if (announces_)
        Put(sim == ModemSim::kReady ? "\r\n+CPIN: READY\r\n" : "\r\n+CPIN: NOT READY\r\n");
}

void Modem::SetNetwork(ModemNetwork network)
{
    const std::lock_guard guard(watcher_.Lock());
    view_.network = network;
    Announce();
}

void Modem::RefuseOperator(bool refuses)
{
    const std::lock_guard guard(watcher_.Lock());
    refusesOperator_ = refuses;
}

void Modem::SetSignal(unsigned steps)
{
    const std::lock_guard guard(watcher_.Lock());
    view_.signal = steps;
}

void Modem::Hang(bool hangs)
{
    const std::lock_guard guard(watcher_.Lock());
    view_.hangs = hangs;
    TakeInput();
}

void Modem::Ignore(const std::string &command)
{
    const std::lock_guard guard(watcher_.Lock());
    ignored_ = command;
}

void Modem::KnowUcs2(bool knows)
{
    const std::lock_guard guard(watcher_.Lock());
    knowsUcs2_ = knows;
}

void Modem::Deliver(const std::string &sender, const std::string &text)
{
    const std::lock_guard guard(watcher_.Lock());
    if (store_.size() == kStoreSize)
        throw std::runtime_error("virtual board: the modem's store is full");
    int index = 1;
    while (std::ranges::find(store_, index, &Message::index) != store_.end())
        ++index;
    const std::time_t now = std::time(nullptr);
    store_.push_back({index, false, sender, text, fmt::format("{:%y/%m/%d,%H:%M:%S}+00", fmt::gmtime(now))});
    view_.sms = store_.size();
    if (view_.in)
        Put(fmt::format("\r\n+CMTI: \"SM\",{}\r\n", index));
}

void Modem::Say(const std::string &bytes)
{
    const std::lock_guard guard(watcher_.Lock());
    Put(bytes);
}

ModemView Modem::View() const
{
    const std::lock_guard guard(watcher_.Lock());
    return view_;
}

std::vector<std::string> Modem::Commands() const
{
    const std::lock_guard guard(watcher_.Lock());
    return commands_;
}

void Modem::Forget()
{
    const std::lock_guard guard(watcher_.Lock());
    commands_.clear();
}

} // namespace board
