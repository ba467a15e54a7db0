// Broken invariants end the agent: the message goes to stderr, then the C library's assertion
// failure aborts. There is no recovery path.
#pragma once

namespace Zol {

[[noreturn]] void assertFail(char const* message, char const* file, unsigned line,
                             char const* function);

}  // namespace Zol

// The message is the condition's text.
#define ZOL_ASSERT(cond)                                                 \
  do {                                                                   \
    if (!(cond)) [[unlikely]]                                            \
      ::Zol::assertFail(#cond, __FILE__, __LINE__, __PRETTY_FUNCTION__); \
  } while (0)

// A fixed message instead of the condition's text.
#define ZOL_ASSERT_MSG(cond, message)                                      \
  do {                                                                     \
    if (!(cond)) [[unlikely]]                                              \
      ::Zol::assertFail(message, __FILE__, __LINE__, __PRETTY_FUNCTION__); \
  } while (0)
