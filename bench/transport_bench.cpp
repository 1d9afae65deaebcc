// What exchanges through pipes and the socket cost beside bare ones of as many bytes between two processes, taken in
// turn within one run, with both processes on one processor and on two.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "asycspipe1.h"
#include "bareexchange.h"
#include "dxglobals.h"
#include "dxtracer.h"
#include "framing.h"
#include "javapluginsocket.h"
#include "placement.h"
#include "ratio.h"

namespace {

constexpr std::size_t kAround = 56;  // what a message with one string has beside the string's bytes

std::string gReply;  // what the server answers with

// An integer in the request ends the loop.
int answer(CleXDSmb& request, CleXDSmb& reply) {
  if (!gReply.empty()) reply.SetString(gReply);
  return request.GetLongDataRef().Size() > 0 ? -1 : 0;
}

// So many bytes there and so many back, the messages around them included, in the number of calls a round.
struct Sizes {
  std::size_t there;
  std::size_t back;
  int calls;
};

constexpr Sizes kSizes[] = {
    {100, 52, 500}, {1024, 1024, 500}, {60'000, 60'000, 50}, {1'000'000, 1'000'000, 10}, {100'000'000, 52, 1},
};

std::string textFor(std::size_t messageLength) {
  return messageLength <= 52 ? std::string() : std::string(messageLength - kAround, 't');
}

// Nanoseconds; negative when the call failed.
template <typename Call>
double timed(Call call) {
  const auto start = std::chrono::steady_clock::now();
  const bool succeeded = call();
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
  return succeeded ? elapsed.count() : -1;
}

// As measure does, with calls that time themselves: filling a message is not part of its exchange.
template <typename Call, typename Limit>
Pair measureTimed(benchmark::State& state, Call call, Limit limit, int calls) {
  const auto mean = [calls](const auto& timedCall) {
    double sum = 0;
    for (int i = 0; i < calls; ++i) {
      const double elapsed = timedCall();
      stopUnless(elapsed >= 0, "an exchange failed");
      sum += elapsed;
    }
    return sum / calls;
  };
  Pair pair;
  for ([[maybe_unused]] auto _ : state) {
    pair.limit.push_back(mean(limit));
    pair.call.push_back(mean(call));
    state.SetIterationTime(pair.call.back() * 1e-9);
  }
  state.counters["call_ns"] = pair.Call();
  state.counters["limit_ns"] = pair.Limit();
  return pair;
}

void report(benchmark::State& state, const Pair& pair, const Sizes& sizes) {
  state.counters["ratio"] = pair.Ratio();
  if (sizes.there > 10 * sizes.back) state.counters["rate_ratio"] = 1 / pair.Ratio();  // the stream's, at least 0.7
}

// Range: which sizes, how many processors. A trace, if any, is written by both processes.
void PipeExchange(benchmark::State& state, bool traced) {
  const Sizes& sizes = kSizes[state.range(0)];
  const int processors = static_cast<int>(state.range(1));
  const Directory directory;
  const std::string there = directory.Path("there");
  const std::string back = directory.Path("back");
  stopUnless(::mkfifo(there.c_str(), 0600) == 0 && ::mkfifo(back.c_str(), 0600) == 0, "cannot make FIFOs");
  const std::string name = directory.Path("pair");
  gReply = textFor(sizes.back);
  DxTracer tracer;
  if (traced) {
    tracer.open(directory.Path("trace"));
    SetDxTracer(&tracer);
  }
  {
    const Child bareChild([&] {
      const Placement elsewhere(processors - 1, 1);
      const int in = opened(there, O_RDONLY);
      BareEnd(opened(back, O_WRONLY), in, sizes.there, sizes.back).Answer();
    });
    const Child child([&] {
      const Placement elsewhere(processors - 1, 1);
      AsyCsPipe1 server(name, true);
      server.receive(&answer);
    });
    const Placement here(0, 1);
    const int out = opened(there, O_WRONLY);
    BareEnd bare(out, opened(back, O_RDONLY), sizes.there, sizes.back);
    AsyCsPipe1 client(name, false);
    const std::string text = textFor(sizes.there);
    const auto exchange = [&] {
      CleXDSmb request;
      request.SetString(text);
      return timed([&] {
        CleXDSmb reply;
        return client.send(request, reply) == 0;
      });
    };
    while (exchange() < 0) ::usleep(1000);  // the server has not made its FIFO yet
    const auto bareExchange = [&] {
      return timed([&] {
        bare.Exchange();
        return true;
      });
    };
    const Pair pair = measureTimed(state, exchange, bareExchange, sizes.calls);
    report(state, pair, sizes);
    CleXDSmb request;
    CleXDSmb reply;
    request.SetLong(0);
    stopUnless(client.send(request, reply) == 0, "the server did not end");
  }
  SetDxTracer(nullptr);
  for (const char* file : {"there", "back", "trace"}) ::unlink(directory.Path(file).c_str());
}

int connected(int port) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  stopUnless(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "no connection");
  const int on = 1;
  stopUnless(::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "pieces would wait");
  return descriptor;
}

// The peer answers with the bytes it got, as a Java process would, whoever it talks to.
void SocketExchange(benchmark::State& state) {
  Sizes sizes = kSizes[state.range(0)];
  sizes.back = sizes.there;
  const int processors = static_cast<int>(state.range(1));
  JavaPlugInSocket socket;
  stopUnless(socket.CreateSocket() == 0, "no socket");
  JavaPlugInSocket bareSocket;
  stopUnless(bareSocket.CreateSocket() == 0, "no socket");
  const auto echo = [&](int port) {
    const Placement elsewhere(processors - 1, 1);
    const int descriptor = connected(port);
    Bytes bytes(sizes.there);
    while (readAll(descriptor, bytes.data(), bytes.size())) writeAll(descriptor, bytes.data(), bytes.size());
  };
  const Child child([&] { echo(socket.GetSocketPort()); });
  const Child bareChild([&] { echo(bareSocket.GetSocketPort()); });
  const Placement here(0, 1);
  stopUnless(socket.AcceptSocket() == 0 && bareSocket.AcceptSocket() == 0, "nobody connected");
  Bytes bytes(sizes.there);
  const std::string text = textFor(sizes.there);
  const auto exchange = [&] {
    CleXDSmb request;
    CleXDSmb reply;
    request.SetString(text);
    stopUnless(SendData(&socket, request) == 0 && ReceiveData(&socket, reply) == 0, "an exchange failed");
  };
  const auto bareExchange = [&] {
    unsigned long count = 0;
    bareSocket.WriteData(bytes.data(), static_cast<int>(bytes.size()), count);
    for (std::size_t got = 0; got < bytes.size(); got += count) {
      const auto most = static_cast<int>(std::min(kPiece, bytes.size() - got));
      stopUnless(bareSocket.ReadData(bytes.data() + got, most, count) == 0 && count > 0, "an exchange failed");
    }
  };
  const Pair pair = measure(state, exchange, bareExchange, sizes.calls);
  report(state, pair, sizes);
  socket.CloseSocket();
  bareSocket.CloseSocket();
}

void eachSize(benchmark::internal::Benchmark* benchmark, int first, int last) {
  benchmark->ArgNames({"size", "processors"})->UseManualTime();
  for (int size = first; size <= last; ++size) {
    for (int processors = kFewestProcessors; processors <= 2; ++processors) benchmark->Args({size, processors});
  }
}

// At most 1.2 for the first two sizes, 1.4 and 2 for the next; the last at no less than 0.7 of the bare rate.
#define EACH_SIZE(first, last) ->Apply([](auto* benchmark) { eachSize(benchmark, first, last); })
BENCHMARK_CAPTURE(PipeExchange, plain, false) EACH_SIZE(0, 4)->Iterations(40);
BENCHMARK_CAPTURE(PipeExchange, traced, true) EACH_SIZE(0, 0)->Iterations(40);
BENCHMARK(SocketExchange) EACH_SIZE(0, 3)->Iterations(40);

}  // namespace

BENCHMARK_MAIN();
