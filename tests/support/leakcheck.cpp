#include "support/leakcheck.h"

#include "foundation/debug/memorymonitor.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"

namespace zorv {
namespace test {

using foundation::debug::MemoryMonitor;
using foundation::debug::ObjectMonitor;
using foundation::debug::SystemMonitor;

void LeakCheckedTest::SetUp() {
  objects_ = ObjectMonitor::LiveObjects();
  handles_ = SystemMonitor::LiveHandles();
  blocks_ = MemoryMonitor::LiveBlocks();
  bytes_ = MemoryMonitor::LiveBytes();
}

void LeakCheckedTest::TearDown() {
  MemoryMonitor::FailAfter(0);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects_) << "accounted objects leaked";
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles_) << "handles leaked";
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks_) << "blocks leaked";
  EXPECT_EQ(MemoryMonitor::LiveBytes(), bytes_) << "bytes leaked";
}

FailAfterGuard::FailAfterGuard(unsigned int n) { MemoryMonitor::FailAfter(n); }

FailAfterGuard::~FailAfterGuard() { MemoryMonitor::FailAfter(0); }

}  // namespace test
}  // namespace zorv
