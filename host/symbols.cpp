#include "host/symbols.h"

namespace host::symbols {
namespace {

// Information strings come as bytes or as text, and are treated alike.
std::string_view Utf8View(const pyrt::Object& value) {
  return pyrt::IsBytes(value) ? pyrt::BytesView(value) : pyrt::Utf8(pyrt::Text(value));
}

}  // namespace

bool StartsWith(const pyrt::Object& part, const pyrt::Name& prefix) {
  const pyrt::Object wanted = Constant(prefix);
  return Utf8View(part).starts_with(Utf8View(wanted));
}

pyrt::Text WithoutPrefix(const pyrt::Object& part) {
  static constinit pyrt::Name kPrefixLen{"kPrefixLen"};
  const auto length =
      static_cast<std::size_t>(pyrt::FromPython<std::int64_t>(Constant(kPrefixLen).get()));
  const std::string_view text = Utf8View(part);
  return pyrt::Text::FromUtf8(text.substr(std::min(length, text.size())));
}

}  // namespace host::symbols
