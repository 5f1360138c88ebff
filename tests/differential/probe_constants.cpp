// Prints the value of every constant, result code and GUID that the POSIX layer declares and the Windows SDK also has,
// one line per name. Natively the values come from platform/posix/*.h; the Windows build compiles the same list against
// the SDK headers, so comparing the two outputs checks every published value we copied. list_constants.py writes the
// list from the layer's headers, so a new constant is compared as soon as it is declared.
#define DBINITCONSTANTS  // the SDK defines its OLE DB GUIDs only on request
#include <cinttypes>
#include <cstdint>
#include <type_traits>

#include "ProbeSupport.h"
#ifdef _WIN32
#include <msdaguid.h>
#endif

namespace {

template <typename T>
void Value(probe::Output& out, const char* name, T value) {
  static_assert(std::is_integral<T>::value || std::is_enum<T>::value, "a numeric constant");
  using U = typename std::conditional<std::is_enum<T>::value, std::underlying_type<T>, std::common_type<T>>::type::type;
  const U v = static_cast<U>(value);
  out.Line(name, S_OK, std::is_signed<U>::value ? "SIGNED" : "UNSIGNED",
           std::is_signed<U>::value ? probe::Int(static_cast<int64_t>(v)) : probe::UInt(static_cast<uint64_t>(v)));
}

void Guid(probe::Output& out, const char* name, const GUID& g) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "{%08" PRIX32 "-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", uint32_t(g.Data1),
                unsigned(g.Data2), unsigned(g.Data3), g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4],
                g.Data4[5], g.Data4[6], g.Data4[7]);
  out.Line(name, S_OK, "GUID", buf);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Output out(argc, argv);
  if (!out.ok()) return 1;
#define V(name) Value(out, #name, name);
#define G(name) Guid(out, #name, name);
#include "constants.inc"
#undef V
#undef G

  return 0;
}
