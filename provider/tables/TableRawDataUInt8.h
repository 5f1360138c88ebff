// RAWDATA_UINT8: raw history with every value changed to VT_UI1; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataUInt8 final : public CTableRawData {
 public:
  explicit CTableRawDataUInt8(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_UINT8"), args,
                      {VT_UI1, OLESTR("[TABLE] RAWDATA_UINT8 -> Failed to convert value to VT_UI1 (%X). "
                                      "Value set to default (0).")}) {}
};
