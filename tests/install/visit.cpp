// The same program in C++, with the C++ header where there is one.
#if __has_include(<qvopl.hpp>)
#include <qvopl.hpp>
#endif

#include "visit.c"
