#pragma once

/// Marks what programs may link to. The libraries are compiled with hidden visibility, so a shared
/// one offers exactly what carries `TOVANA_API`: the classes and functions of the installed
/// headers. A class carries it as a whole, so that its type is one on both sides and what is thrown
/// on one side is caught on the other.
///
/// `TOVANA_SHARED` is defined while a shared library of ours is compiled and for whoever uses it;
/// the installed CMake package sees to that. Static libraries need no marks.

#if defined(TOVANA_SHARED)
#define TOVANA_API __attribute__((visibility("default")))
#else
#define TOVANA_API
#endif
