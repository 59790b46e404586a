// The whole public API of the foundation library in one include.
#ifndef ZORV_FOUNDATION_FOUNDATION_H_
#define ZORV_FOUNDATION_FOUNDATION_H_

// Core types and the debug-support hooks.
#include "foundation/collection/vector.h"
#include "foundation/debug/debug.h"
#include "foundation/export.h"
#include "foundation/lang/accounted.h"
#include "foundation/lang/disposable.h"
#include "foundation/lang/exception.h"
#include "foundation/lang/interface.h"
#include "foundation/text/safestring.h"

// Text: string utilities, number text, codecs.
#include "foundation/text/codecutils.h"
#include "foundation/text/stringutils.h"

// Memory and streams: buffers and serialization.
#include "foundation/io/archiver.h"
#include "foundation/io/serialization.h"
#include "foundation/io/stream.h"
#include "foundation/memory/buffer.h"
#include "foundation/memory/memorybuffer.h"
#include "foundation/memory/stringreader.h"
#include "foundation/memory/stringwriter.h"

// Threading: locks, conditions, threads and tasks.
#include "foundation/threading/lock.h"
#include "foundation/threading/lockcondition.h"
#include "foundation/threading/readwritelock.h"
#include "foundation/threading/thread.h"

// Threading: pools, timers, schedulers.
#include "foundation/lang/injection/service.h"
#include "foundation/threading/scheduler/globaltaskscheduler.h"
#include "foundation/threading/scheduler/globaltimerscheduler.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/executor.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "foundation/threading/timer/timer.h"
#include "foundation/threading/timer/timerscheduler.h"

// Configuration files.
#include "foundation/config/configarchiver.h"
#include "foundation/config/datareader.h"

// File system.
#include "foundation/file/fileutils.h"

// Hashing.
#include "foundation/crypto/md5.h"
#include "foundation/crypto/sha1.h"
#include "foundation/crypto/sha256.h"

// System: clocks, processors, libraries, console.
#include "foundation/system/consoleutils.h"
#include "foundation/system/library.h"
#include "foundation/system/systemutils.h"

// System: named file lock, process control.
#include "foundation/system/filedlock.h"

// Date and time.
#include "foundation/time/datetime.h"
#include "foundation/time/stopwatch.h"

#endif  // ZORV_FOUNDATION_FOUNDATION_H_
