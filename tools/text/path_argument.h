// What a PATH on the command line stands for.
#ifndef TARN_TOOLS_TEXT_PATH_ARGUMENT_H
#define TARN_TOOLS_TEXT_PATH_ARGUMENT_H

#include <string>

// Absolute, without "." and doubled slashes, and without resolving links: the spelling under which the cache knows a
// file. ".." is taken out textually where that names the same file, else the links are resolved. Empty, with errno set,
// when the working folder is gone.
std::string AbsolutePath(const std::string &strPath);

// A pattern that names folders counts from the working folder unless it starts with "/" or "*", as a PATH does; a "/"
// at its end, as completion leaves it, means nothing.
std::string AbsoluteGlob(const std::string &strGlob);

struct _PathArgument {
    std::string strOpen; // what to open: the argument as given, or the target of a link
    std::string strPath; // the name to report and to cache
    bool bLink = false;  // the argument itself is a link; both names are then its target's
};

// An argument that is a link stands for its target, under the target's own name: a record under the link's name would
// outlive a change of the target. False, with errno set, when a link leads nowhere or the working folder is gone.
bool ResolveArgument(const std::string &strArgument, _PathArgument &argument);

#endif
