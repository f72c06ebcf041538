// SPDX-License-Identifier: MIT
// records/modem_records.h: packets of the modem service (docs/protocols.md, "Modem").
//
// Texts are UTF-8 and end in a zero byte unless they fill their field.
#pragma once

#include "records/session_records.h"

namespace wire
{

enum ModemCommand : std::uint32_t {
    kModemStatus = 1,
    kModemSms = 2,
};

struct ModemRequest {
    FrameHeader frame;
    U32 command;
};
static_assert(sizeof(ModemRequest) == 12);
static_assert(offsetof(ModemRequest, frame) == 0);
static_assert(offsetof(ModemRequest, command) == 8);

enum ModemState : std::uint32_t {
    kModemAbsent = 0,    // no device, or one that cannot be opened
    kModemStarting = 1,  // found, not yet known how it is
    kModemSilent = 2,    // does not answer
    kModemNoSim = 3,     // no SIM, or one that does not work
    kModemLocked = 4,    // the SIM wants a PIN or the like
    kModemSearching = 5, // not registered with a network
    kModemRegistered = 6,
    kModemOnline = 7, // registered, and ppp0 has an address
};

// As 3GPP TS 27.007, 7.2 counts them.
enum ModemRegistration : std::uint32_t {
    kNotRegistered = 0,
    kRegisteredHome = 1,
    kSearching = 2,
    kRegistrationDenied = 3,
    kRegistrationUnknown = 4,
    kRegisteredRoaming = 5,
};

// As 3GPP TS 27.007, 7.3 counts access technologies.
constexpr std::uint32_t kTechnologyUnknown = 255;

constexpr std::int32_t kSignalUnknown = 0; // no dBm of a signal is 0

struct ModemStatusReply {
    U32 length;       // 308
    U32 command;      // 1
    U32 state;        // ModemState
    I32 signal;       // dBm
    U32 registration; // ModemRegistration
    U32 technology;
    U32 attached;  // 1: to the packet service
    U8 address[4]; // of ppp0, first byte first; zeros: none
    char operatorName[48];
    char manufacturer[32];
    char model[32];
    char imei[20];
    char lastError[144];
};
static_assert(sizeof(ModemStatusReply) == 308);
static_assert(offsetof(ModemStatusReply, length) == 0);
static_assert(offsetof(ModemStatusReply, command) == 4);
static_assert(offsetof(ModemStatusReply, state) == 8);
static_assert(offsetof(ModemStatusReply, signal) == 12);
static_assert(offsetof(ModemStatusReply, registration) == 16);
static_assert(offsetof(ModemStatusReply, technology) == 20);
static_assert(offsetof(ModemStatusReply, attached) == 24);
static_assert(offsetof(ModemStatusReply, address) == 28);
static_assert(offsetof(ModemStatusReply, operatorName) == 32);
static_assert(offsetof(ModemStatusReply, manufacturer) == 80);
static_assert(offsetof(ModemStatusReply, model) == 112);
static_assert(offsetof(ModemStatusReply, imei) == 144);
static_assert(offsetof(ModemStatusReply, lastError) == 164);

constexpr std::size_t kMostModemSms = 10;

struct ModemSms {
    I64 time; // seconds since 1970, UTC; 0: not known
    char sender[40];
    char text[464];
};
static_assert(sizeof(ModemSms) == 512);
static_assert(offsetof(ModemSms, time) == 0);
static_assert(offsetof(ModemSms, sender) == 8);
static_assert(offsetof(ModemSms, text) == 48);

// `count` ModemSms follow, oldest first.
struct ModemSmsReply {
    U32 length;  // the whole reply
    U32 command; // 2
    U32 count;   // at most kMostModemSms
};
static_assert(sizeof(ModemSmsReply) == 12);
static_assert(offsetof(ModemSmsReply, length) == 0);
static_assert(offsetof(ModemSmsReply, command) == 4);
static_assert(offsetof(ModemSmsReply, count) == 8);

} // namespace wire
