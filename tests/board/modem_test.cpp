// SPDX-License-Identifier: MIT
// The 3G modem: from power-up to a data link and a message, and what can go wrong with it.
#include "common/unique_fd.h"
#include "udp_peer.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cstring>

using namespace std::chrono_literals;

namespace
{

constexpr char kSms[] = "/home/root/plexa_data/sms";

enum ModemCommand : std::uint32_t { kAskStatus = 1, kAskMessages = 2 };

enum ModemState : std::uint32_t {
    kNoDevice = 0,
    kNoAnswer = 2,
    kNoSim = 3,
    kSimLocked = 4,
    kNotRegistered = 5,
    kRegistered = 6,
    kLinkUp = 7,
};

// 3GPP TS 27.007, 7.2.
enum Registration : std::uint32_t { kHomeNetwork = 1, kDenied = 3, kRoaming = 5 };

constexpr std::uint32_t kUtran = 2; // a technology of 27.007, 7.3
constexpr std::uint32_t kNoTechnology = 255;

// Places in the status.
constexpr std::size_t kModemStatusSize = 308;
constexpr std::size_t kStateAt = 8;
constexpr std::size_t kSignalAt = 12;
constexpr std::size_t kRegistrationAt = 16;
constexpr std::size_t kTechnologyAt = 20;
constexpr std::size_t kAttachedAt = 24;
constexpr std::size_t kLinkAddressAt = 28;
constexpr std::size_t kOperatorAt = 32;
constexpr std::size_t kManufacturerAt = 80;
constexpr std::size_t kModelAt = 112;
constexpr std::size_t kImeiAt = 144;
constexpr std::size_t kLastErrorAt = 164;

// Places in an answer with messages: of the first message.
constexpr std::size_t kMessagesHeadSize = 12; // length, command, count
constexpr std::size_t kMessageSize = 512;
constexpr std::size_t kTimeAt = 12;
constexpr std::size_t kSenderAt = 20;
constexpr std::size_t kTextAt = 60;

class Modem : public BoardTest
{
protected:
    Modem() { options.modem = true; }

    // The modem is dialled, also with the cable in.
    void DialsAlways()
    {
        options.files["/etc/ppp/peers/3g"] = "/dev/ttyUSB0\n";
        options.files["/home/root/plexa_data/server_config"] = "port=0\nmodem=always\n";
    }

    Peer LogIn() const
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Login(kModem)));
        EXPECT_EQ(peer.Take(8), LoginReply(kLoginModem));
        return peer;
    }
    static std::string Request(std::uint32_t command) { return Framed(Le32(command), "junk"); }

    // Empty if it does not come.
    std::string Status() const
    {
        const Peer peer = LogIn();
        EXPECT_TRUE(peer.Send(Request(kAskStatus)));
        std::string reply = peer.Take(kModemStatusSize);
        EXPECT_EQ(reply.substr(0, 8), Le32(kModemStatusSize) + Le32(kAskStatus));
        return reply;
    }
    static std::uint32_t WordAt(const std::string &reply, std::size_t offset)
    {
        std::uint32_t word = 0xFFFFFFFF;
        if (offset + sizeof word <= reply.size())
            std::memcpy(&word, reply.data() + offset, sizeof word);
        return word;
    }
    static std::string TextAt(const std::string &reply, std::size_t offset)
    {
        return offset < reply.size() ? std::string(reply.c_str() + offset) : "(no reply)";
    }
    bool WaitForState(std::uint32_t state, std::chrono::milliseconds limit = 20s)
    {
        return board->WaitFor([&] { return WordAt(Status(), kStateAt) == state; }, limit);
    }
    long Calls(const std::vector<std::string> &words) const
    {
        return std::ranges::count(board->Record().StandInCalls(), words);
    }
    // Two whole rounds later, each of which ends with the list of messages.
    bool WaitForRounds()
    {
        const auto rounds = [&] { return std::ranges::count(board->Modem().Commands(), "AT+CMGL=\"ALL\""); };
        const auto before = rounds();
        return board->WaitFor([&] { return rounds() >= before + 2; }, 40s);
    }
    bool WaitForSms(const std::string &content)
    {
        return board->WaitFor(
            [&] { return board->Root().TryRead(kSms).value_or("").find(content) != std::string::npos; }, 20s);
    }
};

class ModemCable : public Modem
{
};

class ModemTrouble : public Modem
{
};

class ModemHang : public Modem
{
};

class ModemPulled : public Modem
{
};

} // namespace

TEST_F(Modem, FromPowerUpToLinkAndMessage)
{
    DialsAlways();
    Boot();
    ASSERT_TRUE(board->Record().WaitForLog("modem link is up.", 1, 60s));
    const termios line = board->Modem().Attributes();
    EXPECT_EQ(cfgetispeed(&line), static_cast<speed_t>(B115200));
    EXPECT_EQ(line.c_cflag & (CSIZE | PARENB | CSTOPB), static_cast<tcflag_t>(CS8));

    board->Modem().Deliver("+4915112345678", "Öffne $(touch /home/root/x) \"das\" Tor\nOK\n€ 😀");
    ASSERT_TRUE(WaitForSms("}\n"));
    const std::string kept = board->Root().Read(kSms);
    EXPECT_TRUE(kept.starts_with(
        R"({"sender":"+4915112345678","text":"Öffne $(touch /home/root/x) \"das\" Tor\nOK\n€ 😀","time":"20)"))
        << kept;
    EXPECT_TRUE(board->WaitFor([&] { return board->Modem().View().sms == 0; })) << "deleted when it is kept";
    EXPECT_FALSE(board->Root().Exists("/home/root/x"));

    ASSERT_TRUE(WaitForState(kLinkUp));
    const std::string status = Status();
    EXPECT_EQ(WordAt(status, kSignalAt), static_cast<std::uint32_t>(-79)) << "dBm";
    EXPECT_EQ(WordAt(status, kRegistrationAt), kHomeNetwork);
    EXPECT_EQ(WordAt(status, kTechnologyAt), kUtran);
    EXPECT_EQ(WordAt(status, kAttachedAt), 1U);
    EXPECT_EQ(status.substr(kLinkAddressAt, 4), "\x0A\x40\x40\x40") << "10.64.64.64";
    EXPECT_EQ(TextAt(status, kOperatorAt), "Example, Net");
    EXPECT_EQ(TextAt(status, kManufacturerAt), "Example Works");
    EXPECT_EQ(TextAt(status, kModelAt), "Model 3");
    EXPECT_EQ(TextAt(status, kImeiAt), "490154203237518");

    const Peer peer = LogIn();
    EXPECT_TRUE(peer.Send(Request(kAskMessages) + Request(kAskMessages)));
    for (int i = 0; i < 2; ++i) {
        const std::string sms = peer.Take(kMessagesHeadSize + kMessageSize);
        const std::uint32_t count = 1;
        EXPECT_EQ(sms.substr(0, 12), Le32(524) + Le32(kAskMessages) + Le32(count));
        EXPECT_LE(time(nullptr) - static_cast<time_t>(WordAt(sms, kTimeAt)), 60);
        EXPECT_EQ(TextAt(sms, kSenderAt), "+4915112345678");
        EXPECT_EQ(TextAt(sms, kTextAt), "Öffne $(touch /home/root/x) \"das\" Tor\nOK\n€ 😀");
    }

    // A pppd that a signal ends is no failure: the daemon dials again after 10 s. The link monitor may end
    // the new one too, if it looks so late that it finds the modem's route.
    const std::string lastError = TextAt(Status(), kLastErrorAt);
    const long before = Calls({"pppd", "call", "3g"});
    EXPECT_EQ(board->Run("killall pppd").status, 0);
    EXPECT_TRUE(board->Record().WaitForLog("modem link is down."));
    ASSERT_TRUE(board->Record().WaitForLog("modem link is up.", 2, 60s));
    const long calls = Calls({"pppd", "call", "3g"});
    EXPECT_GT(calls, before);
    if (!board->Record().WaitForLog(";killall pppd]", 1, 0ms)) {
        EXPECT_EQ(calls, 2);
        EXPECT_EQ(TextAt(Status(), kLastErrorAt), lastError);
    }

    // Messages and link outlive the daemon; a new daemon finds both.
    board->Daemon().Restart();
    ASSERT_TRUE(WaitForState(kLinkUp));
    EXPECT_EQ(Calls({"pppd", "call", "3g"}), calls);
    const Peer again = LogIn();
    EXPECT_TRUE(again.Send(Request(kAskMessages)));
    EXPECT_EQ(TextAt(again.Take(kMessagesHeadSize + kMessageSize), kSenderAt), "+4915112345678");
}

TEST_F(ModemCable, TheModemDialsWhileItIsOut)
{
    options.files["/etc/ppp/peers/3g"] = "/dev/ttyUSB0\n";
    options.startDaemon = false;
    Boot();
    // The link monitor would end pppd at every second move of the route.
    board->Run("rm -f /bin/killall /sbin/killall /usr/bin/killall /usr/sbin/killall");
    board->Root().Write("/bin/killall", "#!/bin/sh\n[ -e /tmp/spare ] || exec busybox killall \"$@\"\n",
                        0755);
    board->Root().Write("/tmp/spare", "");
    board->Daemon().Start();
    ASSERT_TRUE(WaitForState(kRegistered));
    ASSERT_TRUE(WaitForRounds());
    EXPECT_EQ(Calls({"pppd", "call", "3g"}), 0) << "the cable is in";

    const auto out = std::chrono::steady_clock::now();
    board->Network().Cable(false);
    ASSERT_TRUE(board->WaitFor([&] { return Calls({"pppd", "call", "3g"}) == 1; }, 30s));
    EXPECT_GE(std::chrono::steady_clock::now() - out, 10s);

    ASSERT_TRUE(board->Record().WaitForLog("modem link is up.", 1, 10s));
    board->Run("rm /tmp/spare");
    board->Network().Cable(true);
    EXPECT_TRUE(board->Record().WaitForLog("modem hangs up, eth0 has a carrier.", 1, 5s));
    EXPECT_TRUE(board->Record().WaitForLog("modem link is down.", 1, 5s));
    EXPECT_EQ(board->Run("pidof pppd").output, "");
    EXPECT_EQ(WordAt(Status(), kStateAt), kRegistered);
}

TEST_F(Modem, OddRequestsEndTheSession)
{
    options.modem = false;
    Boot();
    EXPECT_EQ(WordAt(Status(), kStateAt), kNoDevice);
    const std::string cutCommand = Le32(11) + Zeros(7);
    const std::string noCommand = Le32(8) + Le32(1);
    for (const std::string &bytes :
         {Request(0), Request(3), Request(0xFFFFFFFF), cutCommand, noCommand, Le32(4), Le32(0)}) {
        const Peer peer = LogIn();
        EXPECT_TRUE(peer.Send(bytes));
        EXPECT_TRUE(peer.Ended()) << bytes.size();
    }
    const Peer longer = LogIn();
    EXPECT_TRUE(longer.Send(Framed(Le32(kAskMessages) + Zeros(8))));
    const std::uint32_t count = 0;
    EXPECT_EQ(longer.Take(kMessagesHeadSize), Le32(12) + Le32(kAskMessages) + Le32(count));
}

TEST_F(ModemTrouble, SimAndNetwork)
{
    options.startDaemon = false;
    Boot();
    board::Modem &modem = board->Modem();
    modem.KnowUcs2(false);
    modem.SetSim(board::ModemSim::kNone);
    board->Daemon().Start();
    ASSERT_TRUE(WaitForState(kNoSim));
    EXPECT_EQ(TextAt(Status(), kLastErrorAt), "AT+CPIN?: SIM not inserted");
    EXPECT_EQ(TextAt(Status(), kModelAt), "Model 3");
    modem.SetSim(board::ModemSim::kPin);
    ASSERT_TRUE(WaitForState(kSimLocked));
    EXPECT_EQ(TextAt(Status(), kLastErrorAt), "the SIM wants: SIM PIN");
    modem.SetSim(board::ModemSim::kReady);
    ASSERT_TRUE(WaitForState(kRegistered));
    EXPECT_EQ(Calls({"pppd", "call", "3g"}), 0) << "there is no peer file";

    // Without UCS2 a text comes as it is, whatever it looks like.
    modem.Deliver("+49151", "first\nOK\n\nOK\nlast");
    modem.Deliver("Gate", "Ä€");
    EXPECT_TRUE(WaitForSms("\"sender\":\"+49151\",\"text\":\"first\\nOK\\n\\nOK\\nlast\""));
    EXPECT_TRUE(WaitForSms("\"sender\":\"Gate\",\"text\":\"Ä€\""));

    modem.SetSignal(99);
    modem.SetNetwork(board::ModemNetwork::kRoaming);
    ASSERT_TRUE(board->Record().WaitForLog("registered, roaming.", 1, 20s));
    std::string status = Status();
    EXPECT_EQ(WordAt(status, kRegistrationAt), kRoaming);
    EXPECT_TRUE(board->WaitFor([&] { return WordAt(Status(), kSignalAt) == 0; }, 20s))
        << "the signal is not known";
    EXPECT_EQ(TextAt(Status(), kOperatorAt), "Example, Net");
    modem.RefuseOperator(true);
    EXPECT_TRUE(board->WaitFor([&] { return TextAt(Status(), kOperatorAt).empty(); }, 20s));
    EXPECT_EQ(WordAt(Status(), kTechnologyAt), kUtran) << "the registration names the technology too";
    modem.RefuseOperator(false);
    modem.SetNetwork(board::ModemNetwork::kDenied);
    ASSERT_TRUE(WaitForState(kNotRegistered));
    status = Status();
    EXPECT_EQ(WordAt(status, kRegistrationAt), kDenied);
    EXPECT_EQ(TextAt(status, kOperatorAt), "");
    modem.SetNetwork(board::ModemNetwork::kDataOnly);
    ASSERT_TRUE(WaitForState(kRegistered));
    ASSERT_TRUE(board->WaitFor([&] { return WordAt(Status(), kAttachedAt) == 1; }));
    status = Status();
    EXPECT_EQ(WordAt(status, kRegistrationAt), kHomeNetwork);
    EXPECT_EQ(WordAt(status, kTechnologyAt), kUtran);
    EXPECT_EQ(TextAt(status, kOperatorAt), "Example, Net");

    // Another SIM: nothing of the old one's network is left.
    modem.SetSim(board::ModemSim::kPin);
    ASSERT_TRUE(WaitForState(kSimLocked));
    status = Status();
    EXPECT_EQ(WordAt(status, kRegistrationAt), 0U);
    EXPECT_EQ(WordAt(status, kTechnologyAt), kNoTechnology);
    EXPECT_EQ(WordAt(status, kAttachedAt), 0U);
    EXPECT_EQ(TextAt(status, kOperatorAt), "");
    const auto commands = modem.Commands();
    EXPECT_TRUE(std::ranges::none_of(commands, [](auto &one) { return one.starts_with("AT+CPIN="); }));
}

TEST_F(ModemTrouble, OneCommandWithoutAnAnswerDelaysNoOther)
{
    options.startDaemon = false;
    DialsAlways();
    Boot();
    board->Modem().Ignore("AT+COPS?");
    board->Daemon().Start();
    EXPECT_TRUE(board->Record().WaitForLog("modem link is up.", 1, 30s));
    board->Modem().Deliver("+49151", "all the same");
    EXPECT_TRUE(WaitForSms("all the same"));
    const std::string status = Status();
    EXPECT_EQ(WordAt(status, kStateAt), kLinkUp);
    EXPECT_EQ(WordAt(status, kAttachedAt), 1U) << "asked for after the command without an answer";
    EXPECT_EQ(TextAt(status, kLastErrorAt), "AT+COPS?: no answer");
}

TEST_F(ModemTrouble, AMessageThatCannotBeKeptStaysInTheModem)
{
    options.dataMebibytes = 1;
    // The first byte of the message still fits into the file's last page.
    const std::string before = std::string(4094, 'x') + "\n";
    options.files[kSms] = before;
    Boot();
    board->Run("cat /dev/zero > /home/root/plexa_data/filler");
    board->Modem().Deliver("+49151", "kept later");
    ASSERT_TRUE(board->Record().WaitForLog("an SMS stays in the modem", 1, 30s));
    ASSERT_TRUE(WaitForRounds());
    EXPECT_EQ(board->Modem().View().sms, 1U);
    EXPECT_EQ(board->Run("rm /home/root/plexa_data/filler").status, 0);
    EXPECT_TRUE(WaitForSms("kept later"));
    EXPECT_TRUE(board->Root().Read(kSms).starts_with(before + "{\"sender\":\"+49151\"")) << "no half message";
    EXPECT_TRUE(board->WaitFor([&] { return board->Modem().View().sms == 0; }));
}

TEST_F(ModemHang, DelaysNoAnswerAndIsOpenedAgain)
{
    options.startDaemon = false;
    Boot();
    board->Modem().Hang(true);
    // Another program has the line: neither reads the answers of the other.
    const ledboard::UniqueFd line(open(board->Modem().SlavePath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(flock(line.Get(), LOCK_EX), 0);
    board->Daemon().Start();
    ASSERT_TRUE(board->Record().WaitForLog("/dev/ttyUSB3: Resource temporarily unavailable."));
    EXPECT_EQ(flock(line.Get(), LOCK_UN), 0);
    ASSERT_TRUE(WaitForState(kNoAnswer, 20s));
    EXPECT_EQ(flock(line.Get(), LOCK_EX | LOCK_NB), -1);
    const UdpPeer pc;
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(pc.Send(Zeros(kSearchSize), board->Network().BoardAddress()));
        EXPECT_TRUE(pc.Receive());
        EXPECT_EQ(WordAt(Status(), kStateAt), kNoAnswer);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, 3s);
    EXPECT_TRUE(board->Record().WaitForLog("opened again.", 1, 40s));
    // Answers that come late belong to no later command.
    board->Modem().Say("\r\n+CREG: 0,3\r\n\r\nOK\r\n\r\nOK\r\n\r\nERROR\r\n");
    board->Modem().Hang(false);
    ASSERT_TRUE(WaitForState(kRegistered));
    EXPECT_EQ(WordAt(Status(), kRegistrationAt), kHomeNetwork);
    EXPECT_EQ(TextAt(Status(), kModelAt), "Model 3");
}

TEST_F(ModemPulled, IsUsedAgainWheneverItIsPlugged)
{
    options.modem = false;
    Boot();
    EXPECT_TRUE(board->Record().WaitForLog("/dev/ttyUSB3: no device."));
    std::size_t descriptors = 0;
    for (std::size_t round = 1; round <= 3; ++round) {
        board->Modem().Plug(true);
        ASSERT_TRUE(board->Record().WaitForLog("/dev/ttyUSB3: registered.", round, 30s));
        board->Modem().Plug(false);
        ASSERT_TRUE(board->Record().WaitForLog("/dev/ttyUSB3: no device.", round + 1, 5s));
        if (round == 1)
            descriptors = board->Daemon().OpenDescriptors();
        EXPECT_EQ(WordAt(Status(), kStateAt), kNoDevice);
        EXPECT_EQ(TextAt(Status(), kModelAt), "") << "what was known of it is gone";
        EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == descriptors; }))
            << round;
    }
    EXPECT_FALSE(board->Record().WaitForLog("/dev/ttyUSB3: no device.", 5, 0ms))
        << "one line for each change";
}
