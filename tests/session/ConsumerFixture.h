// A consumer of the provider that uses OLE DB interfaces only: it creates the provider
// over a reference historian holding two known tags, initialises it, opens a session,
// and reads back error records; every test checks that nothing leaked and that the
// host's reference count came back. Built with CORVANE_CONSUMER_OF_DLL (Windows) the
// same suites create the provider from the registered DLL through the system's COM
// runtime; the DLL traces into its own trace facility there, so trace checks are off.
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "historian/Aggregates.h"
#include "historian/ReferenceHistorian.h"
#include "platform/WideString.h"
#include "provider/ICreateCorvaneOleDbProvider.h"
#include "tests/support/FaultInjectingHost.h"
#include "tests/support/LeakCheckedTest.h"
#include "tests/support/RowReader.h"
#include "tests/support/TraceCapture.h"

#ifdef CORVANE_CONSUMER_OF_DLL
#define EXPECT_TRACED(capture, text) (void)(capture)
#else
#define EXPECT_TRACED(capture, text) EXPECT_TRUE((capture).Contains(text)) << (text)
#endif

namespace corvane::test {

struct LastError {
  ULONG count = 0;
  HRESULT hr = S_OK;
  GUID iid{};
  std::string source;
  std::string description;  // empty where the system's records do not give it back
};

class ConsumerTest : public LeakCheckedTest {
 public:
  // The records of the failed call on this thread, taken (the thread is left clean).
  static LastError TakeLastError();
  template <typename T>
  static T* Query(IUnknown* object, REFIID iid) {
    T* p = nullptr;
    if (FAILED(object->QueryInterface(iid, reinterpret_cast<void**>(&p)))) return nullptr;
    return p;
  }

 protected:
  // The samples of "Area1.Temp" (VT_R8) and "Area1.Text" (VT_BSTR): one every minute,
  // ending one minute before the test starts, so that the default 72-hour range holds
  // them all.
  static constexpr int kSamples = 30;

  void SetUp() override;
  void TearDown() override;

  static ULONG RefCount(IUnknown* object) {
    object->AddRef();
    return object->Release();
  }
  IUnknown* dataSource_ = nullptr;
  IOpenRowset* session_ = nullptr;
  ULONGLONG firstSample_ = 0;

 private:
  IUnknown* host_ = nullptr;
  ULONG hostRefs_ = 0;
};

// Input values of the `?` of a statement as wide texts, one Cell each; null gives DBSTATUS_S_ISNULL.
struct TextParameters {
  std::vector<Cell> slots;
  std::vector<DBBINDING> bindings;
  explicit TextParameters(const std::vector<const OLECHAR*>& values);
};

// The reference historian over `store`, with its aggregates, behind a fault-injecting host
// that has one reference.
testing::CFaultInjectingHost* NewHost(std::shared_ptr<historian::CHistorianStore> store);
// Creates the provider over `host` (linked in, or the registered DLL), sets its catalog
// to "Plant", initialises it and opens a session.
void OpenProvider(IUnknown* host, IUnknown** dataSource, IOpenRowset** session,
                  const std::string& providerString = {});
// Releases the session, uninitialises the data source and checks that its last
// reference goes with the consumer's; clears the thread's error records.
void CloseProvider(IUnknown** dataSource, IOpenRowset** session);

// Every row of `rowset` as wide text (512 characters) of the given columns (all when
// empty), through ReadRows; a null cell reads as "<null>". With `failure`, a failing fetch
// is given back there (its records in `error`) instead of failing the test.
std::vector<std::vector<std::string>> ReadAll(IUnknown* rowset, std::vector<DBORDINAL> columns,
                                              DBROWCOUNT batch = 7, HRESULT* failure = nullptr,
                                              LastError* error = nullptr, bool hold = false);
// Column names and types of a rowset or prepared command (IColumnsInfo).
std::vector<std::pair<std::string, DBTYPE>> Columns(IUnknown* object);

}  // namespace corvane::test
