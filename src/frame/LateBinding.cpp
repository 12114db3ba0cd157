// Finding system functions on first use: one handle per system library, one
// address per entry point, each looked up once and kept for the process's life.
#include "frame/LateBinding.h"


namespace xk::latebound {

SystemLibrary g_user32{"USER32.DLL", nullptr};
SystemLibrary g_advapi32{"ADVAPI32.DLL", nullptr};

namespace {

char g_missingMarker;
void* const kMissing = &g_missingMarker;

// Runs lookup once per slot and publishes its answer (or the missing marker).
template <typename Lookup>
void* ResolveOnce(void** slot, Lookup lookup) {
  void* value = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
  if (!value) {
    void* found = lookup();
    value = found ? found : kMissing;
    __atomic_store_n(slot, value, __ATOMIC_RELEASE);
  }
  return value == kMissing ? nullptr : value;
}

HMODULE LibraryHandle(SystemLibrary& library) {
  return static_cast<HMODULE>(ResolveOnce(&library.handle, [&]() -> void* {
    return LoadLibraryA(library.fileName);
  }));
}

}  // namespace

void* Resolve(void** slot, const EntryName& name) {
  return ResolveOnce(slot, [&]() -> void* {
    const HMODULE module = LibraryHandle(*name.library);
    return module ? reinterpret_cast<void*>(GetProcAddress(module, name.function)) : nullptr;
  });
}

}  // namespace xk::latebound
