// The queue of one peer: what the next envelope costs, whatever waits.
#include <benchmark/benchmark.h>

#include "routing/EnvelopeQueue.h"
#include "support/EnvelopeBuilder.h"

namespace {

using MessageRouter::Envelope;
using MessageRouter::EnvelopeQueue;
using TestSupport::AnEnvelope;

Envelope Make(std::uint32_t id) {
  return AnEnvelope()
      .WithId(id)
      .WithPriority(id % 3)
      .WithOriginator("router1.agent-1")
      .WithDestination("agent-2")
      .WithType("Status.Report")
      .Build();
}

void Fill(EnvelopeQueue& queue, std::int64_t waiting) {
  for (std::int64_t i = 0; i < waiting; ++i) queue.Enqueue(Make(static_cast<std::uint32_t>(i)));
}

// One in, one out, with `range(0)` envelopes waiting.
void EnqueueAndPop(benchmark::State& state) {
  EnvelopeQueue queue;
  Fill(queue, state.range(0));
  std::uint32_t id = 1u << 30;
  Envelope out;
  for (auto unused : state) {
    static_cast<void>(unused);
    queue.Enqueue(Make(id++));
    queue.PopNext(out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(EnqueueAndPop)->Arg(0)->Arg(100000)->Arg(1000000);

// The envelope at the exit is taken out by its originator and id, as an acknowledgement does, and
// another one comes in.
void AcknowledgeNext(benchmark::State& state) {
  EnvelopeQueue queue;
  Fill(queue, state.range(0));
  std::uint32_t id = 1u << 30;
  Envelope out;
  for (auto unused : state) {
    static_cast<void>(unused);
    queue.Enqueue(Make(id++));
    const std::uint32_t next = queue.Next()->MessageId();
    queue.Take("router1.agent-1", next, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(AcknowledgeNext)->Arg(0)->Arg(100000)->Arg(1000000);

// Any envelope is withdrawn by its originator and id.
void CancelAny(benchmark::State& state) {
  EnvelopeQueue queue;
  Fill(queue, state.range(0));
  std::uint32_t id = 1u << 30;
  Envelope out;
  for (auto unused : state) {
    static_cast<void>(unused);
    queue.Enqueue(Make(id));
    queue.Take("router1.agent-1", id++, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(CancelAny)->Arg(0)->Arg(100000)->Arg(1000000);

}  // namespace

BENCHMARK_MAIN();
