// SPDX-License-Identifier: MIT
// src/modem/modem_state.h: the state of the modem and its last messages. The modem thread writes them,
// sessions read copies. Any thread.
#pragma once

#include "modem/sms_text.h"
#include "records/modem_records.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Texts are UTF-8 and empty if they are not known.
struct ModemStatus {
    // At most kModemRegistered: kModemOnline depends on ppp0, at which the service looks when it is asked.
    wire::ModemState state = wire::kModemAbsent;
    std::int32_t signal = wire::kSignalUnknown; // dBm
    std::uint32_t registration = wire::kNotRegistered;
    std::uint32_t technology = wire::kTechnologyUnknown;
    bool attached = false; // to the packet service
    std::string operatorName;
    std::string manufacturer;
    std::string model;
    std::string imei;
    std::string lastError; // in words, however old
};

class ModemState
{
public:
    ModemStatus Status() const
    {
        const std::lock_guard lock(mutex_);
        return status_;
    }
    std::vector<SmsMessage> LastSms() const // oldest first
    {
        const std::lock_guard lock(mutex_);
        return lastSms_;
    }
    void SetLastSms(std::vector<SmsMessage> messages)
    {
        const std::lock_guard lock(mutex_);
        lastSms_ = std::move(messages);
    }
    // Calls `change` with the status under the lock; it must neither block nor use this object.
    template <typename Change> void Set(Change change)
    {
        const std::lock_guard lock(mutex_);
        change(status_);
    }

private:
    mutable std::mutex mutex_;
    ModemStatus status_;
    std::vector<SmsMessage> lastSms_;
};
