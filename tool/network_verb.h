// SPDX-License-Identifier: MIT
// tool/network_verb.h: "ledboard network show|dhcp|static"
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineNetwork(CLI::App &command);

} // namespace ledboard
