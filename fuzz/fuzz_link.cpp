// SPDX-License-Identifier: MIT
// Route netlink datagrams: every message taken shortens what is left, nothing is read beyond it.
#include "addressing/netlink.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    wire::Bytes left = wire::BytesAt(data, size);
    for (std::size_t before = left.size(); TakeLinkMessage(&left); before = left.size()) {
        if (left.size() >= before)
            std::abort();
    }
    return 0;
}
