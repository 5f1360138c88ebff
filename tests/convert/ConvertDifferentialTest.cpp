// One conversion matrix through the provider's own converter and through the system's
// conversion library, in the same process: status, length and bytes must agree, or
// the difference must be one of the expected ones below, each with its reason.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/WideString.h"
#include "provider/store/DataConvert.h"

namespace corvane {
namespace {

const CLSID kSystemLibrary = {0xC8B522D1, 0x5CF3, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};

struct Result {
  HRESULT hr = E_UNEXPECTED;
  DBSTATUS status = 0xBEEF;
  DBLENGTH length = 0xDEAD;
  std::vector<BYTE> value;  // the meaningful bytes of what was written
};

bool Converted(const Result& r) { return r.status == DBSTATUS_S_OK || r.status == DBSTATUS_S_TRUNCATED; }

// A difference is expected when the case's labels match (a full label such as
// "VAR:BOOL", its family such as "VAR", or "*") and the two results look as described.
struct Expected {
  const char* source;
  const char* destination;
  bool (*applies)(const Result& own, const Result& system);
  const char* reason;
};

bool SystemNotImplemented(const Result&, const Result& sys) { return sys.hr == E_NOTIMPL; }
bool SystemAutomationFailure(const Result& own, const Result& sys) {
  return sys.hr == DISP_E_TYPEMISMATCH && own.hr == DB_E_ERRORSOCCURRED && own.status == DBSTATUS_E_CANTCONVERTVALUE;
}
bool SystemOverflowForSign(const Result& own, const Result& sys) {
  return own.status == DBSTATUS_E_SIGNMISMATCH && sys.status == DBSTATUS_E_DATAOVERFLOW;
}
bool SystemKeepsBits(const Result& own, const Result& sys) {
  return own.status == DBSTATUS_E_SIGNMISMATCH && sys.status == DBSTATUS_S_OK;
}
bool SystemCutsIntegerDigits(const Result& own, const Result& sys) {
  return own.status == DBSTATUS_E_DATAOVERFLOW && sys.status == DBSTATUS_S_TRUNCATED;
}
bool SystemRefuses(const Result& own, const Result& sys) {
  return sys.hr == DB_E_UNSUPPORTEDCONVERSION && own.hr != DB_E_UNSUPPORTEDCONVERSION;
}
bool BothConverted(const Result& own, const Result& sys) { return Converted(own) && Converted(sys); }

// Where Wine's conversion library and ours part ways, and why ours is kept as it is.
const Expected kExpectedDifferences[] = {
    {"*", "*", SystemNotImplemented,
     "Wine's library does not implement this conversion (E_NOTIMPL): it has no DBDATE, DBTIME, FILETIME, NUMERIC "
     "or DECIMAL destinations, no by-reference sources, nothing into I8, no numbers into DBTIMESTAMP, and takes "
     "VARIANT sources into few types"},
    {"*", "*", SystemAutomationFailure,
     "for text that does not read as the destination type Wine's library returns the Automation failure "
     "DISP_E_TYPEMISMATCH with status E_BADACCESSOR; OLE DB's answer is DB_E_ERRORSOCCURRED with "
     "E_CANTCONVERTVALUE"},
    {"*", "*", SystemOverflowForSign,
     "a negative value into an unsigned type is E_SIGNMISMATCH in OLE DB; Wine's library reports E_DATAOVERFLOW"},
    {"VAR", "*", SystemKeepsBits,
     "Wine's library takes a VARIANT through VariantChangeType, which keeps the bits between a signed and an "
     "unsigned type of one size (-7 becomes 0xFFFFFFF9); a negative value has no unsigned form"},
    {"*", "*", SystemCutsIntegerDigits,
     "a number's text may lose fraction digits but not integer digits (E_DATAOVERFLOW); Wine's library cuts "
     "any digit and reports S_TRUNCATED"},
    {"I8", "DATE", SystemRefuses, "Wine's library has no 8-byte integer to DATE conversion; VariantChangeType has"},
    {"UI8", "DATE", SystemRefuses, "Wine's library has no 8-byte integer to DATE conversion; VariantChangeType has"},
    {"DATE", "CY", SystemRefuses, "Wine's library has no DATE to CY conversion; VariantChangeType has"},
    {"DATE", "DECIMAL", SystemRefuses, "Wine's library has no DATE to DECIMAL conversion; VariantChangeType has"},
    {"DATE", "NUMERIC", SystemRefuses,
     "Wine's library has no DATE to NUMERIC conversion; VariantChangeType makes it a DECIMAL first"},
    {"I8", "VARIANT", BothConverted,
     "Wine's library hands an 8-byte integer over as VT_DECIMAL; the provider keeps VT_I8, the type its "
     "columns declare"},
    {"TS:frac", "*", BothConverted,
     "Wine's library drops the fraction of a second when a timestamp becomes a DATE"},
    {"VAR:BOOL", "*", BothConverted,
     "Wine's library writes a BOOL held in a VARIANT as \"-1\" but a DBTYPE_BOOL as \"True\"; the provider "
     "writes both as \"True\""},
};

bool Matches(const char* pattern, const std::string& label) {
  if (std::strcmp(pattern, "*") == 0 || label == pattern) return true;
  return label.compare(0, label.find(':'), pattern) == 0 && std::strchr(pattern, ':') == nullptr;
}

const Expected* FindExpected(const std::string& src, const std::string& dst, const Result& own,
                             const Result& sys) {
  for (const Expected& e : kExpectedDifferences) {
    if (Matches(e.source, src) && Matches(e.destination, dst) && e.applies(own, sys)) return &e;
  }
  return nullptr;
}

// One source value: its type and bytes. By-reference sources point into `text`.
struct SourceCase {
  std::string label;
  DBTYPE type;
  std::vector<BYTE> bytes;
  WString wide;      // keeps WSTR text (and BYREF targets) alive
  std::string narrow;
  BSTR bstr = nullptr;
  VARIANT variant;
  const void* pointer = nullptr;

  void* Data() {
    if (type == DBTYPE_VARIANT) return &variant;
    if (type == DBTYPE_WSTR) return &wide[0];
    if (type == DBTYPE_STR) return &narrow[0];
    if (type == DBTYPE_BSTR) return &bstr;
    if (type & DBTYPE_BYREF) return &pointer;
    return bytes.data();
  }
};

struct DestinationCase {
  std::string label;
  DBTYPE type;
  DBLENGTH max;
  BYTE precision;
  BYTE scale;
};

std::string Hex(const std::vector<BYTE>& bytes) {
  std::string out;
  char buf[4];
  for (BYTE b : bytes) {
    std::snprintf(buf, sizeof buf, "%02x", b);
    out += buf;
  }
  return out;
}

std::string Describe(const Result& r) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "hr=%08lx status=%lu length=%llu value=", static_cast<unsigned long>(r.hr),
                static_cast<unsigned long>(r.status), static_cast<unsigned long long>(r.length));
  return buf + Hex(r.value);
}

void AppendBytes(std::vector<BYTE>& out, const void* p, size_t n) {
  const auto* b = static_cast<const BYTE*>(p);
  out.insert(out.end(), b, b + n);
}

// Reads back what a conversion wrote, freeing what it allocated.
void Capture(const DestinationCase& d, BYTE* buffer, Result& r) {
  if (!Converted(r)) return;
  const DBTYPE base = d.type & ~DBTYPE_BYREF;
  if (d.type & DBTYPE_BYREF) {
    void* block = *reinterpret_cast<void**>(buffer);
    if (block != nullptr) AppendBytes(r.value, block, static_cast<size_t>(r.length) + (base == DBTYPE_WSTR ? 2 : 1));
    CoTaskMemFree(block);
  } else if (base == DBTYPE_BSTR) {
    BSTR b = *reinterpret_cast<BSTR*>(buffer);
    AppendBytes(r.value, b, SysStringByteLen(b));
    SysFreeString(b);
  } else if (base == DBTYPE_VARIANT) {
    auto* v = reinterpret_cast<VARIANT*>(buffer);
    AppendBytes(r.value, &V_VT(v), sizeof(VARTYPE));
    if (V_VT(v) == VT_BSTR) {
      AppendBytes(r.value, V_BSTR(v), SysStringByteLen(V_BSTR(v)));
    } else if (V_VT(v) == VT_DECIMAL) {
      AppendBytes(r.value, reinterpret_cast<BYTE*>(v) + 2, sizeof(DECIMAL) - 2);
    } else {
      DBLENGTH size = 8;
      if (V_VT(v) == VT_I1 || V_VT(v) == VT_UI1) size = 1;
      if (V_VT(v) == VT_I2 || V_VT(v) == VT_UI2 || V_VT(v) == VT_BOOL) size = 2;
      if (V_VT(v) == VT_I4 || V_VT(v) == VT_UI4 || V_VT(v) == VT_R4) size = 4;
      AppendBytes(r.value, &V_I8(v), static_cast<size_t>(size));
    }
    VariantClear(v);
  } else if (base == DBTYPE_WSTR || base == DBTYPE_STR) {
    const size_t unit = base == DBTYPE_WSTR ? 2 : 1;
    size_t n = static_cast<size_t>(r.length < d.max ? r.length : d.max);
    n = n / unit * unit;
    if (n + unit > d.max) n = static_cast<size_t>(d.max / unit * unit) - unit;
    AppendBytes(r.value, buffer, n + unit);
  } else {
    AppendBytes(r.value, buffer, static_cast<size_t>(r.length < 32 ? r.length : 32));
  }
}

Result RunOne(IDataConvert* convert, SourceCase& s, const DestinationCase& d) {
  alignas(16) BYTE buffer[128];
  std::memset(buffer, 0, sizeof buffer);
  if ((d.type & ~DBTYPE_BYREF) == DBTYPE_VARIANT) VariantInit(reinterpret_cast<VARIANT*>(buffer));
  Result r;
  r.hr = convert->DataConvert(s.type, d.type, 0, &r.length, s.Data(), buffer, d.max, DBSTATUS_S_OK, &r.status,
                              d.precision, d.scale, DBDATACONVERT_LENGTHFROMNTS);
  Capture(d, buffer, r);
  return r;
}

bool Same(const Result& a, const Result& b) {
  if (a.hr != b.hr || a.status != b.status) return false;
  // Length and value mean something only for a converted value.
  if (!Converted(a)) return true;
  return a.length == b.length && a.value == b.value;
}

template <typename T>
SourceCase Fixed(const char* label, DBTYPE type, T value) {
  SourceCase s;
  s.label = label;
  s.type = type;
  AppendBytes(s.bytes, &value, sizeof value);
  return s;
}

SourceCase Wide(const char* label, const char* text) {
  SourceCase s;
  s.label = label;
  s.type = DBTYPE_WSTR;
  s.wide = FromUtf8(text);
  return s;
}

SourceCase Narrow(const char* label, const char* text) {
  SourceCase s;
  s.label = label;
  s.type = DBTYPE_STR;
  s.narrow = text;
  return s;
}

std::vector<SourceCase> Sources() {
  std::vector<SourceCase> list;
  list.push_back(Fixed<CHAR>("I1:-5", DBTYPE_I1, -5));
  list.push_back(Fixed<SHORT>("I2:-1", DBTYPE_I2, -1));
  list.push_back(Fixed<SHORT>("I2:300", DBTYPE_I2, 300));
  list.push_back(Fixed<LONG>("I4:-5", DBTYPE_I4, -5));
  list.push_back(Fixed<LONG>("I4:70000", DBTYPE_I4, 70000));
  list.push_back(Fixed<LONGLONG>("I8:5e9", DBTYPE_I8, 5000000000LL));
  list.push_back(Fixed<BYTE>("UI1:200", DBTYPE_UI1, 200));
  list.push_back(Fixed<USHORT>("UI2:65535", DBTYPE_UI2, 65535));
  list.push_back(Fixed<ULONG>("UI4:192", DBTYPE_UI4, 192));
  list.push_back(Fixed<ULONG>("UI4:max", DBTYPE_UI4, 0xFFFFFFFFu));
  list.push_back(Fixed<ULONGLONG>("UI8:2^40", DBTYPE_UI8, 1ULL << 40));
  list.push_back(Fixed<float>("R4:1.5", DBTYPE_R4, 1.5f));
  list.push_back(Fixed<float>("R4:-2.5", DBTYPE_R4, -2.5f));
  list.push_back(Fixed<double>("R8:1.5", DBTYPE_R8, 1.5));
  list.push_back(Fixed<double>("R8:-12.345", DBTYPE_R8, -12.345));
  list.push_back(Fixed<double>("R8:1e30", DBTYPE_R8, 1e30));
  list.push_back(Fixed<double>("R8:123456.75", DBTYPE_R8, 123456.75));
  list.push_back(Fixed<VARIANT_BOOL>("BOOL:true", DBTYPE_BOOL, VARIANT_TRUE));
  list.push_back(Fixed<VARIANT_BOOL>("BOOL:false", DBTYPE_BOOL, VARIANT_FALSE));
  list.push_back(Fixed<DATE>("DATE:37623.25", DBTYPE_DATE, 37623.25));
  list.push_back(Fixed<DATE>("DATE:-1.5", DBTYPE_DATE, -1.5));
  list.push_back(Fixed<DBTIMESTAMP>("TS:frac", DBTYPE_DBTIMESTAMP, DBTIMESTAMP{2003, 1, 2, 4, 5, 6, 123000000}));
  list.push_back(Fixed<DBTIMESTAMP>("TS:whole", DBTYPE_DBTIMESTAMP, DBTIMESTAMP{2024, 2, 29, 0, 0, 0, 0}));
  list.push_back(Wide("WSTR:hello", "hello"));
  list.push_back(Wide("WSTR:12.5", "12.5"));
  list.push_back(Wide("WSTR:-3", "-3"));
  list.push_back(Wide("WSTR:iso", "2003-01-02 04:05:06"));
  list.push_back(Wide("WSTR:True", "True"));
  list.push_back(Wide("WSTR:empty", ""));
  list.push_back(Narrow("STR:hello", "hello"));
  list.push_back(Narrow("STR:70000", "70000"));
  SourceCase b;
  b.label = "BSTR:123";
  b.type = DBTYPE_BSTR;
  b.bstr = SysAllocString(OLESTR("123"));
  list.push_back(b);
  SourceCase wref = Wide("WSTRREF:ref", "ref");
  wref.label = "WSTRREF";
  wref.type = DBTYPE_WSTR | DBTYPE_BYREF;
  list.push_back(wref);
  SourceCase sref = Narrow("STRREF:ref", "ref");
  sref.label = "STRREF";
  sref.type = DBTYPE_STR | DBTYPE_BYREF;
  list.push_back(sref);
  struct {
    const char* label;
    VARTYPE vt;
    double r8;
    LONG i4;
    const OLECHAR* text;
  } variants[] = {
      {"VAR:R8", VT_R8, 2.25, 0, nullptr},     {"VAR:I4", VT_I4, 0, -7, nullptr},
      {"VAR:BSTR42", VT_BSTR, 0, 0, OLESTR("42")}, {"VAR:BSTRabc", VT_BSTR, 0, 0, OLESTR("abc")},
      {"VAR:NULL", VT_NULL, 0, 0, nullptr},    {"VAR:EMPTY", VT_EMPTY, 0, 0, nullptr},
      {"VAR:DATE", VT_DATE, 37623.75, 0, nullptr}, {"VAR:BOOL", VT_BOOL, 0, VARIANT_TRUE, nullptr},
  };
  for (const auto& v : variants) {
    SourceCase s;
    s.label = v.label;
    s.type = DBTYPE_VARIANT;
    VariantInit(&s.variant);
    V_VT(&s.variant) = v.vt;
    if (v.vt == VT_R8 || v.vt == VT_DATE) V_R8(&s.variant) = v.r8;
    if (v.vt == VT_I4) V_I4(&s.variant) = v.i4;
    if (v.vt == VT_BOOL) V_BOOL(&s.variant) = static_cast<VARIANT_BOOL>(v.i4);
    if (v.vt == VT_BSTR) V_BSTR(&s.variant) = SysAllocString(v.text);
    list.push_back(s);
  }
  for (SourceCase& s : list) {
    if (s.type == (DBTYPE_WSTR | DBTYPE_BYREF)) s.pointer = s.wide.c_str();
    if (s.type == (DBTYPE_STR | DBTYPE_BYREF)) s.pointer = s.narrow.c_str();
  }
  return list;
}

std::vector<DestinationCase> Destinations() {
  return {
      {"I1", DBTYPE_I1, 0, 0, 0},         {"I2", DBTYPE_I2, 0, 0, 0},
      {"I4", DBTYPE_I4, 0, 0, 0},         {"I8", DBTYPE_I8, 0, 0, 0},
      {"UI1", DBTYPE_UI1, 0, 0, 0},       {"UI2", DBTYPE_UI2, 0, 0, 0},
      {"UI4", DBTYPE_UI4, 0, 0, 0},       {"UI8", DBTYPE_UI8, 0, 0, 0},
      {"R4", DBTYPE_R4, 0, 0, 0},         {"R8", DBTYPE_R8, 0, 0, 0},
      {"BOOL", DBTYPE_BOOL, 0, 0, 0},     {"DATE", DBTYPE_DATE, 0, 0, 0},
      {"CY", DBTYPE_CY, 0, 0, 0},         {"DECIMAL", DBTYPE_DECIMAL, 0, 0, 0},
      {"NUMERIC", DBTYPE_NUMERIC, 0, 10, 2}, {"DBTIMESTAMP", DBTYPE_DBTIMESTAMP, 0, 0, 0},
      {"DBDATE", DBTYPE_DBDATE, 0, 0, 0}, {"DBTIME", DBTYPE_DBTIME, 0, 0, 0},
      {"FILETIME", DBTYPE_FILETIME, 0, 0, 0}, {"VARIANT", DBTYPE_VARIANT, 0, 0, 0},
      {"WSTR", DBTYPE_WSTR, 80, 0, 0},    {"WSTR6", DBTYPE_WSTR, 6, 0, 0},
      {"STR", DBTYPE_STR, 40, 0, 0},      {"STR3", DBTYPE_STR, 3, 0, 0},
      {"BSTR", DBTYPE_BSTR, 0, 0, 0},     {"WSTRREF", DBTYPE_WSTR | DBTYPE_BYREF, 0, 0, 0},
  };
}

TEST(ConvertDifferential, OwnConverterAgreesWithTheSystemLibrary) {
  ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
  IDataConvert* system = nullptr;
  HRESULT hr = CoCreateInstance(kSystemLibrary, nullptr, CLSCTX_INPROC_SERVER, IID_IDataConvert,
                                reinterpret_cast<void**>(&system));
  if (FAILED(hr)) {
    CoUninitialize();
    GTEST_SKIP() << "no system conversion library (hr " << std::hex << hr << ")";
  }
  IDataConvert* own = nullptr;
  ASSERT_EQ(S_OK, CreateOwnDataConvert(&own));

  std::vector<SourceCase> sources = Sources();
  int cases = 0, equal = 0, listed = 0;
  std::vector<std::string> unexplained;
  std::vector<std::vector<std::string>> byRule(sizeof kExpectedDifferences / sizeof kExpectedDifferences[0]);
  for (SourceCase& s : sources) {
    for (const DestinationCase& d : Destinations()) {
      ++cases;
      const Result mine = RunOne(own, s, d);
      const Result theirs = RunOne(system, s, d);
      const std::string id = s.label + "->" + d.label;
      if (Same(mine, theirs)) {
        ++equal;
        continue;
      }
      const Expected* e = FindExpected(s.label, d.label, mine, theirs);
      if (e != nullptr) {
        ++listed;
        byRule[static_cast<size_t>(e - kExpectedDifferences)].push_back(id);
        continue;
      }
      unexplained.push_back(id + "\n    own:    " + Describe(mine) + "\n    system: " + Describe(theirs));
    }
  }
  for (size_t k = 0; k < byRule.size(); ++k) {
    if (byRule[k].empty()) continue;
    std::string ids;
    for (const std::string& id : byRule[k]) ids += " " + id;
    std::printf("expected difference (%d cases): %s\n   %s\n", static_cast<int>(byRule[k].size()),
                kExpectedDifferences[k].reason, ids.c_str());
  }
  std::printf("conversion matrix: %d cases, %d equal, %d listed differences, %d unexplained\n", cases, equal,
              listed, static_cast<int>(unexplained.size()));
  for (const std::string& u : unexplained) ADD_FAILURE() << "unexplained difference " << u;

  for (SourceCase& s : sources) {
    if (s.type == DBTYPE_VARIANT) VariantClear(&s.variant);
    if (s.type == DBTYPE_BSTR) SysFreeString(s.bstr);
  }
  own->Release();
  system->Release();
  CoUninitialize();
}

}  // namespace
}  // namespace corvane
