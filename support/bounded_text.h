#ifndef SUPPORT_BOUNDED_TEXT_H_
#define SUPPORT_BOUNDED_TEXT_H_

#include <cstddef>

namespace corvel::storage::support {

/// Copies the zero-terminated `text` into `out`, which holds `outSize` bytes,
/// terminator included. False when it does not fit; `out` then holds as much of
/// its beginning as does.
bool BoundedCopy(char* out, std::size_t outSize, const char* text);

/// Appends the zero-terminated `text` to the zero-terminated `out`, which holds
/// `outSize` bytes, terminator included. False, with `out` as it was, when the
/// result does not fit.
bool BoundedAppend(char* out, std::size_t outSize, const char* text);

}  // namespace corvel::storage::support

#endif  // SUPPORT_BOUNDED_TEXT_H_
