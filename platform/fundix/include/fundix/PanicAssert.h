#pragma once

namespace Fundix {

// Reports a broken internal invariant and aborts. The report is the single line
// "panic: <expression> (<sourcePath>:<line>)" written to stderr with one write call, so it is not interleaved
// with output from other threads and needs no heap.
[[noreturn]] void PanicAssert(const char* expression, const char* sourcePath, int line);

}  // namespace Fundix

// Checked in every build type: these guard invariants whose violation would corrupt data.
#define FUNDIX_ASSERT(expr)                                   \
    do {                                                      \
        if (!(expr)) {                                        \
            ::Fundix::PanicAssert(#expr, __FILE__, __LINE__); \
        }                                                     \
    } while (false)
