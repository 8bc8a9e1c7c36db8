// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

/// A command from outside that comes once. Waiting for it blocks in the system, not on a lock of
/// the C++ library.
class Command {
 public:
    Command();
    ~Command();

    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    void wait();
    void send();

 private:
    struct Channel;
    std::unique_ptr<Channel> channel;
};
