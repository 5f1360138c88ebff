#include "provider/procedures/ProcedureFactory.h"

#include <functional>

#include "platform/WideString.h"
#include "provider/procedures/BaseStoredProcedure.h"
#include "provider/procedures/SPGetBadValues.h"
#include "provider/procedures/SPGetFilteredTagStatistics.h"
#include "provider/procedures/SPGetGoodValues.h"
#include "provider/procedures/SPGetMostRecentValue.h"
#include "provider/procedures/SPGetValues.h"
#include "provider/procedures/SPHdaAnalog.h"
#include "provider/procedures/SPHdaAnalog5.h"
#include "provider/procedures/SPHdaBool.h"
#include "provider/procedures/SPHdaBool5.h"
#include "provider/procedures/SPHdaQuality.h"
#include "provider/procedures/SPHdaQuality5.h"
#include "provider/procedures/SPHdaReducedAnalog.h"
#include "provider/procedures/SPHdaReducedAnalog5.h"
#include "provider/procedures/SPRawData.h"
#include "provider/procedures/SPRawDataInsert.h"
#include "provider/procedures/SPRawDataUpdate.h"

using corvane::WString;

namespace {

constexpr HRESULT kProcedureDoesNotExist = static_cast<HRESULT>(0x8004C007L);

template <typename T>
std::unique_ptr<CBaseStoredProcedure> Make(const StoredProcedureCall& c, const WString& catalog,
                                           const WString& schema) {
  return std::make_unique<T>(c.query, c.item, c.bindContext, c.dataSource, catalog, schema);
}

using Maker = std::unique_ptr<CBaseStoredProcedure> (*)(const StoredProcedureCall&, const WString&, const WString&);

struct Entry {
  const OLECHAR* name;
  Maker make;
};

const Entry kProcedures[] = {
    {OLESTR("GET_VALUES"), &Make<CSPGetValues>},
    {OLESTR("GET_GOOD_VALUES"), &Make<CSPGetGoodValues>},
    {OLESTR("GET_BAD_VALUES"), &Make<CSPGetBadValues>},
    {OLESTR("GET_MOST_RECENT_VALUE"), &Make<CSPGetMostRecentValue>},
    {OLESTR("SP_RAWDATA"), &Make<CSPRawData>},
    {OLESTR("RAWDATA_INSERT"), &Make<CSPRawDataInsert>},
    {OLESTR("RAWDATA_UPDATE"), &Make<CSPRawDataUpdate>},
    {OLESTR("HDA_ANALOG"), &Make<CSPHdaAnalog>},
    {OLESTR("HDA_ANALOG_5"), &Make<CSPHdaAnalog5>},
    {OLESTR("HDA_REDUCED_ANALOG"), &Make<CSPHdaReducedAnalog>},
    {OLESTR("HDA_REDUCED_ANALOG_5"), &Make<CSPHdaReducedAnalog5>},
    {OLESTR("HDA_BOOL"), &Make<CSPHdaBool>},
    {OLESTR("HDA_BOOL_5"), &Make<CSPHdaBool5>},
    {OLESTR("HDA_QUALITY"), &Make<CSPHdaQuality>},
    {OLESTR("HDA_QUALITY_5"), &Make<CSPHdaQuality5>},
    {OLESTR("GET_FILTERED_TAG_STATISTICS"), &Make<CSPGetFilteredTagStatistics>},
};

}  // namespace

HRESULT CreateStoredProcedure(const StoredProcedureCall& call, std::unique_ptr<CBaseStoredProcedure>* procedure) {
  if (!procedure) return E_INVALIDARG;
  procedure->reset();
  if (!call.query || !call.item || !call.dataSource) return E_INVALIDARG;
  const WString catalog = call.catalog.empty() ? call.item->Catalog() : call.catalog;
  const WString schema = call.schema.empty() ? call.item->Schema() : call.schema;
  for (const Entry& e : kProcedures) {
    if (!corvane::WIEquals(e.name, call.item->ProcedureName())) continue;
    try {
      *procedure = e.make(call, catalog, schema);
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
    return S_OK;
  }
  return kProcedureDoesNotExist;
}
