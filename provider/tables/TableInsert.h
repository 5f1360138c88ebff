// The one-row answer of a successful INSERT: "Insert query succeeded.".
#pragma once
#include "provider/tables/TableResult.h"

class CTableInsert final : public CTableResult {
 public:
  CTableInsert() : CTableResult(OLESTR("INSERT"), OLESTR("Insert query succeeded.")) {}
};
