// The one-row answer of a successful UPDATE: "Update query succeeded.".
#pragma once
#include "provider/tables/TableResult.h"

class CTableUpdate final : public CTableResult {
 public:
  CTableUpdate() : CTableResult(OLESTR("UPDATE"), OLESTR("Update query succeeded.")) {}
};
