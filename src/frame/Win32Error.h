// The one conversion from a Win32 error code to the HRESULT the library hands
// out: 0x80070000 | (e & 0xFFFF), and ERROR_SUCCESS stays S_OK.
#pragma once

#include <windows.h>

namespace xk {

constexpr HRESULT HResultFromWin32(DWORD error) {
  return error == ERROR_SUCCESS ? S_OK : static_cast<HRESULT>(0x80070000u | (error & 0xFFFFu));
}

// The thread's last error as an HRESULT; S_OK when a failing call set none.
inline HRESULT HResultFromLastError() { return HResultFromWin32(GetLastError()); }

}  // namespace xk
