#include "historian/CsvLoader.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <unordered_map>

#include "base/Trace.h"
#include "platform/System.h"

namespace corvane::historian {

namespace {

const HRESULT kInvalidData = static_cast<HRESULT>(0x8007000DL);  // HRESULT_FROM_WIN32(ERROR_INVALID_DATA)
const HRESULT kFileNotFound = static_cast<HRESULT>(0x80070002L);  // HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)

// One field of a record: a view of the text, into the reader's buffer for a plain field
// and into `unquoted` for a quoted one. Valid until the reader reads the next record.
struct Field {
  std::string_view text;
  bool quoted = false;
  std::string unquoted;
};

struct Record {
  size_t line = 0;  // where the record starts
  size_t count = 0;  // fields in use; the vector keeps its strings for the next record
  bool nul = false;  // some field holds a NUL byte
  std::vector<Field> fields;
  const Field& operator[](size_t i) const { return fields[i]; }
  size_t size() const { return count; }
};

// The bytes an unquoted field stops at: its end, a quote, a carriage return, a NUL.
struct FieldStops {
  bool stop[256] = {};
  constexpr FieldStops() {
    for (unsigned char c : {',', '\n', '\r', '"', '\0'}) stop[c] = true;
  }
  constexpr bool operator[](unsigned char c) const { return stop[c]; }
};
constexpr FieldStops kStops;

// Splits CSV text into records by RFC 4180, counting lines so that every record knows
// where it starts (a quoted field may span lines). The text is either all in memory or
// read from a file a block at a time: only the record being read and the rest of the
// block are held, whatever the size of the file.
class RecordReader {
 public:
  explicit RecordReader(std::string_view text) : text_(text) { SkipMark(); }
  explicit RecordReader(FILE* file) : file_(file) {
    Fill();
    SkipMark();
  }

  bool ReadFailed() const { return readFailed_; }

  // False at the end of the text or on an error (then `error` is set).
  bool Next(Record& record, std::string& error) {
    for (;;) {
      const size_t start = pos_, line = line_;
      switch (Parse(record, error)) {
        case Result::Record:
          return true;
        case Result::End:
          return false;
        case Result::More:
          // The record goes on past the block: read it again with more text behind it.
          pos_ = start;
          line_ = line;
          if (!Fill()) {
            // No more text: what there is ends the record.
            atEnd_ = true;
          }
          break;
      }
    }
  }

 private:
  enum class Result { Record, End, More };

  void SkipMark() {
    if (text_.size() >= 3 && text_.substr(0, 3) == "\xEF\xBB\xBF") pos_ = 3;
  }

  // Keeps the unread text and appends the next block; false at the end of the file.
  // The buffer is not cleared before a read fills it: clearing it cost as much as
  // splitting the text.
  bool Fill() {
    if (!file_ || atEnd_) return false;
    const size_t kept = text_.size() - pos_;
    if (kept + kBlock > capacity_) {
      const size_t capacity = std::max(2 * capacity_, kept + kBlock);
      std::unique_ptr<char[]> grown(new char[capacity]);
      if (kept) std::memcpy(grown.get(), text_.data() + pos_, kept);
      buffer_ = std::move(grown);
      capacity_ = capacity;
    } else if (kept) {
      std::memmove(buffer_.get(), text_.data() + pos_, kept);
    }
    pos_ = 0;
    const size_t n = std::fread(buffer_.get() + kept, 1, kBlock, file_);
    text_ = std::string_view(buffer_.get(), kept + n);
    if (n == 0) {
      readFailed_ = std::ferror(file_) != 0;
      atEnd_ = true;
      return false;
    }
    return true;
  }

  // True when the text ends at `at` and more may come.
  bool Short(size_t at) const { return at >= text_.size() && file_ && !atEnd_; }

  Result Parse(Record& record, std::string& error) {
    record.count = 0;
    record.nul = false;
    if (Short(pos_)) return Result::More;
    if (pos_ >= text_.size()) return Result::End;
    record.line = line_;
    for (;;) {
      if (record.fields.size() == record.count) record.fields.emplace_back();
      Field& field = record.fields[record.count++];
      field.quoted = false;
      if (pos_ < text_.size() && text_[pos_] == '"') {
        field.quoted = true;
        field.unquoted.clear();
        ++pos_;
        for (;;) {
          if (Short(pos_)) return Result::More;
          if (pos_ >= text_.size()) {
            error = "unterminated quoted field";
            return Result::End;
          }
          // Runs without quotes or line breaks go over in one piece.
          const size_t run = text_.find_first_of("\"\n", pos_);
          const size_t stop = run == std::string_view::npos ? text_.size() : run;
          field.unquoted.append(text_.data() + pos_, stop - pos_);
          pos_ = stop;
          if (pos_ >= text_.size()) continue;
          const char c = text_[pos_++];
          if (c == '"') {
            if (Short(pos_)) return Result::More;
            if (pos_ < text_.size() && text_[pos_] == '"') {
              field.unquoted.push_back('"');
              ++pos_;
              continue;
            }
            break;
          }
          ++line_;
          field.unquoted.push_back(c);
        }
        field.text = field.unquoted;
        if (field.unquoted.find('\0') != std::string::npos) record.nul = true;
        if (Short(pos_ + 1)) return Result::More;
        if (pos_ < text_.size() && text_[pos_] != ',' && !AtLineEnd()) {
          error = "unexpected character after a closing quote";
          return Result::End;
        }
      } else {
        const size_t begin = pos_;
        const char* const data = text_.data();
        const size_t size = text_.size();
        for (;; ++pos_) {
          // Nearly every byte is none of the few that end or spoil a field.
          size_t at = pos_;
          while (at < size && !kStops[static_cast<unsigned char>(data[at])]) ++at;
          pos_ = at;
          if (pos_ >= size) {
            if (Short(pos_)) return Result::More;
            break;
          }
          const char c = data[pos_];
          if (c == ',' || c == '\n') break;
          if (c == '\r') {
            if (Short(pos_ + 1)) return Result::More;
            if (AtLineEnd()) break;
          } else if (c == '"') {
            error = "quote inside an unquoted field";
            return Result::End;
          } else {
            record.nul = true;
          }
        }
        field.text = text_.substr(begin, pos_ - begin);
      }
      if (pos_ < text_.size() && text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      // End of the line or of the text.
      if (pos_ < text_.size()) {
        pos_ += text_[pos_] == '\r' ? 2 : 1;
        ++line_;
      }
      // A field added later may have moved the strings of the quoted ones.
      for (size_t i = 0; i < record.count; ++i) {
        if (record.fields[i].quoted) record.fields[i].text = record.fields[i].unquoted;
      }
      return Result::Record;
    }
  }

  bool AtLineEnd() const {
    return text_[pos_] == '\n' || (text_[pos_] == '\r' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '\n');
  }

  static constexpr size_t kBlock = 1 << 20;
  FILE* file_ = nullptr;
  std::unique_ptr<char[]> buffer_;
  size_t capacity_ = 0;
  std::string_view text_;
  size_t pos_ = 0;
  size_t line_ = 1;
  bool atEnd_ = false;
  bool readFailed_ = false;
};

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool IEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 32);
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 32);
    if (x != y) return false;
  }
  return true;
}

bool ValidUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t extra;
    uint32_t cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= s.size()) return false;
    for (size_t k = 1; k <= extra; ++k) {
      const unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

// A field's text as messages quote it: control characters and the invisible ones
// (no-break and zero-width spaces, direction marks, the byte-order mark...) are written
// as escapes, and so are bytes that are not UTF-8, so that "192\r" never reads as "192".
std::string Visible(std::string_view s) {
  std::string out;
  char escape[16];
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      if (c == '\t') out += "\\t";
      else if (c == '\n') out += "\\n";
      else if (c == '\r') out += "\\r";
      else if (c < 0x20 || c == 0x7F) snprintf(escape, sizeof escape, "\\x%02X", c), out += escape;
      else out += static_cast<char>(c);
      ++i;
      continue;
    }
    const size_t length = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 1;
    if (length == 1 || !ValidUtf8(s.substr(i, length))) {
      snprintf(escape, sizeof escape, "\\x%02X", c);
      out += escape;
      ++i;
      continue;
    }
    uint32_t cp = c & (0xFF >> (length + 1));
    for (size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    const bool invisible = (cp >= 0x80 && cp <= 0xA0) || cp == 0xAD || cp == 0x34F || cp == 0x61C ||
                           cp == 0x115F || cp == 0x1160 || cp == 0x17B4 || cp == 0x17B5 ||
                           (cp >= 0x180B && cp <= 0x180E) || (cp >= 0x2000 && cp <= 0x200F) ||
                           (cp >= 0x2028 && cp <= 0x202F) || (cp >= 0x205F && cp <= 0x206F) || cp == 0x3000 ||
                           cp == 0x3164 || (cp >= 0xFE00 && cp <= 0xFE0F) || cp == 0xFEFF || cp == 0xFFA0 ||
                           (cp >= 0xFFF0 && cp <= 0xFFFB) || (cp >= 0xE0000 && cp <= 0xE0FFF);
    if (invisible) {
      snprintf(escape, sizeof escape, cp > 0xFFFF ? "\\U%08X" : "\\u%04X", static_cast<unsigned>(cp));
      out += escape;
    } else {
      out.append(s.substr(i, length));
    }
    i += length;
  }
  return out;
}

std::string Quoted(std::string_view s) { return "'" + Visible(s) + "'"; }

struct VartypeName {
  const char* name;
  VARTYPE vt;
};
const VartypeName kVartypes[] = {
    {"VT_R8", VT_R8},   {"VT_R4", VT_R4},   {"VT_I1", VT_I1},   {"VT_I2", VT_I2},
    {"VT_I4", VT_I4},   {"VT_I8", VT_I8},   {"VT_UI1", VT_UI1}, {"VT_UI2", VT_UI2},
    {"VT_UI4", VT_UI4}, {"VT_UI8", VT_UI8}, {"VT_BOOL", VT_BOOL}, {"VT_BSTR", VT_BSTR},
};

const char* NameOf(VARTYPE vt) {
  for (const auto& v : kVartypes)
    if (v.vt == vt) return v.name;
  return "?";
}

bool ParseVartype(std::string_view s, VARTYPE* vt) {
  for (const auto& v : kVartypes)
    if (IEquals(s, v.name)) {
      *vt = v.vt;
      return true;
    }
  return false;
}

// A plain decimal of at most 15 significant digits (`-12.5`, `0.001`): its digits as an
// integer and the power of ten are then both exact doubles, so one division rounds as a
// full conversion does. False, with nothing read, for anything else.
bool ParsePlainDecimal(std::string_view s, double* out) {
  static constexpr double kPow10[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  size_t i = 0;
  const bool negative = !s.empty() && s[0] == '-';
  if (negative) ++i;
  uint64_t digits = 0;
  size_t count = 0, fraction = 0;
  const auto run = [&](size_t* n) {
    const size_t start = i;
    for (; i < s.size() && static_cast<unsigned>(s[i] - '0') < 10u; ++i) digits = digits * 10 + (s[i] - '0');
    *n = i - start;
    count += *n;
    return *n > 0;
  };
  size_t whole = 0;
  if (!run(&whole)) return false;
  if (i < s.size() && s[i] == '.') {
    ++i;
    if (!run(&fraction)) return false;
  }
  if (i != s.size() || count > 15) return false;
  const double value = static_cast<double>(digits) / kPow10[fraction];
  *out = negative ? -value : value;
  return true;
}

bool ParseDouble(std::string_view s, double* out) {
  if (s.empty()) return false;
  if (s.front() == '+') s.remove_prefix(1);
  if (ParsePlainDecimal(s, out)) return true;
  auto r = std::from_chars(s.data(), s.data() + s.size(), *out);
  return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool ParseQuality(std::string_view s, DWORD* out) {
  if (s.empty()) {
    *out = 0;
    return true;
  }
  int base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  uint32_t v = 0;
  auto r = std::from_chars(s.data(), s.data() + s.size(), v, base);
  if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return false;
  *out = v;
  return true;
}

// Reads `text` as a value of type `vt` into `sample`; false with `why` set when it is not.
bool ParseValue(VARTYPE vt, std::string_view text, SampleInput& sample, std::string& why) {
  const std::string_view s = Trim(text);
  switch (vt) {
    case VT_BSTR:
      sample.text = FromUtf8(text);
      return true;
    case VT_R8:
    case VT_R4:
      if (!ParseDouble(s, &sample.number)) break;
      if (vt == VT_R4 && std::isfinite(sample.number) && std::fabs(sample.number) > std::numeric_limits<float>::max()) {
        why = "value " + Quoted(s) + " is out of range for VT_R4";
        return false;
      }
      return true;
    case VT_BOOL:
      if (IEquals(s, "true") || s == "1" || s == "-1") {
        sample.integer = 1;
        return true;
      }
      if (IEquals(s, "false") || s == "0") {
        sample.integer = 0;
        return true;
      }
      break;
    default: {
      int64_t lo, hi;
      switch (vt) {
        case VT_I1: lo = INT8_MIN, hi = INT8_MAX; break;
        case VT_I2: lo = INT16_MIN, hi = INT16_MAX; break;
        case VT_I4: lo = INT32_MIN, hi = INT32_MAX; break;
        case VT_UI1: lo = 0, hi = UINT8_MAX; break;
        case VT_UI2: lo = 0, hi = UINT16_MAX; break;
        case VT_UI4: lo = 0, hi = UINT32_MAX; break;
        default: lo = INT64_MIN, hi = INT64_MAX; break;
      }
      std::string_view digits = s;
      if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
      if (vt == VT_UI8) {
        uint64_t v = 0;
        auto r = std::from_chars(digits.data(), digits.data() + digits.size(), v);
        if (r.ec == std::errc::result_out_of_range) {
          why = "value " + Quoted(s) + " is out of range for VT_UI8";
          return false;
        }
        if (digits.empty() || r.ec != std::errc() || r.ptr != digits.data() + digits.size()) break;
        sample.integer = static_cast<int64_t>(v);
        return true;
      }
      int64_t v = 0;
      auto r = std::from_chars(digits.data(), digits.data() + digits.size(), v);
      const bool whole = !digits.empty() && r.ptr == digits.data() + digits.size();
      if (whole && (r.ec == std::errc::result_out_of_range || v < lo || v > hi)) {
        why = "value " + Quoted(s) + " is out of range for " + NameOf(vt);
        return false;
      }
      if (!whole || r.ec != std::errc()) break;
      sample.integer = v;
      return true;
    }
  }
  why = "value " + Quoted(s) + " is not a " + NameOf(vt);
  return false;
}

// The `count` digits of `s` from `at`, which the caller has checked are there.
bool ReadDigits(std::string_view s, size_t at, size_t count, int* out) {
  unsigned v = 0;
  for (size_t i = at; i < at + count; ++i) {
    const unsigned digit = static_cast<unsigned>(s[i] - '0');
    if (digit > 9) return false;
    v = v * 10 + digit;
  }
  *out = static_cast<int>(v);
  return true;
}

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
int64_t DaysFromCivil(int y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace

bool CCsvLoader::ParseTimestamp(std::string_view s, ULONGLONG* filetime) {
  // YYYY-MM-DD?HH:MM:SS[.fffffff][Z]
  int year, month, day, hour, minute, second;
  if (s.size() < 19 || !ReadDigits(s, 0, 4, &year) || s[4] != '-' || !ReadDigits(s, 5, 2, &month) || s[7] != '-' ||
      !ReadDigits(s, 8, 2, &day) || (s[10] != ' ' && s[10] != 'T') || !ReadDigits(s, 11, 2, &hour) ||
      s[13] != ':' || !ReadDigits(s, 14, 2, &minute) || s[16] != ':' || !ReadDigits(s, 17, 2, &second))
    return false;
  const bool isoForm = s[10] == 'T';
  size_t pos = 19;
  int64_t fraction = 0;  // 100 ns units
  if (pos < s.size() && s[pos] == '.') {
    ++pos;
    size_t digits = 0;
    int64_t scale = 1000000;
    while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
      if (++digits > 7) return false;
      fraction += (s[pos] - '0') * scale;
      scale /= 10;
      ++pos;
    }
    if (!digits) return false;
  }
  if (pos < s.size() && s[pos] == 'Z' && isoForm) ++pos;
  if (pos != s.size()) return false;

  if (year < 1601 || month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59) return false;
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (day > kDays[month - 1] + (month == 2 && leap ? 1 : 0)) return false;

  const int64_t days = DaysFromCivil(year, month, day) + 134774;  // 1601-01-01 .. 1970-01-01
  const int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second;
  *filetime = static_cast<ULONGLONG>(seconds) * 10000000ull + static_cast<ULONGLONG>(fraction);
  return true;
}

namespace {

// Where the text of a load comes from; it can be read again from the start, which only
// a refused load needs, to find the line of a sample the store refused.
struct Source {
  std::string_view text;
  std::string path;  // read from the file when not empty
  std::unique_ptr<RecordReader> Open(FILE** file) const {
    if (path.empty()) return std::make_unique<RecordReader>(text);
    *file = corvane::platform::OpenFile(path, "rb");
    return *file ? std::make_unique<RecordReader>(*file) : nullptr;
  }
};

// One load: the file's records become, tag by tag, columns in the store's own form, and
// the store takes them over in one step at the end. Nothing else of the file is held.
class Load {
 public:
  Load(CHistorianStore& store, const Source& source, WStringView fileName, CsvLoadReport& out)
      : store_(store), source_(source), fileName_(fileName), file_(ToUtf8(fileName)), out_(out) {}

  HRESULT Run() {
    FILE* file = nullptr;
    std::unique_ptr<RecordReader> reader = source_.Open(&file);
    if (!reader) return NotOpened();
    HRESULT hr = ReadAll(*reader);
    const bool readFailed = reader->ReadFailed();
    if (file) std::fclose(file);
    if (readFailed) return NotRead();
    if (FAILED(hr)) return hr;

    std::vector<size_t> taken;
    std::vector<CHistorianStore::Columns> columns;
    columns.reserve(staged_.size());
    size_t samples = 0;
    for (Staged& s : staged_) {
      samples += s.columns.times.size();
      columns.push_back(std::move(s.columns));
    }
    staged_.clear();
    hr = store_.AddColumns(newTags_, columns, &taken);
    if (hr == HIST_E_DATA_ALREADY_PRESENT) return Refused(taken);
    if (FAILED(hr)) {
      out_.error = FromUtf8(file_ + ": the store refused the data");
      CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s (%X)"), out_.error.c_str(), static_cast<unsigned>(hr));
      return hr;
    }
    out_.samples = samples;
    out_.newTags = newTags_.size();
    const WString name(fileName_);
    CVTRACE(TRACE_INFO, OLESTR("[CSV] %s: %u samples loaded, %u tags created"), name.c_str(),
            static_cast<unsigned>(out_.samples), static_cast<unsigned>(out_.newTags));
    return S_OK;
  }

 private:
  struct Staged {
    VARTYPE vt;
    CHistorianStore::Columns columns;
  };

  HRESULT Fail(size_t line, const std::string& reason) {
    out_.errorLine = line;
    out_.error = FromUtf8(line ? file_ + ":" + std::to_string(line) + ": " + reason : file_ + ": " + reason);
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s"), out_.error.c_str());
    return kInvalidData;
  }
  HRESULT NotOpened() {
    out_.error = FromUtf8(source_.path + ": cannot open the file");
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s"), out_.error.c_str());
    return kFileNotFound;
  }
  HRESULT NotRead() {
    out_.error = FromUtf8(source_.path + ": cannot read the file");
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s"), out_.error.c_str());
    return E_FAIL;
  }

  // The next record that is not a blank line.
  bool NextNonBlank(RecordReader& reader, Record& record, std::string& error) {
    while (reader.Next(record, error))
      if (!(record.size() == 1 && !record[0].quoted && Trim(record[0].text).empty())) return true;
    return false;
  }

  // A NUL would cut a name or a text short further on (C strings, BSTR consumers), so a
  // field holding one is refused rather than loaded as something else.
  HRESULT RefuseNul(const Record& record) {
    if (!record.nul) return S_OK;
    for (size_t i = 0; i < record.size(); ++i) {
      if (record[i].text.find('\0') != std::string_view::npos)
        return Fail(record.line, "NUL byte in field " + std::to_string(i + 1));
    }
    return S_OK;
  }

  HRESULT ReadAll(RecordReader& reader) {
    Record record;
    std::string error;
    if (!NextNonBlank(reader, record, error)) return error.empty() ? Fail(0, "no header line") : Fail(record.line, error);
    HRESULT hr = RefuseNul(record);
    if (FAILED(hr)) return hr;
    static const char* const kColumns[] = {"tag", "timestamp", "value", "quality", "vartype"};
    columns_ = record.size();
    bool headerOk = columns_ == 4 || columns_ == 5;
    for (size_t i = 0; headerOk && i < columns_; ++i) headerOk = IEquals(Trim(record[i].text), kColumns[i]);
    if (!headerOk) return Fail(record.line, "the header must be tag,timestamp,value,quality[,vartype]");

    while (NextNonBlank(reader, record, error)) {
      hr = RefuseNul(record);
      if (SUCCEEDED(hr)) hr = Stage(record);
      if (FAILED(hr)) return hr;
    }
    if (!error.empty()) return Fail(record.line, error);
    return S_OK;
  }

  // The staged tag that `tagText` names, made on its first line from the store's tag or
  // the line's type; npos when another tag's line is needed to say (never).
  size_t TagIndex(std::string_view tagText, const Record& record, VARTYPE given) {
    // Lines of one tag mostly follow each other: the last one is compared first.
    if (last_ != kNone && tagText == lastText_) return last_;
    WString name = FromUtf8(tagText);
    WString key = WUpper(name);
    auto known = indexOf_.find(key);
    size_t index;
    if (known != indexOf_.end()) {
      index = known->second;
    } else {
      VARTYPE vt;
      TagDefinition existing;
      if (SUCCEEDED(store_.GetTag(name, &existing))) {
        vt = existing.vartype;
      } else {
        double probe;
        vt = given != VT_EMPTY ? given
                               : static_cast<VARTYPE>(ParseDouble(Trim(record[2].text), &probe) ? VT_R8 : VT_BSTR);
        TagDefinition def;
        def.name = name;
        def.vartype = vt;
        def.stepped = vt != VT_R8 && vt != VT_R4;
        newTags_.push_back(std::move(def));
      }
      index = staged_.size();
      staged_.push_back(Staged{vt, {}});
      staged_.back().columns.name = std::move(name);
      indexOf_.emplace(std::move(key), index);
    }
    last_ = index;
    lastText_.assign(tagText.data(), tagText.size());
    return index;
  }

  HRESULT Stage(const Record& record) {
    const size_t line = record.line;
    if (record.size() != columns_)
      return Fail(line, "expected " + std::to_string(columns_) + " fields, found " + std::to_string(record.size()));
    const std::string_view tagText = Trim(record[0].text);
    if (tagText.empty()) return Fail(line, "empty tag name");
    // The tag of the line before was checked then.
    const bool sameTag = last_ != kNone && tagText == lastText_;
    if ((!sameTag && !ValidUtf8(tagText)) || !ValidUtf8(record[2].text)) return Fail(line, "invalid UTF-8");

    SampleInput sample;
    const std::string_view timeText = Trim(record[1].text);
    if (!CCsvLoader::ParseTimestamp(timeText, &sample.time))
      return Fail(line, "invalid timestamp " + Quoted(timeText));
    const std::string_view qualityText = Trim(record[3].text);
    if (!ParseQuality(qualityText, &sample.quality))
      return Fail(line, "invalid quality " + Quoted(qualityText));
    VARTYPE given = VT_EMPTY;
    if (columns_ == 5) {
      const std::string_view vtText = Trim(record[4].text);
      if (!vtText.empty() && !ParseVartype(vtText, &given))
        return Fail(line, "unknown vartype " + Quoted(vtText));
    }
    // The tag's type: the store's, else the one fixed by its first line in this file.
    Staged& staged = staged_[TagIndex(tagText, record, given)];
    if (given != VT_EMPTY && given != staged.vt)
      return Fail(line, "tag " + Quoted(tagText) + " is " + NameOf(staged.vt) + ", not " + NameOf(given));
    std::string why;
    if (!ParseValue(staged.vt, record[2].text, sample, why)) return Fail(line, why);
    CHistorianStore::Columns& c = staged.columns;
    c.times.push_back(sample.time);
    c.qualities.push_back(sample.quality);
    if (staged.vt == VT_BSTR)
      c.texts.push_back(std::move(sample.text));
    else
      c.bits.push_back(CHistorianStore::ToBits(staged.vt, sample));
    return S_OK;
  }

  // The store refused a sample of some tags: the first such line in the file, found by
  // reading it again and counting each tag's samples.
  HRESULT Refused(const std::vector<size_t>& taken) {
    std::vector<size_t> seen(taken.size(), 0);
    FILE* file = nullptr;
    std::unique_ptr<RecordReader> reader = source_.Open(&file);
    size_t line = 0;
    std::string tag;
    if (reader) {
      Record record;
      std::string error;
      last_ = kNone;
      bool header = true;
      while (line == 0 && NextNonBlank(*reader, record, error)) {
        if (header) {
          header = false;
          continue;
        }
        const std::string_view tagText = Trim(record[0].text);
        const size_t index = TagIndex(tagText, record, VT_EMPTY);
        if (index < taken.size() && seen[index]++ == taken[index]) {
          line = record.line;
          tag = std::string(tagText);
        }
      }
    }
    if (file) std::fclose(file);
    return Fail(line, "tag " + Quoted(tag) + " already has a sample at that time");
  }

  static constexpr size_t kNone = static_cast<size_t>(-1);
  CHistorianStore& store_;
  const Source& source_;
  WStringView fileName_;
  std::string file_;
  CsvLoadReport& out_;
  size_t columns_ = 0;
  std::vector<TagDefinition> newTags_;
  std::vector<Staged> staged_;
  std::unordered_map<WString, size_t> indexOf_;  // by upper-cased name
  size_t last_ = kNone;
  std::string lastText_;
};

}  // namespace

HRESULT CCsvLoader::LoadText(CHistorianStore& store, std::string_view text, WStringView fileName,
                             CsvLoadReport* report) {
  CsvLoadReport local;
  CsvLoadReport& out = report ? *report : local;
  out = CsvLoadReport();
  Source source{text, {}};
  return Load(store, source, fileName, out).Run();
}

HRESULT CCsvLoader::LoadFile(CHistorianStore& store, const std::string& pathUtf8, CsvLoadReport* report) {
  CsvLoadReport local;
  CsvLoadReport& out = report ? *report : local;
  out = CsvLoadReport();
  Source source{{}, pathUtf8};
  const WString name = FromUtf8(pathUtf8);
  return Load(store, source, name, out).Run();
}

}  // namespace corvane::historian
