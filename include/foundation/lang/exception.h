// Exception: the one exception type the library throws for its own failures.
#ifndef ZORV_FOUNDATION_LANG_EXCEPTION_H_
#define ZORV_FOUNDATION_LANG_EXCEPTION_H_

#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace lang {

// A failure of the library's own operations, thrown and caught by value.
// It carries where the failure happened, as a dotted source such as
// "zorv.foundation.threading.ThreadPool.addTask", and what went wrong, as a
// short lower-case text such as "executor has stopped". It is not derived
// from std::exception; standard exceptions (std::bad_alloc, length errors)
// pass through the library untranslated.
class ZORV_FOUNDATION_EXPORT Exception {
 public:
  // Copies both texts. REQUIRES: neither pointer is null.
  // Throws std::bad_alloc when memory is exhausted.
  Exception(const char* func, const char* info);
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  ~Exception();

  // The dotted source of the failure (a copy).
  SafeString func() const;

  // The reason (a copy).
  SafeString info() const;

  // func(), then " : ", then info(), built anew on each call.
  SafeString what() const;

 private:
  SafeString func_;
  SafeString info_;
};

}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_LANG_EXCEPTION_H_
