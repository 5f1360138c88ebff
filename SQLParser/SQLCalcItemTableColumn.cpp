#include "SQLParser/SQLCalcItemTableColumn.h"

CSQLCalcItemTableColumn::CSQLCalcItemTableColumn(corvane::WString columnName)
    : CSQLCalcItem(SQL_CALC_TABLE_COLUMN), columnName_(std::move(columnName)) {}
