// The one place the library prints.
#include "common/diag.hpp"

#include <cstdarg>
#include <cstdio>

namespace bv {

void diag(Stream stream, const char *format, ...) {
    FILE *f = stream == Stream::Out ? stdout : stderr;
    va_list ap;
    va_start(ap, format);
    std::vfprintf(f, format, ap);
    va_end(ap);
    std::fflush(f);
}

}  // namespace bv
