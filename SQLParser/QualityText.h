// Readable texts for the historian's numeric codes: the severity and full text of a
// status (quality) word, tag access rights and value types. Used by the SQL functions
// QualityToStr, QualityToStr2, AccessRightsToStr and DataTypeToStr and by result
// tables that show qualities.
//
// Status words are laid out as OPC UA status codes: bits 31-30 severity (00 good,
// 01 uncertain, 10 bad), bits 27-16 the sub-code, bits 11-10 the info type (01: data
// value), and for a data value bits 1-0 the origin, bit 2 partial, bit 3 extra data,
// bit 4 multiple values.
#pragma once
#include <cstddef>

#include "platform/WideString.h"

namespace corvane {

struct StatusCodeEntry {
  ULONG code;
  const OLECHAR* name;
};

// The published OPC UA status codes with their symbolic names, sorted by code
// (generated at build time from data/opcua-status-codes.csv).
extern const StatusCodeEntry kStatusCodes[];
extern const size_t kStatusCodeCount;

// The symbolic name of an exact code; null when it is not published.
const OLECHAR* StatusCodeName(ULONG code);

// "Good", "Uncertain", "Bad" or "Unknown" (both top bits set).
const OLECHAR* QualityToStr(ULONG code);
// The severity followed by the code in decimal: "Bad (2150891520)".
WString QualitySeverityWithNumber(ULONG code);
// For a data-value code the origin and its flags ("Calculated | Partial"); else empty.
WString QualityInfoText(ULONG code);
// The symbolic name of the code's severity and sub-code followed by " [info]" when
// there is an info text; a sub-code without a published name gives the severity with
// number instead of the name.
WString QualityToStr2(ULONG code);

// "TAG_ACCESS_RIGHTS_NONE", "..._READ", "..._WRITE", "..._READ_WRITE" or "Unknown".
const OLECHAR* AccessRightsToStr(LONG rights);
// The VT_ name of the numeric value types a tag can have ("VT_R8"); "Unknown" for any
// other type, strings included.
const OLECHAR* DataTypeToStr(LONG type);

}  // namespace corvane
