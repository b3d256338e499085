#include "ops/child_name.h"

#include <unordered_set>

ChildName classify_child_name(std::string_view name) {
  if (name == "." || name == "..") return ChildName::self_or_parent;
  if (name.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
    return ChildName::unsafe;
  return ChildName::ordinary;
}

void for_each_child(const RemoteListing& listing,
                    const std::filesystem::path& directory,
                    const ChildVisitor& visit,
                    const UnsafeChildHandler& refuse) {
  std::unordered_set<std::string_view> visited;
  visited.reserve(listing.size());
  for (const RemoteEntry& child : listing) {
    const std::string_view name = child.entry_name_view(false);
    switch (classify_child_name(name)) {
      case ChildName::self_or_parent:
        break;
      case ChildName::unsafe:
        refuse(directory / name);
        break;
      case ChildName::ordinary:
        if (visited.insert(name).second) visit(child, name);
        break;
    }
  }
}
