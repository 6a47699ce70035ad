#include "support/secret.h"

#include <new>

namespace corvel::storage::support {

void WipeText(std::string* text) {
  // Growing to the capacity brings every byte the text owns within its bounds
  // without moving it.
  text->resize(text->capacity());
  OPENSSL_cleanse(text->data(), text->size());
  text->clear();
}

HeapText CopyHeapText(const char* text) {
  HeapText copy(strdup(text));
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

}  // namespace corvel::storage::support
