#include "platform/nubbase.h"

#include <cstdarg>
#include <cstdio>

int str_snprintf(char *buf, size_t size, const char *format, ...) {
    if (format == nullptr || (buf == nullptr && size > 0)) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int iLength = std::vsnprintf(buf, size, format, arguments);
    va_end(arguments);
    // What a failed call leaves in the buffer is unspecified, and callers go on to use it as text.
    if (iLength < 0 && size > 0) {
        buf[0] = '\0';
    }
    return iLength < 0 ? -1 : iLength;
}
