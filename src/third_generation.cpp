// SPDX-License-Identifier: MIT
#include "third_generation.h"

int KThirdGeneration::DisposePacket(SocketSession *)
{
    return -1;
}
