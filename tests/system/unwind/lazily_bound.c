// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Linked for lazy binding: the first call of each function goes through the binder.

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

int callLazilyBound(const char* text) {
    char copy[64];
    strncpy(copy, text, sizeof(copy) - 1);
    copy[63] = 0;
    char* const duplicate = strdup(copy);
    const int found = strcspn(duplicate, "xyz") + toupper(duplicate[0]) + abs(atoi(copy));
    free(duplicate);
    return found + (strstr(copy, "b") != NULL) + (int)strtol("77", NULL, 8);
}
