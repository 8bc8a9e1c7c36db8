// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/handler_chain.h"

// The C library's own restorer cannot be asked for without installing an action through it, which
// it refuses for this signal. Unwinders know a restorer by its instructions, byte by byte, or by
// its unwind data, which say here that all registers are found in the kernel's signal frame, whose
// `ucontext` the stack pointer points at. The data begin a byte early, because the handler's return
// address is looked up one byte before it, as if a call stood there.

// Number of a register in the DWARF map, and its offset in `ucontext`, as two bytes of SLEB128.
#define TU_SAVED(number, offset) \
    ".cfi_escape 0x10, " #number ", 3, 0x77, (" #offset " & 0x7f) | 0x80, " #offset " >> 7\n\t"

asm(".pushsection .text\n\t"
    ".balign 32\n\t"
    ".quad 0x9E1C77A453D02B6F\n\t"
    ".quad 0x41F8D35B0AE69C27\n\t"
    ".quad tuCapturePreviousAction - .\n\t"
    ".skip 7, 0x90\n\t"
    ".cfi_startproc\n\t"
    ".cfi_signal_frame\n\t"
    ".cfi_escape 0x0f, 4, 0x77, (160 & 0x7f) | 0x80, 160 >> 7, 0x06\n\t"
    TU_SAVED(8, 40) TU_SAVED(9, 48) TU_SAVED(10, 56) TU_SAVED(11, 64)
    TU_SAVED(12, 72) TU_SAVED(13, 80) TU_SAVED(14, 88) TU_SAVED(15, 96)
    TU_SAVED(5, 104) TU_SAVED(4, 112) TU_SAVED(6, 120) TU_SAVED(3, 128)
    TU_SAVED(1, 136) TU_SAVED(0, 144) TU_SAVED(2, 152) TU_SAVED(7, 160) TU_SAVED(16, 168)
    "nop\n\t"
    ".globl tuCaptureRestorer\n\t"
    ".hidden tuCaptureRestorer\n\t"
    ".type tuCaptureRestorer, @function\n"
    "tuCaptureRestorer:\n\t"
    "movq $15, %rax\n\t"
    "syscall\n\t"
    ".cfi_endproc\n\t"
    ".size tuCaptureRestorer, . - tuCaptureRestorer\n\t"
    ".popsection");

namespace ThreadUtilities::platform {

static_assert(chainMarkFirst == 0x9E1C77A453D02B6F && chainMarkSecond == 0x41F8D35B0AE69C27 &&
              chainMarkDistance == sizeof(ChainMark) + 8);

// Only the lines above may refer to it, which a compiler of whole programs does not see.
[[gnu::used]] constinit ChainLink previousAction{};

}  // namespace ThreadUtilities::platform
