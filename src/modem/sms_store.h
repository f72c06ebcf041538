// SPDX-License-Identifier: MIT
// src/modem/sms_store.h: messages on the disk: "/home/root/plexa_data/sms", one JSON object a line. Modem
// thread.
#pragma once

#include "modem/sms_text.h"

#include <deque>
#include <map>
#include <vector>

class SmsStore
{
public:
    void Load(); // the last messages of the file, if there is one

    // True when the message is on the disk, now or from before: one that could not be deleted from its place
    // in the modem, or was not for a power cut, comes again. Without a time it counts as the same only in the
    // same place. False (logged once) when it could not be written.
    bool Keep(int place, const SmsMessage &message);
    void Deleted(int place); // from the modem

    // The last ten, oldest first.
    std::vector<SmsMessage> Last() const;

private:
    bool IsKept(int place, const SmsMessage &message) const;
    bool Append(const SmsMessage &message);

    std::deque<SmsMessage> kept_;         // as many as a SIM may still hold
    std::map<int, SmsMessage> undeleted_; // by their place
    bool failing_ = false;
};
