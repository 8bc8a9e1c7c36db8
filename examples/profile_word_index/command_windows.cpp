// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <windows.h>

#include <system_error>

#include "command.h"

struct Command::Channel {
    HANDLE event = nullptr;
};

Command::Command() : channel(std::make_unique<Channel>()) {
    channel->event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (channel->event == nullptr) {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                                "CreateEvent");
    }
}

Command::~Command() {
    CloseHandle(channel->event);
}

void Command::wait() {
    WaitForSingleObject(channel->event, INFINITE);
}

void Command::send() {
    SetEvent(channel->event);
}
