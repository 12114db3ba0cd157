// DllRegisterServer and DllUnregisterServer: the library's classes and proxied
// interfaces, registered through the table-driven registration functions with
// the library's own path, then its entry among the system's known libraries.
#include <olectl.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Registration.h>

#include "server/ModuleState.h"
#include "frame/RegistryValues.h"

namespace xk::server {

namespace {

struct Step {
  const GUID* id;
  const char* name;
  const char* progID;  // classes only; NULL for none
  WORD version;
  DWORD threading;     // classes only
  bool isClass;
};

constexpr Step Class(const GUID* id, const char* name, const char* progID, DWORD threading) {
  return {id, name, progID, static_cast<WORD>(progID ? 1 : 0), threading, true};
}
constexpr Step Interface(const GUID* id, const char* name) { return {id, name, nullptr, 0, 0, false}; }

// EnumBSTR and EnumVARIANT are served but not registered. IPropertyBagEdit
// comes twice, once with each property bag.
constexpr Step kSteps[] = {
    Class(&CLSID_QvEnumGUID, "EnumGUID Class", "QuorvelSoftware.EnumGUID", QVREGSVRF_BOTH),
    Interface(&IID_IQvEnumGUID, "IEnumGUID"),
    Interface(&IID_ICollGUID, "ICollGUID"),
    Interface(&IID_ISeqGUID, "ISeqGUID"),
    Class(&CLSID_QvEnumUnknown, "EnumUnknown Class", "QuorvelSoftware.EnumUnknown", QVREGSVRF_BOTH),
    Interface(&IID_ICollUnknown, "ICollUnknown"),
    Interface(&IID_ISeqUnknown, "ISeqUnknown"),
    Class(&CLSID_QvEnumString, "EnumString Class", "QuorvelSoftware.EnumString", QVREGSVRF_BOTH),
    Interface(&IID_ICollString, "ICollString"),
    Interface(&IID_ISeqString, "ISeqString"),
    Class(&CLSID_QvPropertyBag, "PropertyBag Class", "QuorvelSoftware.PropertyBag", QVREGSVRF_BOTH),
    Interface(&IID_IPropertyBagEdit, "IPropertyBagEdit"),
    Class(&CLSID_QvPropertyBag_ST, "PropertyBag Class (single threaded)",
          "QuorvelSoftware.PropertyBag_ST", QVREGSVRF_APARTMENT),
    Interface(&IID_IPropertyBagEdit, "IPropertyBagEdit"),
    Interface(&IID_QvInterface0002, nullptr),
    Class(&CLSID_QvFreeThreadedUnmarshaler, "FTP", nullptr, QVREGSVRF_BOTH),
    Class(&CLSID_QvFreeThreadedMarshaler, "FTM", nullptr, QVREGSVRF_BOTH),
};

constexpr char kKnownLibrariesKey[] = "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\KnownDlls";
constexpr char kKnownLibraryValue[] = "XKComBsc";

// Each interface is its own proxy/stub class, served by this library.
BOOL RunStep(const Step& step, const char* path, DWORD unregisterBit) {
  if (step.isClass)
    return RegisterInprocServer(*step.id, step.name, path, step.progID, step.version,
                                unregisterBit | step.threading);
  return RegisterProxyStub(*step.id, *step.id, step.name, path, unregisterBit);
}

// Left to the implementer: where the system keeps no known-libraries key (as
// under Wine) none is made, so that unregistering leaves the system as it was.
// The outcome never changes the result.
void RecordKnownLibrary(bool registering, const char* path) {
  RegKey key;
  if (LB_RegOpenKeyExA(HKEY_LOCAL_MACHINE, kKnownLibrariesKey, 0, KEY_SET_VALUE, key.put()) !=
      ERROR_SUCCESS)
    return;
  Reg_SetStringValueA(key.get(), nullptr, kKnownLibraryValue, registering ? path : nullptr,
                      KEY_SET_VALUE, nullptr, nullptr, nullptr);
}

// Left to the implementer: the registration functions answer TRUE or FALSE; a
// step that answers FALSE maps to SELFREG_E_CLASS, the platform's code for a
// class that could not be registered (or unregistered), and success to S_OK.
HRESULT RegisterLibrary(bool registering) {
  const DWORD unregisterBit = registering ? 0 : QVREGSVRF_UNREGISTER;
  char path[MAX_PATH];
  GetModuleFileNameA(g_module.instance, path, MAX_PATH);
  HRESULT result = S_OK;
  for (const Step& step : kSteps) {
    if (RunStep(step, path, unregisterBit)) continue;
    result = SELFREG_E_CLASS;
    if (registering) return result;  // an unregistration goes on through every step
  }
  RecordKnownLibrary(registering, path);
  return result;
}

}  // namespace

}  // namespace xk::server

// ---- DllRegisterServer -------------------------------------------------------
extern "C" HRESULT WINAPI DllRegisterServer() { return xk::server::RegisterLibrary(true); }

// ---- DllUnregisterServer -----------------------------------------------------
extern "C" HRESULT WINAPI DllUnregisterServer() { return xk::server::RegisterLibrary(false); }
