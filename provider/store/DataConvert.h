// The data conversion service that copies a stored cell into a consumer's buffer with
// the status, length and value rules of IDataConvert, and the entry points that hand
// the data store its converter.
#pragma once
#include <atomic>

#include "platform/Platform.h"

namespace corvane {

// The converter the data store uses. On Windows it is the system's OLE DB conversion
// library; when the system has none, the provider's own (traced at warning level).
// On POSIX it is always the provider's own. The caller owns the returned reference.
// E_INVALIDARG for a null out-pointer.
HRESULT CreateDataConvert(IDataConvert** convert);

// Always the provider's own converter, on both targets (the Windows build compares
// it with the system's).
HRESULT CreateOwnDataConvert(IDataConvert** convert);

// The text VariantChangeType gives `v` as VT_BSTR, written into `out` (room for
// kNumberTextChars) without a BSTR, for integers and for doubles that a decimal of at
// most 15 digits names exactly; returns its length, or 0 for any other value, which
// then needs VariantChangeType.
constexpr size_t kNumberTextChars = 24;
size_t NumberText(const VARIANT& v, OLECHAR* out);

// The provider's own converter: every type a data store cell holds (integers, reals,
// BOOL, DATE, DBTIMESTAMP, VARIANT, WSTR, STR, BSTR and the by-reference strings) into
// the same types and DBDATE, DBTIME, NUMERIC, DECIMAL, CY and FILETIME. Stateless
// apart from its reference count and the version IDCInfo reports, so one instance
// serves any number of threads.
class CDataConvert final : public IDataConvert, public IDCInfo {
 public:
  CDataConvert();

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IDataConvert
  HRESULT STDMETHODCALLTYPE DataConvert(DBTYPE wSrcType, DBTYPE wDstType, DBLENGTH cbSrcLength,
                                        DBLENGTH* pcbDstLength, void* pSrc, void* pDst,
                                        DBLENGTH cbDstMaxLength, DBSTATUS dbsSrcStatus,
                                        DBSTATUS* pdbsStatus, BYTE bPrecision, BYTE bScale,
                                        DBDATACONVERT dwFlags) override;
  HRESULT STDMETHODCALLTYPE CanConvert(DBTYPE wSrcType, DBTYPE wDstType) override;
  HRESULT STDMETHODCALLTYPE GetConversionSize(DBTYPE wSrcType, DBTYPE wDstType,
                                              DBLENGTH* pcbSrcLength, DBLENGTH* pcbDstLength,
                                              void* pSrc) override;

  // IDCInfo: DCINFOTYPE_VERSION as a VT_UI4 (0x200 until a consumer sets another).
  HRESULT STDMETHODCALLTYPE GetInfo(ULONG cInfo, DCINFOTYPE rgeInfoType[], DCINFO** prgInfo) override;
  HRESULT STDMETHODCALLTYPE SetInfo(ULONG cInfo, DCINFO rgInfo[]) override;

 private:
  ~CDataConvert();

  std::atomic<ULONG> m_cRef{1};
  std::atomic<ULONG> m_Version{0x200};
};

}  // namespace corvane
