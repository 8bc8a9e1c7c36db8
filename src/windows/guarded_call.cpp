// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "windows/guarded_call.h"

// Neither compiler that builds this has a guard to rely on: one has no __try at all, the other's
// misses faults of inlined code. One function in assembly, with the scope table that
// __C_specific_handler of the system's C library reads (PE/COFF x64 exception handling), works at
// every level of optimisation: the guarded range is exactly the call instruction.
//
// The table: one entry of begin, end, filter and landing place. Filter 1 is
// EXCEPTION_EXECUTE_HANDLER. The "nop" keeps the return address of the call inside the range. At
// the landing place the unwinder has put back this frame's stack pointer and preserved registers.
asm(R"(
    .text
    .p2align 4
    .globl threadUtilitiesGuardedCall
    .def threadUtilitiesGuardedCall; .scl 2; .type 32; .endef
    .seh_proc threadUtilitiesGuardedCall
threadUtilitiesGuardedCall:
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    .seh_handler __C_specific_handler, @except
    movq %rcx, %rax
    movq %rdx, %rcx
.LthreadUtilitiesGuardBegin:
    call *%rax
    nop
.LthreadUtilitiesGuardEnd:
    xorl %eax, %eax
    addq $40, %rsp
    ret
.LthreadUtilitiesGuardLanding:
    movl $1, %eax
    addq $40, %rsp
    ret
    .seh_handlerdata
    .long 1
    .rva .LthreadUtilitiesGuardBegin
    .rva .LthreadUtilitiesGuardEnd
    .long 1
    .rva .LthreadUtilitiesGuardLanding
    .text
    .seh_endproc
)");
