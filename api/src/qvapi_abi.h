#ifndef QVAPI_ABI_H
#define QVAPI_ABI_H

// The library takes and returns the std::string of libstdc++'s C++11 ABI, the default of GCC and
// Clang on Linux. With any other, an application would compile and then not link, or worse.

#include <string>

#if defined(_LIBCPP_VERSION)
#error "libqvapi needs libstdc++'s std::string: compile and link without -stdlib=libc++"
#elif !_GLIBCXX_USE_CXX11_ABI
#error "libqvapi needs the C++11 ABI of std::string: compile without -D_GLIBCXX_USE_CXX11_ABI=0"
#endif

#endif  // QVAPI_ABI_H
