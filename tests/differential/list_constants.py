#!/usr/bin/env python3
"""Writes V(NAME) or G(NAME) for every constant and GUID the POSIX layer's headers declare,
so that probe_constants prints each one: list_constants.py <header dir> <output file>.
The layer's helper macros are not constants, and the SDK lacks a few names; both stay out."""
import glob
import re
import sys

NOT_IN_SDK = {"CHARS_IN_GUID", "DBCIDGUID", "DBGUID_ROWDEFAULTSTREAM", "DBGUID_ROWURL", "DB_NULLGUID",
              "IID_IRowsetIdentity", "SELFREG_E_CLASS"}
HELPER_MACROS = {"Bstr", "Com", "PURE", "REFCLSID", "REFGUID", "REFIID", "STDAPI", "STDMETHODIMP"}
DECLARATION = re.compile(r"^#define +([A-Z]\w*) +(\S+)|CORVANE_DEFINE_GUID\((\w+), *0x|\benum\b[^{;]*\{([^}]*)\}", re.M)

header_dir, output = sys.argv[1:3]
guids, lines = set(), []
for path in sorted(glob.glob(header_dir + "/*.h")):
    with open(path, encoding="utf-8") as f:
        text = re.sub(r"/\*.*?\*/|//[^\n]*", "", f.read(), flags=re.S)
    for define, value, guid, members in DECLARATION.findall(text):
        if guid:
            guids.add(guid)
            lines.append("G(%s)" % guid)
        elif define:
            lines.append("%s(%s)" % ("G" if value in guids else "V", define))
        else:
            lines += ["V(%s)" % m.split("=")[0].strip() for m in members.split(",") if m.strip()]
skip = NOT_IN_SDK | HELPER_MACROS
with open(output, "w", encoding="utf-8") as f:
    f.writelines(line + "\n" for line in lines if line[2:-1] not in skip)
