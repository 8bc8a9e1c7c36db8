// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "command.h"

struct Command::Channel {
    int ends[2] = {-1, -1};
};

Command::Command() : channel(std::make_unique<Channel>()) {
    if (pipe(channel->ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
}

Command::~Command() {
    send();
    close(channel->ends[0]);
}

void Command::wait() {
    pollfd readable{channel->ends[0], POLLIN, 0};
    poll(&readable, 1, -1);
}

// A closed pipe can be read at once.
void Command::send() {
    if (channel->ends[1] >= 0) {
        close(channel->ends[1]);
        channel->ends[1] = -1;
    }
}
