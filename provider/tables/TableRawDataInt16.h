// RAWDATA_INT16: raw history with every value changed to VT_I2; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataInt16 final : public CTableRawData {
 public:
  explicit CTableRawDataInt16(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_INT16"), args,
                      {VT_I2, OLESTR("[TABLE] RAWDATA_INT16 -> Failed to convert value to VT_I2 (%X). "
                                      "Value set to default (0).")}) {}
};
