#include "platform/wevtapi.h"

#ifdef _WIN32

#include "platform/nt_exception.h"

#include <stdexcept>
#include <string>

#include <windows.h>

namespace qvx::wevt {

namespace {

template <typename T> void Bind(HMODULE AModule, const char* AName, T& AEntry) {
  const FARPROC proc = GetProcAddress(AModule, AName);
  if (!proc) throw std::runtime_error(std::string("Assertion failed: Wevtapi.dll has no function ") + AName);
  // Through void (*)(), which converts to any function pointer type without a warning.
  AEntry = reinterpret_cast<T>(reinterpret_cast<void (*)()>(proc));
}

TWevtApi Load() {
  const HMODULE module = LoadLibraryW(L"Wevtapi.dll");
  if (!module) RaiseLastOSError("Wevtapi.dll");
  TWevtApi api;
  // The module stays loaded when an entry point is missing; loading it again is cheap.
#define QVX_WEVT_BIND(Name) Bind(module, #Name, api.Name);
  QVX_WEVT_FUNCTIONS(QVX_WEVT_BIND)
#undef QVX_WEVT_BIND
  return api;
}

} // namespace

const TWevtApi& WevtApi() {
  static const TWevtApi api = Load();
  return api;
}

void CloseEvtHandle(EVT_HANDLE& AHandle) {
  if (AHandle) WevtApi().EvtClose(AHandle);
  AHandle = nullptr;
}

} // namespace qvx::wevt

#endif // _WIN32
