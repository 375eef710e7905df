#include "pysource/pyrt/convert.h"

namespace pyrt {

std::string_view Utf8(const Text& text) {
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(text.get(), &size);
  if (data == nullptr) ThrowPending();
  return {data, static_cast<std::size_t>(size)};
}

}  // namespace pyrt
