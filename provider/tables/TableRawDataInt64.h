// RAWDATA_INT64: raw history with every value changed to VT_I8; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataInt64 final : public CTableRawData {
 public:
  explicit CTableRawDataInt64(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_INT64"), args,
                      {VT_I8, OLESTR("[TABLE] RAWDATA_INT64 -> Failed to convert value to VT_I8 (%X). "
                                      "Value set to default (0).")}) {}
};
