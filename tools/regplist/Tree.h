// regplist's picture of a registry key tree, between the registry and a property list: each value
// with its name, its type and its bytes exactly as stored, and each sub-key with its own tree.
//
// The registry side goes through LibSkerry's Registry::Key and raises the library's exceptions;
// `where` follows the walk (the key's path, and the value when one is being read or written), so
// that a failure can say where it happened. The property-list side raises PlistTool::Failure with
// the place in the file, and checks the whole file before anything is written to the registry.
#ifndef REGPLIST_TREE_H
#define REGPLIST_TREE_H

#include "Values.h"

#include <LibSkerry/Utilities>

#include <string>
#include <vector>

namespace RegPlist {

struct Value {
    std::wstring fName;
    unsigned long fType;
    std::string fBytes;
};

struct Tree {
    std::wstring fName;    // of a sub-key; empty for the key exported or imported
    std::vector<Value> fValues;
    std::vector<Tree> fSubKeys;
};

// The values and sub-keys under `key`, in the registry's order; `where` names `key` on entry.
Tree ReadTree (const Skerry::Registry::Key & key, std::wstring & where);
// Creates the sub-keys that are missing and sets every value, replacing values of the same name;
// nothing else is removed.
void WriteTree (const Skerry::Registry::Key & key, const Tree & tree, std::wstring & where);

// UTF-8, for messages.
std::string Narrow (const std::wstring & text);

// The file's top dictionary, owned.
PLTypeRef CreatePropertyList (const Tree & tree);
Tree TreeFromPropertyList (PLTypeRef list);

}

#endif
