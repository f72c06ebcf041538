// SPDX-License-Identifier: MIT
// src/modem/modem_state.h: what is known about the modem. The modem thread writes it, sessions read it; any
// thread.
#pragma once

#include "modem/sms_text.h"
#include "records/modem_records.h"

#include <mutex>
#include <string>
#include <vector>

struct ModemStatus {
    wire::ModemState state = wire::kModemAbsent; // up to kModemRegistered; kModemOnline is seen from outside
    std::int32_t signal = wire::kSignalUnknown;  // dBm
    std::uint32_t registration = wire::kNotRegistered;
    std::uint32_t technology = wire::kTechnologyUnknown;
    bool attached = false;
    std::string operatorName;
    std::string manufacturer;
    std::string model;
    std::string imei;
    std::string lastError;
};

class ModemState
{
public:
    ModemStatus Status() const
    {
        const std::lock_guard lock(mutex_);
        return status_;
    }
    std::vector<SmsMessage> LastSms() const
    {
        const std::lock_guard lock(mutex_);
        return lastSms_;
    }
    void SetLastSms(std::vector<SmsMessage> messages)
    {
        const std::lock_guard lock(mutex_);
        lastSms_ = std::move(messages);
    }
    // `change` gets the status to change, under the lock.
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
