// The handler in every pure virtual slot: a pure call means the object is broken
// beyond repair, so the process is told why and then ends.
#include <windows.h>

extern "C" void OnPureCall() {
  // Loaded afresh each time and never freed: the process is about to end.
  if (HMODULE user32 = LoadLibraryA("USER32.DLL")) {
    if (auto show = reinterpret_cast<decltype(&MessageBoxA)>(
            reinterpret_cast<void*>(GetProcAddress(user32, "MessageBoxA"))))
      show(nullptr,
           "A pure virtual function was called. This is a fatal error, and indicates a serious "
           "error in the implementation of the application",
           "PureCall", MB_ICONHAND | MB_TASKMODAL);
  }
  ExitProcess(1);
}

// The compiler places this symbol in pure virtual slots.
extern "C" void __cxa_pure_virtual() { OnPureCall(); }
