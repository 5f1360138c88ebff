// The property rules on a small table of the engine's own, so every status can be
// provoked: a writable integer with a range, a read-only text, a required flag, and two
// booleans that may not both be true.
#include <gtest/gtest.h>

#include "platform/WideString.h"
#include "provider/PropertyEngine.h"
#include "tests/support/LeakCheckedTest.h"

using corvane::CPropertyEngine;
using corvane::PropertyDefault;
using corvane::PropertyDefinition;
using corvane::PropertySetDefinition;

namespace {

constexpr DBPROPID kLimit = 1, kName = 2, kNeeded = 3, kFast = 4, kSafe = 5;
const PropertyDefinition kRowsetProps[] = {
    {kLimit, DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE, PropertyDefault::I4(10), OLESTR("Limit")},
    {kName, DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ, PropertyDefault::Text(OLESTR("fixed")), OLESTR("Name")},
    {kFast, DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE, PropertyDefault::Bool(false), OLESTR("Fast")},
    {kSafe, DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE, PropertyDefault::Bool(true), OLESTR("Safe")},
};
const PropertyDefinition kInitProps[] = {
    {kNeeded, DBPROPFLAGS_DBINIT | DBPROPFLAGS_READ | DBPROPFLAGS_WRITE | DBPROPFLAGS_REQUIRED,
     PropertyDefault::I2(0), OLESTR("Needed")},
};
const PropertySetDefinition kSets[] = {
    {&DBPROPSET_ROWSET, DBPROPFLAGS_ROWSET, kRowsetProps, 4},
    {&DBPROPSET_DBINIT, DBPROPFLAGS_DBINIT, kInitProps, 1},
};

// A VARIANT of `vt` (I2, I4, BOOL or BSTR) holding `n`, or the text `text`.
VARIANT Var(VARTYPE vt, LONG n, const OLECHAR* text = nullptr) {
  VARIANT x;
  VariantInit(&x);
  x.vt = vt;
  if (vt == VT_BSTR) x.bstrVal = SysAllocString(text);
  else if (vt == VT_BOOL) x.boolVal = n ? VARIANT_TRUE : VARIANT_FALSE;
  else if (vt == VT_I2) x.iVal = static_cast<SHORT>(n);
  else x.lVal = n;
  return x;
}
VARIANT I4(LONG v) { return Var(VT_I4, v); }
VARIANT Bool(bool v) { return Var(VT_BOOL, v); }
DBPROP Prop(DBPROPID id, VARIANT v, DBPROPOPTIONS options = DBPROPOPTIONS_REQUIRED) {
  DBPROP p{};
  p.dwPropertyID = id;
  p.dwOptions = options;
  p.vValue = v;
  return p;
}

class PropertyRules : public corvane::test::LeakCheckedTest {
 protected:
  PropertyRules() : engine_(kSets, 2) {
    engine_.SetValidator([](const GUID&, DBPROPID id, const VARIANT& v) { return id != kLimit || v.lVal >= 0; });
    engine_.SetConflictCheck([](const CPropertyEngine& e, const GUID&, DBPROPID id, const VARIANT& v) {
      if (v.vt != VT_BOOL || v.boolVal != VARIANT_TRUE) return false;
      const VARIANT* other = e.ValueLocked(DBPROPSET_ROWSET, id == kFast ? kSafe : kFast);
      return (id == kFast || id == kSafe) && other && other->boolVal == VARIANT_TRUE;
    });
  }
  HRESULT Set(std::vector<DBPROP>& props, const GUID& set = DBPROPSET_ROWSET,
              CPropertyEngine::SetMode mode = CPropertyEngine::SetMode::Each) {
    DBPROPSET s{props.data(), static_cast<ULONG>(props.size()), set};
    return engine_.SetProperties(1, &s, mode);
  }
  static std::vector<DBSTATUS> Statuses(const std::vector<DBPROP>& props) {
    std::vector<DBSTATUS> out;
    for (const DBPROP& p : props) out.push_back(p.dwStatus);
    return out;
  }
  LONG Limit() {
    VARIANT v;
    VariantInit(&v);
    engine_.GetValue(DBPROPSET_ROWSET, kLimit, &v);
    return v.lVal;
  }
  CPropertyEngine engine_;
};

}  // namespace

TEST_F(PropertyRules, EachStatusAndTheCallResult) {
  std::vector<DBPROP> props = {Prop(kLimit, I4(42)),
                               Prop(99, I4(1)),                       // unknown id
                               Prop(kLimit, Bool(true)),               // wrong type
                               Prop(kLimit, I4(-1)),                   // refused by the validator
                               Prop(kLimit, I4(5), 7),                 // bad option
                               Prop(kSafe, Bool(true)),                // already true: fine
                               Prop(kFast, Bool(true))};               // conflicts with kSafe
  props.push_back(Prop(kName, Var(VT_BSTR, 0, OLESTR("other"))));  // read-only, different value
  EXPECT_EQ(DB_S_ERRORSOCCURRED, Set(props));
  EXPECT_EQ(Statuses(props), (std::vector<DBSTATUS>{DBPROPSTATUS_OK, DBPROPSTATUS_NOTSUPPORTED, DBPROPSTATUS_BADVALUE,
                                                    DBPROPSTATUS_BADVALUE, DBPROPSTATUS_BADOPTION, DBPROPSTATUS_OK,
                                                    DBPROPSTATUS_CONFLICTING, DBPROPSTATUS_NOTSETTABLE}));
  EXPECT_EQ(42, Limit());  // the good one stays set
  VariantClear(&props.back().vValue);

  // Setting a read-only property to the value it has is no error; all failing is DB_E.
  std::vector<DBPROP> same = {Prop(kName, Var(VT_BSTR, 0, OLESTR("fixed")))};
  EXPECT_EQ(S_OK, Set(same));
  VariantClear(&same[0].vValue);
  std::vector<DBPROP> allBad = {Prop(77, I4(1)), Prop(kLimit, I4(-3))};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, Set(allBad));
  EXPECT_EQ(42, Limit());

  // VT_EMPTY puts the default back; bad argument shapes are E_INVALIDARG.
  std::vector<DBPROP> reset = {Prop(kLimit, VARIANT{})};
  EXPECT_EQ(S_OK, Set(reset));
  EXPECT_EQ(10, Limit());
  DBPROPSET broken{nullptr, 2, DBPROPSET_ROWSET};
  EXPECT_EQ(E_INVALIDARG, engine_.SetProperties(1, &broken));
  EXPECT_EQ(E_INVALIDARG, engine_.SetProperties(1, nullptr));
  EXPECT_EQ(S_OK, engine_.SetProperties(0, nullptr));
}

TEST_F(PropertyRules, RequiredAgainstOptionalAndThePropertiesInError) {
  // Optional: a conflict only reports NOTSET and does not fail an open.
  std::vector<DBPROP> optional = {Prop(kLimit, I4(7)), Prop(kFast, Bool(true), DBPROPOPTIONS_OPTIONAL)};
  EXPECT_EQ(DB_S_ERRORSOCCURRED, Set(optional, DBPROPSET_ROWSET, CPropertyEngine::SetMode::AllRequired));
  EXPECT_EQ(DBPROPSTATUS_NOTSET, optional[1].dwStatus);
  EXPECT_EQ(7, Limit());

  // Required: the open fails as a whole and nothing of it stays set.
  std::vector<DBPROP> required = {Prop(kLimit, I4(8)), Prop(kFast, Bool(true))};
  EXPECT_EQ(DB_E_ERRORSOCCURRED, Set(required, DBPROPSET_ROWSET, CPropertyEngine::SetMode::AllRequired));
  EXPECT_EQ(Statuses(required), (std::vector<DBSTATUS>{DBPROPSTATUS_OK, DBPROPSTATUS_CONFLICTING}));
  EXPECT_EQ(7, Limit());

  DBPROPIDSET inError{nullptr, 0, DBPROPSET_PROPERTIESINERROR};
  ULONG n = 0;
  DBPROPSET* sets = nullptr;
  ASSERT_EQ(S_OK, engine_.GetProperties(1, &inError, &n, &sets));
  ASSERT_EQ(1u, n);
  EXPECT_TRUE(IsEqualGUID(DBPROPSET_ROWSET, sets[0].guidPropertySet));
  ASSERT_EQ(1u, sets[0].cProperties);
  EXPECT_EQ(kFast, sets[0].rgProperties[0].dwPropertyID);
  EXPECT_EQ(DBPROPSTATUS_CONFLICTING, sets[0].rgProperties[0].dwStatus);
  CPropertyEngine::FreePropertySets(n, sets);
  // It is asked for alone and whole.
  DBPROPIDSET twice[2] = {inError, inError};
  EXPECT_EQ(E_INVALIDARG, engine_.GetProperties(2, twice, &n, &sets));

  // A property flagged REQUIRED that nobody set holds up whoever needs it.
  EXPECT_TRUE(engine_.MissingRequired());
  std::vector<DBPROP> needed = {Prop(kNeeded, Var(VT_I2, 2))};
  EXPECT_EQ(S_OK, Set(needed, DBPROPSET_DBINIT));
  EXPECT_FALSE(engine_.MissingRequired());
}

TEST_F(PropertyRules, PropertyInfoWithDescriptionsAndGroups) {
  DBPROPID asked[] = {kName, 55};
  DBPROPIDSET ids[2] = {{asked, 2, DBPROPSET_ROWSET}, {nullptr, 0, DBPROPSET_DBINITALL}};
  ULONG n = 0;
  DBPROPINFOSET* infos = nullptr;
  OLECHAR* descriptions = nullptr;
  EXPECT_EQ(DB_S_ERRORSOCCURRED, engine_.GetPropertyInfo(2, ids, &n, &infos, &descriptions));
  ASSERT_EQ(2u, n);
  ASSERT_EQ(2u, infos[0].cPropertyInfos);
  const DBPROPINFO& name = infos[0].rgPropertyInfos[0];
  EXPECT_EQ(DBPROPFLAGS_ROWSET | DBPROPFLAGS_READ, name.dwFlags);
  EXPECT_EQ(VT_BSTR, name.vtType);
  EXPECT_EQ("Name", corvane::ToUtf8(name.pwszDescription));
  EXPECT_EQ(DBPROPFLAGS_NOTSUPPORTED, infos[0].rgPropertyInfos[1].dwFlags);
  // The group stands for its real set, flags REQUIRED included.
  EXPECT_TRUE(IsEqualGUID(DBPROPSET_DBINIT, infos[1].guidPropertySet));
  ASSERT_EQ(1u, infos[1].cPropertyInfos);
  EXPECT_TRUE(infos[1].rgPropertyInfos[0].dwFlags & DBPROPFLAGS_REQUIRED);
  EXPECT_EQ("Needed", corvane::ToUtf8(infos[1].rgPropertyInfos[0].pwszDescription));
  // Descriptions live in the one buffer handed out.
  EXPECT_GE(name.pwszDescription, descriptions);
  CPropertyEngine::FreePropertyInfoSets(n, infos, descriptions);

  // Without a description buffer there are no descriptions, and still every flag.
  EXPECT_EQ(S_OK, engine_.GetPropertyInfo(0, nullptr, &n, &infos, nullptr));
  ASSERT_EQ(2u, n);
  EXPECT_EQ(nullptr, infos[0].rgPropertyInfos[0].pwszDescription);
  CPropertyEngine::FreePropertyInfoSets(n, infos, nullptr);
}
