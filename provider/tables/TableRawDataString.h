// RAWDATA_STRING: raw history with every value changed to VT_BSTR; a value that does not
// convert becomes empty string with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataString final : public CTableRawData {
 public:
  explicit CTableRawDataString(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_STRING"), args,
                      {VT_BSTR, OLESTR("[TABLE] RAWDATA_STRING -> Failed to convert value to VT_BSTR (%X). "
                                      "Value set to default (empty string).")}) {}
};
