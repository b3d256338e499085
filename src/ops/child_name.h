// How a tree walk treats the name of a child entry in a server's listing.
//
// A listing is untrusted input. "." and ".." name the directory itself and
// its parent: walking into them would repeat the directory forever or climb
// out of the tree, so walks pass over them. A name containing "/" (or a NUL
// byte, which no file name can hold) is not one path element: joined to a
// local or remote directory it would point somewhere else, so walks refuse it.

#ifndef BRINDLE_OPS_CHILD_NAME_H_
#define BRINDLE_OPS_CHILD_NAME_H_

#include <string_view>

enum class ChildName { ordinary, self_or_parent, unsafe };

ChildName classify_child_name(std::string_view name);

#endif  // BRINDLE_OPS_CHILD_NAME_H_
