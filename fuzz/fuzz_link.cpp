// SPDX-License-Identifier: MIT
// Route netlink datagrams: every message and attribute taken shortens what is left and lies within it.
#include "addressing/netlink.h"

#include <cstdlib>

namespace
{

// Takes all items off `left`; what remains is shorter after each.
template <typename Take, typename Use> void TakeAll(wire::Bytes left, Take take, Use use)
{
    for (wire::Bytes before = left; const auto item = take(&left); before = left) {
        if (left.size() >= before.size())
            std::abort();
        use(*item, before);
    }
}

void RequireWithin(wire::Bytes part, wire::Bytes whole)
{
    if (part.data() < whole.data() || part.size() > whole.size() ||
        part.data() + part.size() > whole.data() + whole.size())
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    TakeAll(wire::BytesAt(data, size), TakeNetlinkMessage,
            [](const NetlinkMessage &message, wire::Bytes left) {
                RequireWithin(message.body, left);
                LinkIsUp(message);
                TakeAll(message.body, TakeNetlinkAttribute,
                        [](const NetlinkAttribute &attribute, wire::Bytes rest) {
                            RequireWithin(attribute.value, rest);
                        });
            });
    return 0;
}
