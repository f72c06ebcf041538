// SPDX-License-Identifier: MIT
// src/settings/setting_commands.h: the commands of the setting service, for its own units. With its
// lock held.
#pragma once

#include "settings/serial_thread.h"
#include "settings/setting_answer.h"

#include <string>

// Handles the command in the service's packet. Handlers give non-zero to go on, 0 to end the connection.
class KSerialThread::Commands
{
public:
    Commands(KSerialThread *service, Client client, SettingAnswer *answer);
    int Run(std::uint32_t code);

private:
    using Handler = int (Commands::*)();
    struct Row {
        std::uint32_t code;
        const char *log; // printed first, NULL for nothing
        Handler handler;
    };
    // What the two file transfers differ in.
    struct TransferKind {
        int openLine; // printed when the file does not open
        int kindLine; // printed for an unknown sub-command
        const char *(*choosePath)();
        void (*stored)(SettingAnswer *answer);
    };
    static const std::array<Row, 29> kRows;
    static const TransferKind kLuminanceTransfer;
    static const TransferKind kBootScreenTransfer;

    wire::Bytes Argument() const;       // what the packet brought behind the code
    const char *ArgumentText() const;   // ends at a zero, the packet is cleared behind what it brought
    std::uint32_t ArgumentWord() const; // 0 for what it did not bring
    void Acknowledge();

    int End();
    int Start();
    int RtsOpen();
    int RtsClose();
    int ReadRefresh();
    int Save();
    int CopyOver();
    int NotSave();
    int ReadScreen();
    int ReadFile();
    int SendToFpga();
    int Name();
    int SetClock();
    int Brightness();
    int LuminanceFile();
    int GetClock();
    int Debug();
    int BootScreen();
    int ClearBootScreen();
    int Identity();
    int Refuse();
    int SlantLine();
    int Probe();
    int TakePlayerCopy();
    int ReadLuminance();
    int SmartOff();
    int SmartOn();
    int ReadPloy();
    int WritePloy();

    int Receive(const TransferKind &kind, Transfer *transfer);
    int ReceiveData(const TransferKind &kind, Transfer *transfer);
    int ReceiveEnd(const TransferKind &kind, Transfer *transfer);
    void WorkingCopyChanged(); // boot copy and device record follow
    void StageAgain();         // the last steps of saving

    KSerialThread *service_;
    Client client_;
    SettingAnswer *answer_;
    std::uint32_t code_ = 0;
};
