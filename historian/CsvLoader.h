// Loads history into the reference historian from CSV files of the form
//   tag,timestamp,value,quality[,vartype]
// with a header line naming those columns. A file is loaded whole or not at all: the
// first malformed line stops the load with its file name, line number and reason.
//
// Accepted forms: UTF-8 text (a byte-order mark is skipped), RFC 4180 quoting (quoted
// fields may hold commas, doubled quotes and line breaks), LF or CRLF line ends, blank
// lines skipped. Timestamps are UTC, "YYYY-MM-DD HH:MM:SS[.f...]" or
// "YYYY-MM-DDTHH:MM:SS[.f...][Z]" with up to 7 fraction digits. Quality is decimal or
// 0x-hex, empty meaning 0 (good). Vartype is one of VT_R8, VT_R4, VT_I1, VT_I2, VT_I4,
// VT_I8, VT_UI1, VT_UI2, VT_UI4, VT_UI8, VT_BOOL (true/false/1/0/-1), VT_BSTR, in any
// case. A tag that the store lacks is created with the type of its first line (given,
// or VT_R8 when that value reads as a number, else VT_BSTR); later lines without a type
// are read as the tag's type. A sample at a time the tag already has is refused.
#pragma once
#include <string>
#include <string_view>

#include "historian/HistorianStore.h"

namespace corvane::historian {

struct CsvLoadReport {
  size_t samples = 0;  // samples added
  size_t newTags = 0;  // tags created
  size_t errorLine = 0;  // line of the first problem (0 when it concerns the whole file)
  WString error;       // "<file>:<line>: <reason>" when the load failed, else empty
};

class CCsvLoader {
 public:
  // 0x8007000D (invalid data) for a malformed file, 0x80070002 when it cannot be
  // opened; `report` (optional) says why.
  static HRESULT LoadFile(CHistorianStore& store, const std::string& pathUtf8, CsvLoadReport* report);
  // The same for text already in memory; `fileName` is used in messages only.
  static HRESULT LoadText(CHistorianStore& store, std::string_view text, WStringView fileName,
                          CsvLoadReport* report);

  // Reads one UTC timestamp in either accepted form; false when it is not one.
  static bool ParseTimestamp(std::string_view text, ULONGLONG* filetime);
};

}  // namespace corvane::historian
