// The library's few messages: each in its function's own words, on the stream
// its callers have always read it from. Nothing else in the library prints.
#pragma once

namespace bv {

enum class Stream { Out, Err };

// printf-style message to standard output or standard error, flushed so that
// it appears in order with the host's own output.
void diag(Stream stream, const char *format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace bv
