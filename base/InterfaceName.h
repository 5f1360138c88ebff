// Text for an interface identifier in trace lines: the interface's name when the
// provider knows it ("IMultipleResults"), otherwise the identifier in registry form
// ("{0C733A7D-2A1C-11CE-ADE5-00AA0044773D}").
#pragma once
#include "platform/Platform.h"
#include "platform/WideString.h"

namespace corvane {

WString InterfaceName(REFIID iid);

}  // namespace corvane
