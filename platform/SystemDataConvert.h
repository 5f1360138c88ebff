// The system's data conversion library (msdadc), which Windows consumers expect a
// provider to convert with. POSIX has none; the provider then converts by itself.
#pragma once
#include "platform/Platform.h"

namespace corvane::platform {

// S_OK with the library's IDataConvert; S_FALSE with null when the platform has no such
// library; a failure code with null when it has one that could not be created.
HRESULT CreateSystemDataConvert(IDataConvert** convert);

}  // namespace corvane::platform
