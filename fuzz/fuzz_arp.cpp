// SPDX-License-Identifier: MIT
// ARP packets of a hostile cable: each input is a series of steps, a pause of 0 to 255 tenths of a second
// with a tick behind it and 28 bytes of a packet. What the claim asks for must stay possible.
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

// The packet speaks of the claim's own address where the fuzzer says so, or it would never guess it.
ArpNews AimedAt(ArpNews news, std::uint32_t address)
{
    if (news.senderAddress == 0xFFFFFFFF)
        news.senderAddress = address;
    if (news.targetAddress == 0xFFFFFFFF)
        news.targetAddress = address;
    return news;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using Deed = LinkLocalClaim::Deed;
    LinkLocalClaim claim;
    LinkLocalClaim::Moment now{std::chrono::seconds(100)};
    claim.Start(kOwn, now);
    for (wire::Bytes left = wire::BytesAt(data, size); !left.empty();) {
        now += std::chrono::milliseconds(100 * static_cast<int>(left.front()));
        left = left.subspan(1);
        const bool held = claim.Holds();
        const Deed ticked = claim.Tick(now);
        Require(ticked != Deed::kGiveUp && (ticked != Deed::kAnnounce || held) &&
                (ticked != Deed::kClaim || claim.Holds()));
        const std::size_t length = std::min(left.size(), sizeof(wire::ArpPacket));
        const auto news = DecodeArp(left.first(length));
        left = left.subspan(length);
        if (!news)
            continue;
        const bool holds = claim.Holds();
        const Deed heard = claim.Hear(AimedAt(*news, claim.Address()), now);
        Require(heard == Deed::kNothing || holds);
        Require((heard == Deed::kGiveUp) == (holds && !claim.Holds()));
        Require(claim.Address() >= 0xA9FE0100 && claim.Address() <= 0xA9FEFEFF);
    }
    return 0;
}
