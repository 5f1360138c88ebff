#include "historian/CsvLoader.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <unordered_map>

#include "provider/Trace.h"

namespace corvane::historian {

namespace {

const HRESULT kInvalidData = static_cast<HRESULT>(0x8007000DL);  // HRESULT_FROM_WIN32(ERROR_INVALID_DATA)
const HRESULT kFileNotFound = static_cast<HRESULT>(0x80070002L);  // HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)

struct Field {
  std::string text;
  bool quoted = false;
};

struct Record {
  size_t line = 0;  // where the record starts
  std::vector<Field> fields;
};

// Splits CSV text into records by RFC 4180, counting lines so that every record knows
// where it starts (a quoted field may span lines).
class RecordReader {
 public:
  explicit RecordReader(std::string_view text) : text_(text) {
    if (text_.size() >= 3 && text_.substr(0, 3) == "\xEF\xBB\xBF") pos_ = 3;
  }

  // False at the end of the text or on an error (then `error` is set).
  bool Next(Record& record, std::string& error) {
    record.fields.clear();
    if (pos_ >= text_.size()) return false;
    record.line = line_;
    for (;;) {
      Field field;
      if (pos_ < text_.size() && text_[pos_] == '"') {
        field.quoted = true;
        ++pos_;
        for (;;) {
          if (pos_ >= text_.size()) {
            error = "unterminated quoted field";
            return false;
          }
          char c = text_[pos_++];
          if (c == '"') {
            if (pos_ < text_.size() && text_[pos_] == '"') {
              field.text.push_back('"');
              ++pos_;
              continue;
            }
            break;
          }
          if (c == '\n') ++line_;
          field.text.push_back(c);
        }
        if (pos_ < text_.size() && text_[pos_] != ',' && !AtLineEnd()) {
          error = "unexpected character after a closing quote";
          return false;
        }
      } else {
        while (pos_ < text_.size() && text_[pos_] != ',' && !AtLineEnd()) {
          if (text_[pos_] == '"') {
            error = "quote inside an unquoted field";
            return false;
          }
          field.text.push_back(text_[pos_++]);
        }
      }
      record.fields.push_back(std::move(field));
      if (pos_ < text_.size() && text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      // End of the line or of the text.
      if (pos_ < text_.size()) {
        pos_ += text_[pos_] == '\r' ? 2 : 1;
        ++line_;
      }
      return true;
    }
  }

 private:
  bool AtLineEnd() const {
    return text_[pos_] == '\n' || (text_[pos_] == '\r' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '\n');
  }
  std::string_view text_;
  size_t pos_ = 0;
  size_t line_ = 1;
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

bool ParseDouble(std::string_view s, double* out) {
  if (s.empty()) return false;
  if (s.front() == '+') s.remove_prefix(1);
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

// Reads `s` as a value of type `vt` into `sample`; false with `why` set when it is not.
bool ParseValue(VARTYPE vt, const Field& field, SampleInput& sample, std::string& why) {
  const std::string_view s = Trim(field.text);
  switch (vt) {
    case VT_BSTR:
      sample.text = FromUtf8(field.text);
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

bool ReadDigits(std::string_view s, size_t at, size_t count, int* out) {
  if (at + count > s.size()) return false;
  int v = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  *out = v;
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

HRESULT CCsvLoader::LoadText(CHistorianStore& store, std::string_view text, WStringView fileName,
                             CsvLoadReport* report) {
  CsvLoadReport local;
  CsvLoadReport& out = report ? *report : local;
  out = CsvLoadReport();
  const std::string file = ToUtf8(fileName);

  auto fail = [&](size_t line, const std::string& reason) {
    out.errorLine = line;
    out.error = FromUtf8(line ? file + ":" + std::to_string(line) + ": " + reason : file + ": " + reason);
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s"), out.error.c_str());
    return kInvalidData;
  };

  RecordReader reader(text);
  Record record;
  std::string error;
  auto nextNonBlank = [&]() {
    while (reader.Next(record, error))
      if (!(record.fields.size() == 1 && !record.fields[0].quoted && Trim(record.fields[0].text).empty()))
        return true;
    return false;
  };

  // A NUL would cut a name or a text short further on (C strings, BSTR consumers), so a
  // field holding one is refused rather than loaded as something else.
  auto nulField = [&]() -> size_t {
    for (size_t i = 0; i < record.fields.size(); ++i)
      if (record.fields[i].text.find('\0') != std::string::npos) return i + 1;
    return 0;
  };
  auto nulMessage = [](size_t field) { return "NUL byte in field " + std::to_string(field); };

  // Header.
  if (!nextNonBlank()) return error.empty() ? fail(0, "no header line") : fail(record.line, error);
  if (const size_t field = nulField()) return fail(record.line, nulMessage(field));
  static const char* const kColumns[] = {"tag", "timestamp", "value", "quality", "vartype"};
  const size_t columns = record.fields.size();
  bool headerOk = columns == 4 || columns == 5;
  for (size_t i = 0; headerOk && i < columns; ++i) headerOk = IEquals(Trim(record.fields[i].text), kColumns[i]);
  if (!headerOk) return fail(record.line, "the header must be tag,timestamp,value,quality[,vartype]");

  std::vector<TagDefinition> newTags;
  std::unordered_map<WString, VARTYPE> typeOf;  // by upper-cased name, for tags met in this file
  std::vector<CHistorianStore::BatchEntry> entries;
  std::vector<size_t> lineOf;

  while (nextNonBlank()) {
    const size_t line = record.line;
    if (const size_t field = nulField()) return fail(line, nulMessage(field));
    if (record.fields.size() != columns)
      return fail(line, "expected " + std::to_string(columns) + " fields, found " + std::to_string(record.fields.size()));
    const std::string_view tagText = Trim(record.fields[0].text);
    if (tagText.empty()) return fail(line, "empty tag name");
    if (!ValidUtf8(tagText) || !ValidUtf8(record.fields[2].text)) return fail(line, "invalid UTF-8");

    CHistorianStore::BatchEntry entry;
    entry.tagName = FromUtf8(tagText);
    const std::string_view timeText = Trim(record.fields[1].text);
    if (!ParseTimestamp(timeText, &entry.sample.time)) return fail(line, "invalid timestamp " + Quoted(timeText));
    const std::string_view qualityText = Trim(record.fields[3].text);
    if (!ParseQuality(qualityText, &entry.sample.quality))
      return fail(line, "invalid quality " + Quoted(qualityText));
    VARTYPE given = VT_EMPTY;
    if (columns == 5) {
      const std::string_view vtText = Trim(record.fields[4].text);
      if (!vtText.empty() && !ParseVartype(vtText, &given))
        return fail(line, "unknown vartype " + Quoted(vtText));
    }

    // The tag's type: the store's, else the one fixed by its first line in this file.
    const WString key = WUpper(entry.tagName);
    VARTYPE vt = VT_EMPTY;
    auto known = typeOf.find(key);
    if (known != typeOf.end()) {
      vt = known->second;
    } else {
      TagDefinition existing;
      if (SUCCEEDED(store.GetTag(entry.tagName, &existing))) {
        vt = existing.vartype;
      } else {
        double probe;
        vt = given != VT_EMPTY ? given
                                : static_cast<VARTYPE>(ParseDouble(Trim(record.fields[2].text), &probe) ? VT_R8 : VT_BSTR);
        TagDefinition def;
        def.name = entry.tagName;
        def.vartype = vt;
        def.stepped = vt != VT_R8 && vt != VT_R4;
        newTags.push_back(std::move(def));
      }
      typeOf.emplace(key, vt);
    }
    if (given != VT_EMPTY && given != vt)
      return fail(line, "tag " + Quoted(tagText) + " is " + NameOf(vt) + ", not " + NameOf(given));
    std::string why;
    if (!ParseValue(vt, record.fields[2], entry.sample, why)) return fail(line, why);
    entries.push_back(std::move(entry));
    lineOf.push_back(line);
  }
  if (!error.empty()) return fail(record.line, error);

  size_t failed = 0;
  HRESULT hr = store.AddBatch(newTags, entries, &failed);
  if (hr == HIST_E_DATA_ALREADY_PRESENT)
    return fail(lineOf[failed], "tag " + Quoted(ToUtf8(entries[failed].tagName)) + " already has a sample at that time");
  if (FAILED(hr)) {
    out.error = FromUtf8(file + ": the store refused the data");
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s (%X)"), out.error.c_str(), static_cast<unsigned>(hr));
    return hr;
  }
  out.samples = entries.size();
  out.newTags = newTags.size();
  const WString name(fileName);
  CVTRACE(TRACE_INFO, OLESTR("[CSV] %s: %u samples loaded, %u tags created"), name.c_str(),
          static_cast<unsigned>(out.samples), static_cast<unsigned>(out.newTags));
  return S_OK;
}

HRESULT CCsvLoader::LoadFile(CHistorianStore& store, const std::string& pathUtf8, CsvLoadReport* report) {
  CsvLoadReport local;
  CsvLoadReport& out = report ? *report : local;
  out = CsvLoadReport();
#ifdef _WIN32
  const WString widePath = FromUtf8(pathUtf8);
  FILE* f = _wfopen(reinterpret_cast<const wchar_t*>(widePath.c_str()), L"rb");
#else
  FILE* f = std::fopen(pathUtf8.c_str(), "rb");
#endif
  if (!f) {
    out.error = FromUtf8(pathUtf8 + ": cannot open the file");
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s"), out.error.c_str());
    return kFileNotFound;
  }
  std::string text;
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, n);
  const bool readError = std::ferror(f) != 0;
  std::fclose(f);
  if (readError) {
    out.error = FromUtf8(pathUtf8 + ": cannot read the file");
    CVTRACE(TRACE_ERROR, OLESTR("[CSV] %s"), out.error.c_str());
    return E_FAIL;
  }
  return LoadText(store, text, FromUtf8(pathUtf8), report ? report : &out);
}

}  // namespace corvane::historian
