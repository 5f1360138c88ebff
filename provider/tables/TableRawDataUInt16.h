// RAWDATA_UINT16: raw history with every value changed to VT_UI2; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataUInt16 final : public CTableRawData {
 public:
  explicit CTableRawDataUInt16(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_UINT16"), args,
                      {VT_UI2, OLESTR("[TABLE] RAWDATA_UINT16 -> Failed to convert value to VT_UI2 (%X). "
                                      "Value set to default (0).")}) {}
};
