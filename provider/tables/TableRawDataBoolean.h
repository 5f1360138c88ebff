// RAWDATA_BOOLEAN: raw history with every value changed to VT_BOOL; a value that does not
// convert becomes False with the quality 0x80AB0000, and the row is still produced.
#pragma once
#include "provider/tables/TableRawData.h"

class CTableRawDataBoolean final : public CTableRawData {
 public:
  explicit CTableRawDataBoolean(const TableCreateArgs& args)
      : CTableRawData(OLESTR("RAWDATA_BOOLEAN"), args,
                      {VT_BOOL, OLESTR("[TABLE] RAWDATA_BOOLEAN -> Failed to convert value to VT_BOOL (%X). "
                                      "Value set to default (False).")}) {}
};
