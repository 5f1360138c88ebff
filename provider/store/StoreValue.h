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

// One cell's value: nothing, a VARIANT, a UTC timestamp, or text the producer lends.
// Owns its VARIANT. Lent text (kText) stays the producer's: it must outlive every copy
// of the record until the store has written it, which holds for text the producer keeps
// for its whole life (a table's tag names); it spares a string allocation per row.
struct StoreValue {
  enum : int { kNone = 0, kVariant = 1, kTime = 2, kText = 3 };

  int Kind = kNone;
  VARIANT Value;
  FILETIME Time{};
  const OLECHAR* Text = nullptr;
  UINT TextLength = 0;
  // kText: the producer never changes the text at this address while it lives, so a
  // store that has seen it there needs not compare it again.
  bool TextFixed = false;

  StoreValue() { VariantInit(&Value); }
  ~StoreValue() { VariantClear(&Value); }
  StoreValue(const StoreValue& other)
      : Kind(other.Kind), Time(other.Time), Text(other.Text), TextLength(other.TextLength), TextFixed(other.TextFixed) {
    VariantInit(&Value);
    VariantCopy(&Value, const_cast<VARIANT*>(&other.Value));
  }
  StoreValue(StoreValue&& other) noexcept
      : Kind(other.Kind), Time(other.Time), Text(other.Text), TextLength(other.TextLength), TextFixed(other.TextFixed) {
    std::memcpy(&Value, &other.Value, sizeof Value);
    VariantInit(&other.Value);
    other.Kind = kNone;
  }
  StoreValue& operator=(const StoreValue& other) {
    if (this != &other) {
      VariantClear(&Value);
      VariantCopy(&Value, const_cast<VARIANT*>(&other.Value));
      CopyScalars(other);
    }
    return *this;
  }
  StoreValue& operator=(StoreValue&& other) noexcept {
    if (this != &other) {
      VariantClear(&Value);
      std::memcpy(&Value, &other.Value, sizeof Value);
      VariantInit(&other.Value);
      CopyScalars(other);
      other.Kind = kNone;
    }
    return *this;
  }

  // Back to nothing, keeping the object for the next row.
  void Reset() {
    // Most refilled values hold a time or lent text and no VARIANT at all.
    if (V_VT(&Value) != VT_EMPTY) VariantClear(&Value);
    Kind = kNone;
  }

  // In-place forms of the factories below, for producers that refill records.
  void SetTime(const FILETIME& time) {
    Reset();
    Kind = kTime;
    Time = time;
  }
  void SetText(const OLECHAR* text, size_t length, bool fixed = false) {
    Reset();
    Kind = kText;
    Text = text;
    TextLength = static_cast<UINT>(length);
    TextFixed = fixed;
  }
  void Take(VARIANT* value) {
    Reset();
    Kind = kVariant;
    std::memcpy(&Value, value, sizeof(VARIANT));
    VariantInit(value);
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

 private:
  void CopyScalars(const StoreValue& other) {
    Kind = other.Kind;
    Time = other.Time;
    Text = other.Text;
    TextLength = other.TextLength;
    TextFixed = other.TextFixed;
  }
};

using ProducedRecord = std::vector<StoreValue>;
using ProducedRecordList = std::vector<ProducedRecord>;
