// The OLE DB property machinery shared by the data source, session, command and
// rowsets: a table of property sets (set GUID, property id, type, default, flags,
// description) and the current values, with the standard GetProperties,
// SetProperties and GetPropertyInfo rules (status per property, DB_S_/DB_E_ERRORSOCCURRED,
// required versus optional, DBPROPSET_PROPERTIESINERROR, the special "ALL" sets of
// GetPropertyInfo) and all out-memory allocated with CoTaskMemAlloc.
#pragma once
#include <mutex>
#include <vector>

#include "platform/Platform.h"

namespace corvane {

// The default value of one property. Strings are literals that outlive the table.
struct PropertyDefault {
  VARTYPE type = VT_EMPTY;
  LONG number = 0;                     // VT_I2, VT_I4 (also unsigned values stored bitwise)
  bool boolean = false;                // VT_BOOL
  const OLECHAR* text = nullptr;       // VT_BSTR
  static PropertyDefault I2(SHORT v) { PropertyDefault d; d.type = VT_I2; d.number = v; return d; }
  static PropertyDefault I4(LONG v) { PropertyDefault d; d.type = VT_I4; d.number = v; return d; }
  static PropertyDefault Bool(bool v) { PropertyDefault d; d.type = VT_BOOL; d.boolean = v; return d; }
  static PropertyDefault Text(const OLECHAR* v) { PropertyDefault d; d.type = VT_BSTR; d.text = v; return d; }
};

struct PropertyDefinition {
  DBPROPID id;
  // DBPROPFLAGS_READ / WRITE / REQUIRED and the object-kind flags (DBINIT, ROWSET...).
  // The type of the value is the type of `value`.
  DBPROPFLAGS flags;
  PropertyDefault value;
  const OLECHAR* description;
};

struct PropertySetDefinition {
  const GUID* set;
  // The group this set belongs to (DBPROPFLAGS_DBINIT, DBPROPFLAGS_DATASOURCEINFO,
  // DBPROPFLAGS_DATASOURCE, DBPROPFLAGS_SESSION, DBPROPFLAGS_ROWSET...): the special
  // set DBPROPSET_<group>ALL of GetPropertyInfo names every set of the group, and the
  // owner decides which groups are visible and settable at a given moment.
  DBPROPFLAGS group;
  const PropertyDefinition* properties;
  size_t count;
};

class CPropertyEngine {
 public:
  // How SetProperties reports failures.
  enum class SetMode {
    // IDBProperties / ISessionProperties / ICommandProperties: DB_S_ERRORSOCCURRED when
    // some were set, DB_E_ERRORSOCCURRED when none was.
    Each,
    // Opening an object with properties (IOpenRowset, ICommand::Execute): any failed
    // REQUIRED property fails the whole call with DB_E_ERRORSOCCURRED and changes
    // nothing; failed OPTIONAL ones only give DB_S_ERRORSOCCURRED.
    AllRequired,
  };

  // `sets` must outlive the engine (static tables).
  CPropertyEngine(const PropertySetDefinition* sets, size_t count);
  ~CPropertyEngine();
  CPropertyEngine(const CPropertyEngine&) = delete;
  CPropertyEngine& operator=(const CPropertyEngine&) = delete;

  // Groups whose properties exist for the consumer right now (others answer
  // NOTSUPPORTED), and groups whose writable properties may be changed right now (the
  // others answer NOTSETTABLE). Both default to every group.
  void SetVisibleGroups(DBPROPFLAGS groups);
  void SetSettableGroups(DBPROPFLAGS groups);

  HRESULT GetProperties(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[], ULONG* pcPropertySets,
                        DBPROPSET** prgPropertySets) const;
  HRESULT SetProperties(ULONG cPropertySets, DBPROPSET rgPropertySets[], SetMode mode = SetMode::Each);
  HRESULT GetPropertyInfo(ULONG cPropertyIDSets, const DBPROPIDSET rgPropertyIDSets[], ULONG* pcPropertyInfoSets,
                          DBPROPINFOSET** prgPropertyInfoSets, OLECHAR** ppDescBuffer) const;

  // The owner's own access, past the consumer rules. GetValue copies into `out`
  // (VariantInit'ed by the caller); DB_E_NOTFOUND for an unknown property.
  HRESULT GetValue(const GUID& set, DBPROPID id, VARIANT* out) const;
  HRESULT SetValue(const GUID& set, DBPROPID id, const VARIANT& value);

  // Properties flagged DBPROPFLAGS_REQUIRED that the consumer has not set: an object
  // that needs them refuses to initialise/open and they become the properties in error.
  bool MissingRequired();
  // Frees what GetProperties / GetPropertyInfo returned (for owners and tests).
  static void FreePropertySets(ULONG count, DBPROPSET* sets);
  static void FreePropertyInfoSets(ULONG count, DBPROPINFOSET* sets, OLECHAR* descriptions);

 private:
  struct Slot {
    const PropertySetDefinition* set;
    const PropertyDefinition* def;
    VARIANT value;
    bool setByConsumer;
  };
  struct InError {
    size_t slot;
    DBPROPSTATUS status;
  };

  Slot* Find(const GUID& set, DBPROPID id);
  const Slot* Find(const GUID& set, DBPROPID id) const;
  const PropertySetDefinition* FindSet(const GUID& set) const;
  bool Visible(const PropertySetDefinition& set) const { return (set.group & visible_) != 0; }
  DBPROPSTATUS Check(const DBPROP& prop, const Slot* slot) const;
  HRESULT GetPropertiesInError(ULONG* pcPropertySets, DBPROPSET** prgPropertySets) const;
  static void DefaultValue(const PropertyDefinition& def, VARIANT* out);

  const PropertySetDefinition* sets_;
  size_t setCount_;
  std::vector<Slot> slots_;
  std::vector<InError> inError_;
  DBPROPFLAGS visible_ = ~0u;
  DBPROPFLAGS settable_ = ~0u;
  mutable std::recursive_mutex lock_;
};

}  // namespace corvane
