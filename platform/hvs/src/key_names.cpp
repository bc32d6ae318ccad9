// Key-name helpers of hvs/backend.h. They are built into a small static
// library of their own (hvs_names) that libhvsapi and hvsctl both link:
// libhvsapi exports only its C interface.
#include "hvs/backend.h"

namespace hvs {

const char *key_name_problem(std::string_view name) noexcept {
  if (name.empty())
    return "empty key name";
  if (name.front() == '.')
    return "leading dot";
  if (name.back() == '.')
    return "trailing dot";
  std::size_t run = 0;
  for (char c : name) {
    if (c == '.') {
      if (run == 0)
        return "empty component";
      run = 0;
    } else if (++run > kMaxComponent) {
      return "component longer than 255 bytes";
    }
  }
  return nullptr;
}

std::string_view parent_of(std::string_view name) noexcept {
  auto dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view{}
                                       : name.substr(0, dot);
}

std::string_view last_component(std::string_view name) noexcept {
  auto dot = name.rfind('.');
  return dot == std::string_view::npos ? name : name.substr(dot + 1);
}

} // namespace hvs
