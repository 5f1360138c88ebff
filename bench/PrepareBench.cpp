// SetCommandText + Prepare over the statement mix on one command, as a consumer that
// prepares many short statements does. Small and steady enough to run under callgrind,
// which tells the instructions a Prepare costs by function.
#include <benchmark/benchmark.h>

#include <vector>

#include "base/ComPtr.h"
#include "bench/StatementMix.h"
#include "bench/SelectConsumer.h"

namespace {

void BM_SetTextAndPrepare(benchmark::State& state) {
  std::vector<corvane::WString> mix;
  for (const auto& s : corvane::bench::kMix) mix.push_back(corvane::FromUtf8(s.corvane));
  corvane::e2e::SelectConsumer consumer;
  corvane::ComPtr<IUnknown> host;
  corvane::ComPtr<ICommandText> command;
  corvane::ComPtr<ICommandPrepare> prepare;
  HRESULT hr = corvane::e2e::CreateSeriesHost(corvane::e2e::MakeSeriesStore(1000), host.Put());
  if (SUCCEEDED(hr)) hr = consumer.Open(host.Get());
  if (SUCCEEDED(hr))
    hr = consumer.Session()->CreateCommand(nullptr, IID_ICommandText, reinterpret_cast<IUnknown**>(command.Put()));
  if (SUCCEEDED(hr)) hr = command->QueryInterface(IID_ICommandPrepare, prepare.PutVoid());
  for (auto _ : state) {
    for (const auto& text : mix) {
      if (SUCCEEDED(hr)) hr = command->SetCommandText(DBGUID_DEFAULT, text.c_str());
      if (SUCCEEDED(hr)) hr = prepare->Prepare(1);
    }
    if (FAILED(hr)) break;
  }
  if (FAILED(hr)) state.SkipWithError("a statement of the mix does not prepare");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(mix.size()));
}
BENCHMARK(BM_SetTextAndPrepare);

}  // namespace

BENCHMARK_MAIN();
