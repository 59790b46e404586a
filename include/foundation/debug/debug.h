// All declarations of the debug-support library.
#ifndef ZORV_FOUNDATION_DEBUG_DEBUG_H_
#define ZORV_FOUNDATION_DEBUG_DEBUG_H_

#include "foundation/debug/allocator.h"
#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/debug/report.h"
#include "foundation/debug/systemmonitor.h"

#endif  // ZORV_FOUNDATION_DEBUG_DEBUG_H_
