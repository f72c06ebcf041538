// SPDX-License-Identifier: MIT
// The 3G modem: from power-up to a data link and a message, and all that can be wrong with it.
#include "peer.h"
#include "udp_peer.h"

#include <algorithm>
#include <cstring>

using namespace std::chrono_literals;

namespace
{

constexpr char kSms[] = "/home/root/plexa_data/sms";

class Modem : public BoardTest
{
protected:
    Modem() { options.modem = true; }

    Peer LogIn() const
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Le32(8) + Le32(4)));
        EXPECT_EQ(peer.Take(8), Le32(8) + "\x04" + Zeros(3));
        return peer;
    }
    static std::string Request(std::uint32_t command) { return Le32(12) + "junk" + Le32(command); }

    // The 308 bytes of the status; empty when they do not come.
    std::string Status() const
    {
        const Peer peer = LogIn();
        EXPECT_TRUE(peer.Send(Request(1)));
        std::string reply = peer.Take(308);
        EXPECT_EQ(reply.substr(0, 8), Le32(308) + Le32(1));
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
        return offset < reply.size() ? std::string(reply.c_str() + offset) : "none";
    }
    bool WaitForState(std::uint32_t state, std::chrono::milliseconds limit = 20s)
    {
        return board->WaitFor([&] { return WordAt(Status(), 8) == state; }, limit);
    }
    long Calls(const std::vector<std::string> &words) const
    {
        return std::ranges::count(board->Record().StandInCalls(), words);
    }
    bool WaitForSms(const std::string &content)
    {
        return board->WaitFor(
            [&] { return board->Root().TryRead(kSms).value_or("").find(content) != std::string::npos; }, 20s);
    }
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
    options.files["/etc/ppp/peers/3g"] = "/dev/ttyUSB0\n";
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

    ASSERT_TRUE(WaitForState(7));
    const std::string status = Status();
    EXPECT_EQ(WordAt(status, 12), static_cast<std::uint32_t>(-79)); // dBm
    EXPECT_EQ(WordAt(status, 16), 1U);                              // home network
    EXPECT_EQ(WordAt(status, 20), 2U);                              // UTRAN
    EXPECT_EQ(WordAt(status, 24), 1U);                              // attached
    EXPECT_EQ(status.substr(28, 4), "\x0A\x40\x40\x40");            // 10.64.64.64
    EXPECT_EQ(TextAt(status, 32), "Example, Net");
    EXPECT_EQ(TextAt(status, 80), "Example Works");
    EXPECT_EQ(TextAt(status, 112), "Model 3");
    EXPECT_EQ(TextAt(status, 144), "490154203237518");

    const Peer peer = LogIn();
    EXPECT_TRUE(peer.Send(Request(2) + Request(2)));
    for (int i = 0; i < 2; ++i) {
        const std::string sms = peer.Take(12 + 512);
        EXPECT_EQ(sms.substr(0, 12), Le32(524) + Le32(2) + Le32(1));
        EXPECT_LE(time(nullptr) - static_cast<time_t>(WordAt(sms, 12)), 60);
        EXPECT_EQ(TextAt(sms, 20), "+4915112345678");
        EXPECT_EQ(TextAt(sms, 60), "Öffne $(touch /home/root/x) \"das\" Tor\nOK\n€ 😀");
    }

    // Somebody ends pppd by a signal: it is dialled again after 10 s, and that was no failure. The link
    // monitor ends the new one too when it is late enough to find the route of the modem there.
    const std::string lastError = TextAt(Status(), 164);
    const long before = Calls({"pppd", "call", "3g"});
    EXPECT_EQ(board->Run("killall pppd").status, 0);
    EXPECT_TRUE(board->Record().WaitForLog("modem link is down."));
    ASSERT_TRUE(board->Record().WaitForLog("modem link is up.", 2, 60s));
    const long calls = Calls({"pppd", "call", "3g"});
    EXPECT_GT(calls, before);
    if (!board->Record().WaitForLog(";killall pppd]", 1, 0ms)) {
        EXPECT_EQ(calls, 2);
        EXPECT_EQ(TextAt(Status(), 164), lastError);
    }

    // What was received outlives the daemon, the link too; a new daemon finds both.
    board->Daemon().Restart();
    ASSERT_TRUE(WaitForState(7));
    EXPECT_EQ(Calls({"pppd", "call", "3g"}), calls);
    const Peer again = LogIn();
    EXPECT_TRUE(again.Send(Request(2)));
    EXPECT_EQ(TextAt(again.Take(524), 20), "+4915112345678");
}

TEST_F(Modem, OddRequestsEndTheSession)
{
    options.modem = false;
    Boot();
    EXPECT_EQ(WordAt(Status(), 8), 0U); // no modem
    for (const std::string &bytes : {Request(0), Request(3), Request(0xFFFFFFFF), Le32(11) + Zeros(7),
                                     Le32(8) + Le32(1), Le32(4), Le32(0)}) {
        const Peer peer = LogIn();
        EXPECT_TRUE(peer.Send(bytes));
        EXPECT_TRUE(peer.Ended()) << bytes.size();
    }
    const Peer longer = LogIn();
    EXPECT_TRUE(longer.Send(Le32(20) + Zeros(4) + Le32(2) + Zeros(8)));
    EXPECT_EQ(longer.Take(12), Le32(12) + Le32(2) + Le32(0));
}

TEST_F(ModemTrouble, SimAndNetwork)
{
    options.startDaemon = false;
    Boot();
    board::Modem &modem = board->Modem();
    modem.KnowUcs2(false);
    modem.SetSim(board::ModemSim::kNone);
    board->Daemon().Start();
    ASSERT_TRUE(WaitForState(3));
    EXPECT_EQ(TextAt(Status(), 164), "AT+CPIN?: SIM not inserted");
    EXPECT_EQ(TextAt(Status(), 112), "Model 3");
    modem.SetSim(board::ModemSim::kPin);
    ASSERT_TRUE(WaitForState(4));
    EXPECT_EQ(TextAt(Status(), 164), "the SIM wants: SIM PIN");
    modem.SetSim(board::ModemSim::kReady);
    ASSERT_TRUE(WaitForState(6));
    EXPECT_EQ(Calls({"pppd", "call", "3g"}), 0) << "there is nothing to call";

    // Without UCS2 a text comes as it is, whatever it looks like.
    modem.Deliver("+49151", "first\nOK\n\nOK\nlast");
    modem.Deliver("Gate", "Ä€");
    EXPECT_TRUE(WaitForSms("\"sender\":\"+49151\",\"text\":\"first\\nOK\\n\\nOK\\nlast\""));
    EXPECT_TRUE(WaitForSms("\"sender\":\"Gate\",\"text\":\"Ä€\""));

    modem.SetSignal(99);
    modem.SetNetwork(board::ModemNetwork::kRoaming);
    ASSERT_TRUE(board->Record().WaitForLog("registered, roaming.", 1, 20s));
    std::string status = Status();
    EXPECT_EQ(WordAt(status, 16), 5U);
    EXPECT_EQ(WordAt(status, 12), static_cast<std::uint32_t>(-79)) << "an unknown signal keeps the old";
    modem.SetNetwork(board::ModemNetwork::kDenied);
    ASSERT_TRUE(WaitForState(5));
    status = Status();
    EXPECT_EQ(WordAt(status, 16), 3U);
    EXPECT_EQ(TextAt(status, 32), "");
    const auto commands = modem.Commands();
    EXPECT_TRUE(std::ranges::none_of(commands, [](auto &one) { return one.starts_with("AT+CPIN="); }));
}

TEST_F(ModemTrouble, OneCommandWithoutAnAnswerHoldsUpNoOther)
{
    options.startDaemon = false;
    options.files["/etc/ppp/peers/3g"] = "/dev/ttyUSB0\n";
    Boot();
    board->Modem().Ignore("AT+COPS?");
    board->Daemon().Start();
    EXPECT_TRUE(board->Record().WaitForLog("modem link is up.", 1, 30s));
    board->Modem().Deliver("+49151", "all the same");
    EXPECT_TRUE(WaitForSms("all the same"));
    const std::string status = Status();
    EXPECT_EQ(WordAt(status, 8), 7U);
    EXPECT_EQ(WordAt(status, 24), 1U) << "asked for after the one without an answer";
    EXPECT_EQ(TextAt(status, 164), "AT+COPS?: no answer");
}

TEST_F(ModemHang, NobodyWaitsForItAndItIsOpenedAgain)
{
    options.startDaemon = false;
    Boot();
    board->Modem().Hang(true);
    board->Daemon().Start();
    ASSERT_TRUE(WaitForState(2, 20s));
    const UdpPeer pc;
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(pc.Send(Zeros(30), board->Network().BoardAddress()));
        EXPECT_TRUE(pc.Receive());
        EXPECT_EQ(WordAt(Status(), 8), 2U);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, 3s);
    EXPECT_TRUE(board->Record().WaitForLog("opened again.", 1, 40s));
    // Answers that come late belong to no later command.
    board->Modem().Say("\r\n+CREG: 0,3\r\n\r\nOK\r\n\r\nOK\r\n\r\nERROR\r\n");
    board->Modem().Hang(false);
    ASSERT_TRUE(WaitForState(6));
    EXPECT_EQ(WordAt(Status(), 16), 1U);
    EXPECT_EQ(TextAt(Status(), 112), "Model 3");
}

TEST_F(ModemPulled, IsTakenUpAgainAndAgain)
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
        EXPECT_EQ(WordAt(Status(), 8), 0U);
        EXPECT_EQ(TextAt(Status(), 112), "") << "what was known of it";
        EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == descriptors; }))
            << round;
    }
    EXPECT_FALSE(board->Record().WaitForLog("/dev/ttyUSB3: no device.", 5, 0ms))
        << "one line when it changes";
}
