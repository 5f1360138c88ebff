// Pieces shared by the POSIX OLE Automation sources: type validation, and the number,
// text and date machinery behind VariantChangeType and the Var* functions.
#pragma once
#ifndef _WIN32
#include "platform/posix/OleAuto.h"

namespace corvane::platform::detail {

// S_OK when vt names a type a VARIANT may hold, DISP_E_BADVARTYPE otherwise.
HRESULT ValidateVarType(VARTYPE vt);

}  // namespace corvane::platform::detail
#endif  // !_WIN32
