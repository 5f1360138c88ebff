// The one-row answer of a successful DELETE: "Delete query succeeded.".
#pragma once
#include "provider/tables/TableResult.h"

class CTableDelete final : public CTableResult {
 public:
  CTableDelete() : CTableResult(OLESTR("DELETE"), OLESTR("Delete query succeeded.")) {}
};
