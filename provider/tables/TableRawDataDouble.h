// RAWDATA_DOUBLE: raw history with every value changed to VT_R8; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataDouble final : public CTableRawData {
 public:
  explicit CTableRawDataDouble(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_DOUBLE"), args,
                      {VT_R8, OLESTR("[TABLE] RAWDATA_DOUBLE -> Failed to convert value to VT_R8 (%X). "
                                      "Value set to default (0).")}) {}
};
