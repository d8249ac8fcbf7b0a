// Throughput of the protocol library: serialising and parsing a data packet
// of n values, and a typed call round trip between two streams over a local
// socket pair (n arguments out, one result back).
#include "rpc2packet.h"
#include "rpc2stream.h"

#include <benchmark/benchmark.h>

#include <sys/socket.h>

#include <vector>

namespace {

// A reply as the server sends it: a few control attributes and n values.
void fillReply(ZEL::RPC2Packet& p, int n)
{
    p.code(ZEL::rc_session_data);
    p.put(ZEL::ra_call, -16422);
    p.put(ZEL::ra_termination, ZEL::rtc_eof);
    for (int i = 0; i < n; ++i)
        p.put_data(i);
}

void BM_PacketDump(benchmark::State& state)
{
    ZEL::RPC2Packet p;
    fillReply(p, static_cast<int>(state.range(0)));
    std::vector<char> buf(static_cast<std::size_t>(p.packet_size()));
    for (auto _ : state) {
        int n = p.dump(buf.data(), static_cast<int>(buf.size()));
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * p.packet_size());
}
BENCHMARK(BM_PacketDump)->Arg(1)->Arg(16)->Arg(256);

void BM_PacketParse(benchmark::State& state)
{
    ZEL::RPC2Packet p;
    fillReply(p, static_cast<int>(state.range(0)));
    std::vector<char> wire(static_cast<std::size_t>(p.packet_size()));
    p.dump(wire.data(), static_cast<int>(wire.size()));
    ZEL::RPC2Packet in;
    for (auto _ : state) {
        int n = in.parse(wire.data(), static_cast<int>(wire.size()));
        if (n != static_cast<int>(wire.size())) {
            state.SkipWithError("parse failed");
            break;
        }
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(wire.size()));
}
BENCHMARK(BM_PacketParse)->Arg(1)->Arg(16)->Arg(256);

void BM_TypedRoundTrip(benchmark::State& state)
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    // Each stream closes its own end.
    ZEL::RPC2Stream client(fds[0], nullptr);
    ZEL::RPC2Stream server(fds[1], nullptr);
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        for (int i = 0; i < n; ++i)
            client.data_put<int>(i);
        client.end_output();

        long sum = 0;
        for (int i = 0; i < n; ++i) {
            int v = 0;
            if (server.data_get(v) != 0)
                break;
            sum += v;
        }
        server.end_input();
        server.data_put<long>(sum);
        server.end_output();

        long result = 0;
        if (client.data_get(result) != 0 || client.bad() || server.bad()) {
            state.SkipWithError("round trip failed");
            break;
        }
        client.end_input();
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * n);
}
BENCHMARK(BM_TypedRoundTrip)->Arg(1)->Arg(16)->Arg(256);

} // namespace

BENCHMARK_MAIN();
