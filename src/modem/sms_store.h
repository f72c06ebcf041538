// SPDX-License-Identifier: MIT
// src/modem/sms_store.h: received messages in the file "/home/root/plexa_data/sms", one JSON object per line
// (sms_text.h). Modem thread.
#pragma once

#include "modem/sms_text.h"

#include <deque>
#include <map>
#include <vector>

class SmsStore
{
public:
    void Load(); // reads the last messages of the file, if there is one; call it once, first

    // Appends the message to the file unless it is there already, and syncs it. True if it is on the disk
    // afterwards; false if it could not be written, logged once until a write works again.
    //
    // The modem sends a message again that it could not delete, or not before a power cut. Two messages are
    // the same if sender, time and text are; without a time only if `index` is the same too and Deleted was
    // not called for it.
    bool Keep(int index, const SmsMessage &message);
    void Deleted(int index); // the modem has deleted the message: its index is free for another one

    std::vector<SmsMessage> Last() const; // at most wire::kMostModemSms, oldest first

private:
    bool IsKept(int index, const SmsMessage &message) const;
    bool Append(const SmsMessage &message); // false with errno

    std::deque<SmsMessage> kept_;         // oldest first
    std::map<int, SmsMessage> undeleted_; // by index
    bool failing_ = false;
};
