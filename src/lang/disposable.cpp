// The default disposal of disposable objects.
#include "foundation/lang/disposable.h"

#include "foundation/debug/objectmonitor.h"

namespace zorv {
namespace foundation {
namespace lang {
namespace {

// The accounting source and line under which disposal has always been
// reported, kept so that reports read the same as those of earlier builds.
constexpr char kDisposeSource[] = "../../../include/foundation/threading/../lang/disposable.h";
constexpr int kDisposeLine = 22;
constexpr char kDisposeName[] = "dispose";

}  // namespace

IDisposable::~IDisposable() = default;

void IDisposable::dispose() {
  // The record was made for the complete object, whose address differs from
  // this base when a class derives from more than one base.
  IDisposable* self = this;
  // Hosts call dispose() through pointers that may be null; the barrier keeps
  // the compiler from assuming that `this` never is.
  __asm__("" : "+r"(self));
  if (self == nullptr) return;
  void* complete = dynamic_cast<void*>(self);
  if (debug::ObjectMonitor::_IsTrace() != 0) {
    debug::ObjectMonitor::LeakInfo info =
        debug::ObjectMonitor::_DecLeakInfoEx(complete, kDisposeSource, kDisposeLine, kDisposeName);
    if (info.block == nullptr) {
      // Never recorded: the host created it with plain new.
      delete self;
      return;
    }
    self->~IDisposable();
    debug::ObjectMonitor::_Dealloc(info.block, info.size);
  } else {
    debug::ObjectMonitor::_DecLeakEx(complete, kDisposeSource, kDisposeLine, kDisposeName);
    delete self;
  }
}

}  // namespace lang
}  // namespace foundation
}  // namespace zorv
