#ifndef SUPPORT_UNESCAPE_H_
#define SUPPORT_UNESCAPE_H_

#include <cstddef>

/// Undoes the escaping of a field value: `\n`, `\r`, `\t`, `\\` and `\xHH`
/// (exactly two hexadecimal digits) become the byte they stand for; an unknown
/// or cut-off escape stays as it stands.
///
/// `in` is zero-terminated. `out` holds `outSize` bytes and is zero-terminated
/// on return unless `outSize` is 0; what does not fit is cut off. The result is
/// never longer than the input. Returns the number of bytes written before the
/// terminator.
std::size_t CRStringUnescapeA(const char* in, char* out, std::size_t outSize);

#endif  // SUPPORT_UNESCAPE_H_
