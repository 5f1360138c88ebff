// The parameter half of the command object: the consumer describes the command's `?`
// parameters by type name (SetParameterInfo) and reads them back (GetParameterInfo,
// MapParameterNames). The command derives from it and says when rowsets are open and
// how many parameters the prepared statement has.
#pragma once
#include <vector>

#include "platform/Platform.h"
#include "platform/Sync.h"
#include "platform/WideString.h"

class CProviderCommandWithParameters : public ICommandWithParameters {
 public:
  struct ParameterDescription {
    corvane::WString name;
    DBTYPE type = DBTYPE_EMPTY;
    DBLENGTH size = 0;
    DB_UPARAMS ordinal = 0;
    DBPARAMFLAGS flags = DBPARAMFLAGS_ISINPUT;
    BYTE precision = 0;
    BYTE scale = 0;
  };

  // The DBTYPE of a type name of SetParameterInfo, ignoring case; DBTYPE_EMPTY for a
  // name the provider does not take.
  static DBTYPE GetDBTypeFromStr(const OLECHAR* typeName);

  // ICommandWithParameters
  HRESULT STDMETHODCALLTYPE GetParameterInfo(DB_UPARAMS* pcParams, DBPARAMINFO** prgParamInfo,
                                             OLECHAR** ppNamesBuffer) override;
  HRESULT STDMETHODCALLTYPE MapParameterNames(DB_UPARAMS cParamNames, const OLECHAR* rgParamNames[],
                                              DB_LPARAMS rgParamOrdinals[]) override;
  HRESULT STDMETHODCALLTYPE SetParameterInfo(DB_UPARAMS cParams, const DB_UPARAMS rgParamOrdinals[],
                                             const DBPARAMBINDINFO rgParamBindInfo[]) override;

 protected:
  CProviderCommandWithParameters() = default;
  virtual ~CProviderCommandWithParameters() = default;

  virtual bool HasOpenRowsets() = 0;
  // -1 while the command is not prepared; otherwise the number of `?` in its statement.
  virtual long PreparedParameterCount() = 0;
  corvane::platform::CriticalSection& CommandLock() { return commandLock_; }
  // The descriptions set by the consumer, ordered by ordinal.
  std::vector<ParameterDescription> ParameterDescriptions();

 private:
  corvane::platform::CriticalSection commandLock_;
  std::vector<ParameterDescription> parameters_;
};
