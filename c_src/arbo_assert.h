// Fatal assertions: broken invariants and exhausted memory abort the runtime
// with the function, source file, line and expression. They are never
// compiled out (NDEBUG does not touch them).
#ifndef ARBO_ASSERT_H
#define ARBO_ASSERT_H

namespace arbo {
[[noreturn]] void assert_fail(const char* expr, const char* func, const char* file, int line);
}  // namespace arbo

#define ARBO_ASSERT(expr)                                                      \
  do {                                                                         \
    if (!(expr)) ::arbo::assert_fail(#expr, __func__, __FILE_NAME__, __LINE__); \
  } while (0)

// Assert with a message text that differs from the expression (the text is
// part of the contract, e.g. "0" or "d->lock").
#define ARBO_ASSERT_MSG(cond, text)                                            \
  do {                                                                         \
    if (!(cond)) ::arbo::assert_fail(text, __func__, __FILE_NAME__, __LINE__);  \
  } while (0)

#endif  // ARBO_ASSERT_H
