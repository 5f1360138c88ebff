// RAWDATA_SINGLE: raw history with every value changed to VT_R4; a value that does not
// convert becomes 0 with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataSingle final : public CTableRawData {
 public:
  explicit CTableRawDataSingle(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_SINGLE"), args,
                      {VT_R4, OLESTR("[TABLE] RAWDATA_SINGLE -> Failed to convert value to VT_R4 (%X). "
                                      "Value set to default (0).")}) {}
};
