// RAWDATA_UINT32: raw history with every value changed to VT_UI4; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataUInt32 final : public CTableRawData {
 public:
  explicit CTableRawDataUInt32(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_UINT32"), args,
                      {VT_UI4, OLESTR("[TABLE] RAWDATA_UINT32 -> Failed to convert value to VT_UI4 (%X). "
                                      "Value set to default (0).")}) {}
};
