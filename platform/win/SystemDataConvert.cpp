#include "platform/SystemDataConvert.h"

namespace corvane::platform {
namespace {

// The library's class id, spelled out here because the import libraries do not carry it.
const CLSID kConversionLibrary = {0xC8B522D1, 0x5CF3, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};

}  // namespace

HRESULT CreateSystemDataConvert(IDataConvert** convert) {
  *convert = nullptr;
  const HRESULT hr = CoCreateInstance(kConversionLibrary, nullptr, CLSCTX_INPROC_SERVER, IID_IDataConvert,
                                      reinterpret_cast<void**>(convert));
  if (SUCCEEDED(hr) && *convert != nullptr) return S_OK;
  *convert = nullptr;
  return FAILED(hr) ? hr : E_NOINTERFACE;
}

}  // namespace corvane::platform
