#include "ops/child_name.h"

ChildName classify_child_name(std::string_view name) {
  if (name == "." || name == "..") return ChildName::self_or_parent;
  if (name.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
    return ChildName::unsafe;
  return ChildName::ordinary;
}
