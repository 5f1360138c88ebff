// The records through which tables and procedures describe their columns and hand
// values to a data store: a column record per declared column, a store value per cell,
// and a produced record per row (one store value per column of the producer's list).
#pragma once
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>
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

// One cell's value: nothing, a VARIANT, a UTC timestamp, or text. Owns its VARIANT.
// Text is lent by the producer or held by the value itself. Lent text (kText) stays the
// producer's: it must outlive every copy of the record until the store has written it,
// which holds for text the producer keeps for its whole life (a table's tag names); it
// spares a string allocation per row. Held text (SetOwnText) lives in a buffer the value
// keeps through Reset: a producer that refills its records writes the next row's text
// into the same memory, so a text per row costs no allocation and no free on another
// thread.
struct StoreValue {
  enum : int { kNone = 0, kVariant = 1, kTime = 2, kText = 3 };

  int Kind = kNone;

 private:
  // Beside Kind, in what would be padding: a value stays 64 bytes, one cache line, and
  // records are read and written once per row on two threads.
  uint32_t m_cOwn = 0;

 public:
  VARIANT Value;
  FILETIME Time{};
  const OLECHAR* Text = nullptr;
  UINT TextLength = 0;
  // kText: the producer never changes the text at this address while it lives, so a
  // store that has seen it there needs not compare it again.
  bool TextFixed = false;
  // kText: the text is the value's own (Text points into its buffer), different from
  // row to row, so a store copies it rather than sharing it between rows.
  bool TextOwned = false;

  StoreValue() { VariantInit(&Value); }
  ~StoreValue() {
    VariantClear(&Value);
    delete[] m_pOwn;
  }
  StoreValue(const StoreValue& other) : Time(other.Time) {
    VariantInit(&Value);
    VariantCopy(&Value, const_cast<VARIANT*>(&other.Value));
    CopyScalars(other);
  }
  StoreValue(StoreValue&& other) noexcept
      : Kind(other.Kind), m_cOwn(other.m_cOwn), Time(other.Time), Text(other.Text), TextLength(other.TextLength),
        TextFixed(other.TextFixed), TextOwned(other.TextOwned), m_pOwn(other.m_pOwn) {
    std::memcpy(&Value, &other.Value, sizeof Value);
    VariantInit(&other.Value);
    other.Kind = kNone;
    other.m_pOwn = nullptr;
    other.m_cOwn = 0;
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
      CopyFields(other);
      // The buffers change hands, so held text keeps pointing into the buffer it is in.
      std::swap(m_pOwn, other.m_pOwn);
      std::swap(m_cOwn, other.m_cOwn);
      other.Kind = kNone;
    }
    return *this;
  }

  // Back to nothing, keeping the object (and its text buffer) for the next row.
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
    TextOwned = false;
  }
  // Room for `chars` characters of held text, kept from earlier rows when it is large
  // enough; null when memory runs out. The value is unchanged until SetOwnText.
  OLECHAR* OwnTextRoom(size_t chars) {
    if (chars > m_cOwn) {
      if (chars > UINT32_MAX) return nullptr;
      const size_t room = chars < kOwnTextMin ? kOwnTextMin : chars;
      OLECHAR* grown = new (std::nothrow) OLECHAR[room];
      if (!grown) return nullptr;
      delete[] m_pOwn;
      m_pOwn = grown;
      m_cOwn = static_cast<uint32_t>(room);
    }
    return m_pOwn;
  }
  // The value becomes the first `length` characters written into OwnTextRoom's buffer.
  void SetOwnText(size_t length) {
    Reset();
    Kind = kText;
    Text = m_pOwn;
    TextLength = static_cast<UINT>(length);
    TextFixed = false;
    TextOwned = true;
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
  // Enough for every number's text, so that a buffer is made once per value.
  static constexpr size_t kOwnTextMin = 32;

  void CopyFields(const StoreValue& other) {
    Kind = other.Kind;
    Time = other.Time;
    Text = other.Text;
    TextLength = other.TextLength;
    TextFixed = other.TextFixed;
    TextOwned = other.TextOwned;
  }
  void CopyScalars(const StoreValue& other) {
    CopyFields(other);
    if (Kind == kText && TextOwned) {
      // A copy holds its own text; copies are rare (records are moved), so running out
      // of memory here is the container's failure to copy.
      OLECHAR* room = OwnTextRoom(TextLength);
      if (!room && TextLength) {
        VariantClear(&Value);
        Kind = kNone;
        throw std::bad_alloc();
      }
      if (TextLength) std::memcpy(room, other.Text, TextLength * sizeof(OLECHAR));
      Text = room;
    }
  }

  OLECHAR* m_pOwn = nullptr;
};
static_assert(sizeof(StoreValue) <= 64, "a record's values are each one cache line at most");

using ProducedRecord = std::vector<StoreValue>;
using ProducedRecordList = std::vector<ProducedRecord>;

// Asks for the memory of `record`'s values ahead of their use. Records go back and forth
// between the worker, which fills them, and the consumer's thread, which reads and empties
// them: each first touch on the other thread waits for the cache lines to move, unless they
// were asked for some records earlier, while the records before were being worked on.
inline void PrefetchRecord(const ProducedRecord& record) {
#if defined(__GNUC__) || defined(__clang__)
  // The values are contiguous and each at most a cache line: one prefetch each covers the record.
  for (const StoreValue& value : record) __builtin_prefetch(&value, 1);
#else
  (void)record;
#endif
}
// How many records ahead PrefetchRecord is best asked for: far enough for the transfers
// to finish, near enough for the lines to stay in the cache.
constexpr size_t kPrefetchRecordsAhead = 6;
