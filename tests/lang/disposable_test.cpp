// AccountedNew/AccountedDelete and dispose(): accounted objects are recorded
// and forgotten; a disposable is destroyed once, however it was made.
#include "foundation/lang/disposable.h"

#include <stdexcept>

#include "foundation/debug/objectmonitor.h"
#include "lang/accounting.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::ObjectMonitor;
namespace lang = zorv::foundation::lang;

using DisposableTest = zorv::test::LeakCheckedTest;

struct Throwing {
  Throwing() { throw std::runtime_error("no"); }
};

struct Task : lang::IDisposable {
  explicit Task(int* destroyed) : destroyed_(destroyed) {}
  ~Task() override { ++*destroyed_; }
  int* destroyed_;
};

TEST_F(DisposableTest, AccountedObjectsAreRecordedAndForgotten) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  int destroyed = 0;
  Task* p = lang::AccountedNew<Task>(ZORV_ACCOUNTING_SITE("../lang/test", "Task"), &destroyed);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  lang::AccountedDelete(p, ZORV_ACCOUNTING_SITE("../lang/test", "~Task"));
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(destroyed, 1);
  lang::AccountedDelete(p, ZORV_ACCOUNTING_SITE("../lang/test", "~Task"));  // null: nothing
  EXPECT_THROW(lang::AccountedNew<Throwing>(ZORV_ACCOUNTING_SITE("../lang/test", "Throwing")),
               std::runtime_error);
}

// Calls the default dispose() through a null pointer, as hosts may; the
// sanitizer's null-call check would otherwise flag the call itself.
__attribute__((no_sanitize("undefined"))) void DisposeNull() {
  lang::IDisposable* none = nullptr;
  __asm__("" : "+r"(none));  // a pointer the compiler cannot see is null
  none->lang::IDisposable::dispose();
}

struct OtherBase {
  virtual ~OtherBase() = default;
  char padding[24] = {};
};

// The disposable base is not at the start of the object.
struct MixedTask : OtherBase, Task {
  explicit MixedTask(int* destroyed) : Task(destroyed) {}
};

TEST_F(DisposableTest, DisposeDestroysAccountedAndPlainObjectsOnce) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  int destroyed = 0;
  MixedTask* mixed = lang::MakeDisposable<MixedTask>("MixedTask", &destroyed);
  ASSERT_NE(static_cast<void*>(static_cast<lang::IDisposable*>(mixed)), static_cast<void*>(mixed));
  lang::IDisposable* const made[] = {lang::MakeDisposable<Task>("Task", &destroyed), mixed,
                                     new Task(&destroyed)};  // plain new: never recorded
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 2);
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    made[i]->dispose();
    EXPECT_EQ(destroyed, i + 1);
    EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + (i == 0 ? 1 : 0));
  }
  DisposeNull();  // does nothing
}

}  // namespace
