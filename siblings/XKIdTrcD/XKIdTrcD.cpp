// XKIdTrcD: names interface identifiers for traces, from the names the system's
// registry keeps under HKEY_CLASSES_ROOT\Interface.
#include "XKIdTrcD.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE hinst, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(hinst);
  return TRUE;
}

namespace {

void CopyText(char* buffer, int cch, const char* text) {
  int i = 0;
  for (; i + 1 < cch && text[i]; ++i) buffer[i] = text[i];
  buffer[i] = '\0';
}

}  // namespace

extern "C" BOOL WINAPI XKIdTrcD_InterfaceName(int, REFIID iid, char* buffer, int cch) {
  if (!buffer || cch <= 0) return FALSE;
  buffer[0] = '\0';

  WCHAR wideText[40];
  char braced[40];
  if (!StringFromGUID2(iid, wideText, 40) ||
      !WideCharToMultiByte(CP_ACP, 0, wideText, -1, braced, sizeof braced, nullptr, nullptr))
    return FALSE;

  char keyPath[64] = "Interface\\";
  CopyText(keyPath + 10, sizeof keyPath - 10, braced);
  char name[256];
  DWORD cb = sizeof name;
  if (RegGetValueA(HKEY_CLASSES_ROOT, keyPath, nullptr, RRF_RT_REG_SZ, nullptr, name, &cb) ==
          ERROR_SUCCESS &&
      name[0]) {
    CopyText(buffer, cch, name);
    return TRUE;
  }
  CopyText(buffer, cch, braced);
  return FALSE;
}
