// RAWDATA_UINT64: raw history with every value changed to VT_UI8; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataUInt64 final : public CTableRawData {
 public:
  explicit CTableRawDataUInt64(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_UINT64"), args,
                      {VT_UI8, OLESTR("[TABLE] RAWDATA_UINT64 -> Failed to convert value to VT_UI8 (%X). "
                                      "Value set to default (0).")}) {}
};
