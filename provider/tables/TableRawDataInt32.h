// RAWDATA_INT32: raw history with every value changed to VT_I4; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataInt32 final : public CTableRawData {
 public:
  explicit CTableRawDataInt32(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_INT32"), args,
                      {VT_I4, OLESTR("[TABLE] RAWDATA_INT32 -> Failed to convert value to VT_I4 (%X). "
                                      "Value set to default (0).")}) {}
};
