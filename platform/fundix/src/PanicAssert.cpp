#include "fundix/PanicAssert.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace Fundix {

void PanicAssert(const char* expression, const char* sourcePath, int line) {
    // A fixed buffer keeps this usable when the heap is exhausted or corrupt. Overlong input is cut, but
    // the line still ends with a newline.
    char buffer[2048];
    int length = std::snprintf(buffer, sizeof buffer, "panic: %s (%s:%d)\n", expression, sourcePath, line);
    if (length < 0) {
        length = 0;
    } else if (static_cast<std::size_t>(length) >= sizeof buffer) {
        length = sizeof buffer - 1;
        buffer[length - 1] = '\n';
    }
    if (::write(STDERR_FILENO, buffer, static_cast<std::size_t>(length)) < 0) {
        // Nothing sensible is left to do if stderr is gone; abort regardless.
    }
    std::abort();
}

}  // namespace Fundix
