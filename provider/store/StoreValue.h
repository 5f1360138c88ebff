// The records through which tables and procedures describe their columns and hand
// values to a data store: a column record per declared column, a store value per cell,
// and a produced record per row (one store value per column of the producer's list).
#pragma once
#include <cstring>
#include <vector>

#include "platform/Platform.h"
#include "platform/WideString.h"

struct ColumnRecord {
  corvane::WString ColumnName;
  corvane::WString ColumnAlias;  // also the name the consumer sees
  corvane::WString TableName;
  ULONGLONG Ordinal = 0;  // 1-based position in the declaring map
  DBTYPE wType = DBTYPE_EMPTY;
  ULONGLONG ColumnSize = 0;  // characters for strings, bytes for fixed types
  DWORD dwFlags = 0;
};

// One cell's value: nothing, a VARIANT, or a UTC timestamp. Owns its VARIANT.
struct StoreValue {
  enum : int { kNone = 0, kVariant = 1, kTime = 2 };

  int Kind = kNone;
  VARIANT Value;
  FILETIME Time{};

  StoreValue() { VariantInit(&Value); }
  ~StoreValue() { VariantClear(&Value); }
  StoreValue(const StoreValue& other) : Kind(other.Kind), Time(other.Time) {
    VariantInit(&Value);
    VariantCopy(&Value, const_cast<VARIANT*>(&other.Value));
  }
  StoreValue(StoreValue&& other) noexcept : Kind(other.Kind), Time(other.Time) {
    std::memcpy(&Value, &other.Value, sizeof Value);
    VariantInit(&other.Value);
    other.Kind = kNone;
  }
  StoreValue& operator=(const StoreValue& other) {
    if (this != &other) {
      VariantClear(&Value);
      VariantCopy(&Value, const_cast<VARIANT*>(&other.Value));
      Kind = other.Kind;
      Time = other.Time;
    }
    return *this;
  }
  StoreValue& operator=(StoreValue&& other) noexcept {
    if (this != &other) {
      VariantClear(&Value);
      std::memcpy(&Value, &other.Value, sizeof Value);
      VariantInit(&other.Value);
      Kind = other.Kind;
      Time = other.Time;
      other.Kind = kNone;
    }
    return *this;
  }

  // Takes over the contents of `value` (left VT_EMPTY).
  static StoreValue TakeVariant(VARIANT* value) {
    StoreValue v;
    v.Kind = kVariant;
    std::memcpy(&v.Value, value, sizeof(VARIANT));
    VariantInit(value);
    return v;
  }
  static StoreValue FromTime(const FILETIME& time) {
    StoreValue v;
    v.Kind = kTime;
    v.Time = time;
    return v;
  }
};

using ProducedRecord = std::vector<StoreValue>;
using ProducedRecordList = std::vector<ProducedRecord>;
