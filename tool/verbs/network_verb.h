// SPDX-License-Identifier: MIT
// tool/verbs/network_verb.h: "ledboard network show|dhcp|static"
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineNetwork(CLI::App &command);

} // namespace ledboard
