#include "provider/ErrorLookup.h"

#include <list>
#include <mutex>
#include <new>
#include <unordered_map>

#include "platform/WideString.h"
#include "provider/Module.h"

namespace {

struct HeldText {
  DWORD id;
  HRESULT hr;
  corvane::WString source;
  corvane::WString description;
};

// Oldest first, so the bound drops the texts least likely to be asked for still.
struct HeldTexts {
  std::mutex mutex;
  std::list<HeldText> order;
  std::unordered_map<DWORD, std::list<HeldText>::iterator> byId;
  DWORD lastId = 0;

  void EraseLocked(std::list<HeldText>::iterator it) {
    byId.erase(it->id);
    order.erase(it);
  }
};

HeldTexts& Texts() {
  static HeldTexts texts;
  return texts;
}

BSTR CopyText(const corvane::WString& text) {
  return SysAllocStringLen(text.c_str(), static_cast<UINT>(text.size()));
}

}  // namespace

HRESULT CErrorLookup::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (pUnkOuter) return CLASS_E_NOAGGREGATION;
  auto* object = new (std::nothrow) CErrorLookup();
  if (!object) return E_OUTOFMEMORY;
  const HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();
  return hr;
}

DWORD CErrorLookup::Hold(HRESULT hr, const OLECHAR* source, const OLECHAR* description) {
  HeldTexts& t = Texts();
  try {
    std::lock_guard<std::mutex> lock(t.mutex);
    DWORD id = t.lastId;
    do {
      id = id + 1 < IDENTIFIER_SDK_ERROR ? id + 1 : 1;
    } while (t.byId.count(id));
    t.order.push_back(HeldText{id, hr, source ? source : OLESTR(""), description ? description : OLESTR("")});
    try {
      t.byId.emplace(id, std::prev(t.order.end()));
    } catch (...) {
      t.order.pop_back();
      throw;
    }
    t.lastId = id;
    while (t.order.size() > kHeldTextLimit) t.EraseLocked(t.order.begin());
    return id;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

size_t CErrorLookup::HeldCount() {
  HeldTexts& t = Texts();
  std::lock_guard<std::mutex> lock(t.mutex);
  return t.order.size();
}

CErrorLookup::CErrorLookup() { corvane::module::Lock(); }
CErrorLookup::~CErrorLookup() { corvane::module::Unlock(); }

HRESULT CErrorLookup::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IErrorLookup)) {
    *ppv = static_cast<IErrorLookup*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

ULONG CErrorLookup::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CErrorLookup::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT CErrorLookup::GetErrorDescription(HRESULT hrError, DWORD dwLookupID, DISPPARAMS* /*pdispparams*/,
                                          LCID /*lcid*/, BSTR* pbstrSource, BSTR* pbstrDescription) {
  if (!pbstrSource || !pbstrDescription) return E_INVALIDARG;
  *pbstrSource = nullptr;
  *pbstrDescription = nullptr;
  BSTR source = nullptr, description = nullptr;
  {
    HeldTexts& t = Texts();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.byId.find(dwLookupID);
    if (it == t.byId.end()) return DB_E_BADLOOKUPID;
    if (it->second->hr != hrError) return DB_E_BADHRESULT;
    source = CopyText(it->second->source);
    description = CopyText(it->second->description);
  }
  if (!source || !description) {
    SysFreeString(source);
    SysFreeString(description);
    return E_OUTOFMEMORY;
  }
  *pbstrSource = source;
  *pbstrDescription = description;
  return S_OK;
}

HRESULT CErrorLookup::GetHelpInfo(HRESULT /*hrError*/, DWORD /*dwLookupID*/, LCID /*lcid*/, BSTR* pbstrHelpFile,
                                  DWORD* pdwHelpContext) {
  if (!pbstrHelpFile || !pdwHelpContext) return E_INVALIDARG;
  *pbstrHelpFile = nullptr;
  *pdwHelpContext = 0;
  return S_OK;
}

HRESULT CErrorLookup::ReleaseErrors(const DWORD dwDynamicErrorID) { return Drop(dwDynamicErrorID); }

HRESULT CErrorLookup::Drop(DWORD id) {
  if (id == 0) return E_INVALIDARG;
  HeldTexts& t = Texts();
  std::lock_guard<std::mutex> lock(t.mutex);
  auto it = t.byId.find(id);
  if (it == t.byId.end()) return DB_E_BADDYNAMICERRORID;
  t.EraseLocked(it->second);
  return S_OK;
}
