#pragma once

// Code to step through, compiled once for every optimisation level.

namespace stepped {

#define STEPPED_CODE(level)          \
    namespace level {                \
    int realigned(int value);        \
    int variableSize(int value);     \
    int manyRegisters(int value);    \
    int recursion(int value);        \
    int containers(int value);       \
    int throwsAndCatches(int value); \
    int callsThroughC(int value);    \
    }
STEPPED_CODE(o0)
STEPPED_CODE(o1)
STEPPED_CODE(o2)
STEPPED_CODE(o3)
#undef STEPPED_CODE

}  // namespace stepped
