// RAWDATA_INT8: raw history with every value changed to VT_I1; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataInt8 final : public CTableRawData {
 public:
  explicit CTableRawDataInt8(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_INT8"), args,
                      {VT_I1, OLESTR("[TABLE] RAWDATA_INT8 -> Failed to convert value to VT_I1 (%X). "
                                      "Value set to default (0).")}) {}
};
