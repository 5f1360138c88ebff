#include "SQLParser/QualityText.h"

#include <algorithm>

namespace corvane {

const OLECHAR* StatusCodeName(ULONG code) {
  const StatusCodeEntry* end = kStatusCodes + kStatusCodeCount;
  const StatusCodeEntry* hit =
      std::lower_bound(kStatusCodes, end, code, [](const StatusCodeEntry& e, ULONG c) { return e.code < c; });
  return hit != end && hit->code == code ? hit->name : nullptr;
}

const OLECHAR* QualityToStr(ULONG code) {
  switch (code >> 30) {
    case 0: return OLESTR("Good");
    case 1: return OLESTR("Uncertain");
    case 2: return OLESTR("Bad");
    default: return OLESTR("Unknown");
  }
}

WString QualitySeverityWithNumber(ULONG code) {
  return WFormat(OLESTR("%s (%u)"), QualityToStr(code), static_cast<unsigned>(code));
}

WString QualityInfoText(ULONG code) {
  if ((code & 0x400u) == 0) return WString();
  static const OLECHAR* const kOrigins[] = {OLESTR("Raw"), OLESTR("Calculated"), OLESTR("Interpolated"),
                                            OLESTR("Reserved")};
  WString text = kOrigins[code & 0x3u];
  if (code & 0x4u) text = WFormat(OLESTR("%s | Partial"), text.c_str());
  if (code & 0x8u) text = WFormat(OLESTR("%s | Extra Data"), text.c_str());
  if (code & 0x10u) text = WFormat(OLESTR("%s | Multi Value"), text.c_str());
  return text;
}

WString QualityToStr2(ULONG code) {
  const WString info = QualityInfoText(code);
  const WString suffix = info.empty() ? WString() : WFormat(OLESTR(" [%s]"), info.c_str());
  const OLECHAR* name = StatusCodeName(code & 0xCFFF0000u);
  if (!name) return QualitySeverityWithNumber(code) + suffix;
  return WFormat(OLESTR("%s%s"), name, suffix.c_str());
}

const OLECHAR* AccessRightsToStr(LONG rights) {
  switch (rights) {
    case 0: return OLESTR("TAG_ACCESS_RIGHTS_NONE");
    case 1: return OLESTR("TAG_ACCESS_RIGHTS_READ");
    case 2: return OLESTR("TAG_ACCESS_RIGHTS_WRITE");
    case 3: return OLESTR("TAG_ACCESS_RIGHTS_READ_WRITE");
    default: return OLESTR("Unknown");
  }
}

const OLECHAR* DataTypeToStr(LONG type) {
  switch (type) {
    case VT_I2: return OLESTR("VT_I2");
    case VT_I4: return OLESTR("VT_I4");
    case VT_R4: return OLESTR("VT_R4");
    case VT_R8: return OLESTR("VT_R8");
    case VT_BOOL: return OLESTR("VT_BOOL");
    case VT_I1: return OLESTR("VT_I1");
    case VT_UI1: return OLESTR("VT_UI1");
    case VT_UI2: return OLESTR("VT_UI2");
    case VT_UI4: return OLESTR("VT_UI4");
    case VT_I8: return OLESTR("VT_I8");
    case VT_UI8: return OLESTR("VT_UI8");
    default: return OLESTR("Unknown");
  }
}

}  // namespace corvane
