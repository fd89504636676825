// Key paths: how plist-tool names one value inside a property list, and the edits at one.
//
// A key path is keys and array indexes joined by dots: "servers.0.name". In a dictionary a
// component is a key, in an array a decimal index. "\." is a dot inside a key and "\\" a
// backslash; any other backslash stands for itself. The empty key path is the top value.
#ifndef PLIST_TOOL_KEY_PATH_H
#define PLIST_TOOL_KEY_PATH_H

#include "Values.h"

#include <string>
#include <vector>

namespace PlistTool {

using KeyPath = std::vector<std::string>;

KeyPath ParseKeyPath (std::string const & text);
// The first `count` components, escaped so that ParseKeyPath reads them back.
std::string KeyPathText (KeyPath const & path, std::size_t count);
// `key path "a.b": reason`, for the first `count` components of `path`.
Failure KeyPathFailure (KeyPath const & path, std::size_t count, std::string const & reason);

// The value at `path`, lent by `root`. Throws a key-path failure naming the first component that
// isn't there, or that steps into a value other than an array or dictionary.
PLTypeRef Find (PLTypeRef root, KeyPath const & path);

// The edits of -insert, -replace and -remove:
// - insert: into a dictionary, only under a key that isn't there; into an array, before the value
//   at the index, or at the end when the index is the count; never at the top;
// - replace: only a value that is there; at the top, the whole property list;
// - remove: only a value that is there; never the top value.
enum class Edit { kInsert, kReplace, kRemove };

// Applies `edit` (with `value`, null for remove) in `root`, whose containers are mutable, and
// gives the top value afterwards, owned. Nothing changes when it throws.
PLTypeRef ApplyEdit (PLTypeRef root, KeyPath const & path, Edit edit, PLTypeRef value);

}

#endif
