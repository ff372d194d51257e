// The queue of one peer: what the next envelope costs, whatever waits.
#include <benchmark/benchmark.h>

#include "routing/EnvelopeQueue.h"
#include "support/EnvelopeBuilder.h"

namespace {

using MessageRouter::Envelope;
using MessageRouter::EnvelopeQueue;
using TestSupport::AnEnvelope;

constexpr char kOriginator[] = "router1.agent-1";

Envelope Make(std::uint32_t id) {
  return AnEnvelope()
      .WithId(id)
      .WithPriority(id % 3)
      .WithOriginator(kOriginator)
      .WithDestination("agent-2")
      .WithType("Status.Report")
      .Build();
}

void Fill(EnvelopeQueue& queue, std::int64_t waiting) {
  for (std::int64_t i = 0; i < waiting; ++i) queue.Enqueue(Make(static_cast<std::uint32_t>(i)));
}

// With `range(0)` envelopes waiting, one comes in and `takeOut` takes one out of the queue; it gets
// the id of the one that came.
template <class TakeOut>
void InAndOut(benchmark::State& state, TakeOut&& takeOut) {
  EnvelopeQueue queue;
  Fill(queue, state.range(0));
  std::uint32_t id = 1u << 30;
  Envelope out;
  for (auto unused : state) {
    static_cast<void>(unused);
    queue.Enqueue(Make(id));
    takeOut(queue, id++, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}

void EnqueueAndPop(benchmark::State& state) {
  InAndOut(state, [](EnvelopeQueue& queue, std::uint32_t, Envelope& out) { queue.PopNext(out); });
}
BENCHMARK(EnqueueAndPop)->Arg(0)->Arg(100000)->Arg(1000000);

// The envelope at the exit is taken out by its originator and id, as an acknowledgement does.
void AcknowledgeNext(benchmark::State& state) {
  InAndOut(state, [](EnvelopeQueue& queue, std::uint32_t, Envelope& out) {
    const std::uint32_t next = queue.Next()->MessageId();
    queue.Take(kOriginator, next, out);
  });
}
BENCHMARK(AcknowledgeNext)->Arg(0)->Arg(100000)->Arg(1000000);

// Any envelope is withdrawn by its originator and id.
void CancelAny(benchmark::State& state) {
  InAndOut(state, [](EnvelopeQueue& queue, std::uint32_t id, Envelope& out) {
    queue.Take(kOriginator, id, out);
  });
}
BENCHMARK(CancelAny)->Arg(0)->Arg(100000)->Arg(1000000);

}  // namespace

BENCHMARK_MAIN();
