// How a tree walk treats the name of a child entry in a server's listing.
//
// A listing is untrusted input. "." and ".." name the directory itself and
// its parent: walking into them would repeat the directory forever or climb
// out of the tree, so walks pass over them. A name containing "/" (or a NUL
// byte, which no file name can hold) is not one path element: joined to a
// local or remote directory it would point somewhere else, so walks refuse
// it. A name that a listing shows twice names one entry: walks take it
// once, at its first line (deleting it twice would fail on the second
// attempt, after everything before it had gone). Download and remove both
// walk a listing with for_each_child(); only what they do with a refused
// name differs.

#ifndef BRINDLE_OPS_CHILD_NAME_H_
#define BRINDLE_OPS_CHILD_NAME_H_

#include <filesystem>
#include <functional>
#include <string_view>

#include "listing/remote_listing.h"

enum class ChildName { ordinary, self_or_parent, unsafe };

ChildName classify_child_name(std::string_view name);

// The reason that skip lines and messages give for a refused name.
inline constexpr std::string_view kUnsafeNameReason = "unsafe file name";

// Called with a child that a walk may enter and its name (for a link, the
// part before " -> "), a view into the child's line.
using ChildVisitor =
    std::function<void(const RemoteEntry& child, std::string_view name)>;
// Called with `directory` joined to a refused name.
using UnsafeChildHandler =
    std::function<void(const std::filesystem::path& path)>;

// Goes through `listing`, the children of `directory`, in listing order:
// passes over "." and "..", calls `refuse` for a name that is not one path
// element and `visit` for every other child whose name it has not visited
// before. The names already visited are kept as views into the listing's
// lines, not as copies. An exception from either ends the walk.
void for_each_child(const RemoteListing& listing,
                    const std::filesystem::path& directory,
                    const ChildVisitor& visit,
                    const UnsafeChildHandler& refuse);

#endif  // BRINDLE_OPS_CHILD_NAME_H_
