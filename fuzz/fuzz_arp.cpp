// SPDX-License-Identifier: MIT
// ARP packets of a hostile cable. Each input is a series of steps: a pause of 0 to 255 tenths of a second, a
// tick, and the 28 bytes of a packet. The claim must only ask for actions that its state allows.
#include "addressing/arp_socket.h"
#include "addressing/link_local_claim.h"

#include <algorithm>
#include <cstdlib>

namespace
{

constexpr MacAddress kOwn = {2, 'L', 'E', 'D', 0, 1};

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

// Puts the claim's own address in place of 255.255.255.255: the fuzzer would never guess it.
HeardArp AimedAt(HeardArp packet, std::uint32_t address)
{
    if (packet.senderAddress == 0xFFFFFFFF)
        packet.senderAddress = address;
    if (packet.targetAddress == 0xFFFFFFFF)
        packet.targetAddress = address;
    return packet;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using Action = LinkLocalClaim::Action;
    LinkLocalClaim claim;
    LinkLocalClaim::Moment now{std::chrono::seconds(100)};
    claim.Start(kOwn, now);
    for (wire::Bytes left = wire::BytesAt(data, size); !left.empty();) {
        now += std::chrono::milliseconds(100 * static_cast<int>(left.front()));
        left = left.subspan(1);
        const bool held = claim.Holds();
        const Action ticked = claim.Tick(now);
        Require(ticked != Action::kGiveUp && (ticked != Action::kAnnounce || held) &&
                (ticked != Action::kClaim || claim.Holds()));
        const std::size_t length = std::min(left.size(), sizeof(wire::ArpPacket));
        const auto packet = DecodeArp(left.first(length));
        left = left.subspan(length);
        if (!packet)
            continue;
        const bool holds = claim.Holds();
        const Action heard = claim.Hear(AimedAt(*packet, claim.Address()), now);
        Require(heard == Action::kNothing || holds);
        Require((heard == Action::kGiveUp) == (holds && !claim.Holds()));
        Require(claim.Address() >= 0xA9FE0100 && claim.Address() <= 0xA9FEFEFF);
    }
    return 0;
}
