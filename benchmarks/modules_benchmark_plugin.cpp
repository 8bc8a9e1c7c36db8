// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Loaded a hundred times under a hundred names.
extern "C" int modulesBenchmarkPlugin() {
    return 0;
}
