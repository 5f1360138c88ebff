#include "platform/SystemDataConvert.h"

namespace corvane::platform {

HRESULT CreateSystemDataConvert(IDataConvert** convert) {
  *convert = nullptr;
  return S_FALSE;
}

}  // namespace corvane::platform
