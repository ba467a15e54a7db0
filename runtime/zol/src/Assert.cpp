// The C library declares __assert_fail only when assertions are on.
#undef NDEBUG
#include <assert.h>

#include "Zol/Assert.h"

#include <cstdio>

namespace Zol {

void assertFail(char const* message, char const* file, unsigned line, char const* function) {
  std::fprintf(stderr, "%s\n", message);
  std::fflush(stderr);
  __assert_fail(message, file, line, function);
}

}  // namespace Zol
