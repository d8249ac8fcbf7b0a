// The wire at the cost of its bytes: the tray's client (MiniClient over the
// protocol library) beside a floor that moves the same bytes by hand, each
// pair in one run so that a runner can print their ratio. Case X pairs with
// X_Floor:
//   BM_Call_Plain     one call without arguments, an int and a double back
//   BM_Call_Tls       the same through the TLS channel
//   BM_Login_Tls      connect, greeting, login, TLS handshake, goodbye
//   BM_Report_Decode  the traffic report of 100 services x 3 lists x 100
//                     classes (about 1.4 MB); the floor only receives it
// A scripted server answers on loopback ports from a thread pinned to the
// benchmark's CPU (the first one it may use; run under taskset -c N). Client
// and server take turns on that CPU, so the CPU column (the process's CPU
// time, both threads) is the cost of an iteration with the time lost to
// other programs left out; the Time column is the wall clock.
#include "miniclient.h"
#include "rpcctx.h"
#include "wire/handclient.h"
#include "wire/wireserver.h"

#include <benchmark/benchmark.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <memory>

namespace {

using benchmark::State;

constexpr int reportServices = 100;
constexpr int reportClasses = 100; // per list; three lists per service

struct Replies {
    std::string ack(int fn) const { return wire::packet(wire::pkData, wire::attr(wire::atCall, wire::be32(fn))); }
    std::string eof() const { return wire::attr(wire::atTermination, wire::be32(wire::termEof)); }

    // The account's state and balance in one data packet that also ends the call.
    std::string status() const
    {
        wire::DataPackets d;
        d.putInt(1);
        d.putDouble(-12.25);
        return d.finish(eof());
    }

    // The traffic report: size divisor, then per service a marker, its name
    // and three lists of (marker, id, name, size), each list ended by 0; the
    // end of the call in a packet of its own.
    std::string report()
    {
        wire::DataPackets d;
        d.putInt(1024);
        char name[32];
        for (int s = 0; s < reportServices; ++s) {
            d.putInt(1);
            std::snprintf(name, sizeof name, "Service %03d", s);
            d.put(name);
            for (int list = 0; list < 3; ++list) {
                for (int c = 0; c < reportClasses; ++c) {
                    d.putInt(1);
                    d.putInt(c + 1);
                    std::snprintf(name, sizeof name, "Class %02d-%d-%03d", s, list, c);
                    d.put(name);
                    d.putInt64(5000000000LL + c);
                }
                d.putInt(0);
            }
        }
        d.putInt(0);
        std::string bytes = d.finish();
        reportPackets = d.packets();
        return bytes + wire::packet(wire::pkData, eof());
    }
    int reportPackets = 0;
};

// The servers and the client's TLS context, for the whole run.
struct Setup {
    explicit Setup(int cpu) : plain(0, nullptr, cpu), tls(1, serverCtx.get(), cpu)
    {
        Replies r;
        reportBytes = r.report();
        for (wire::WireServer* s : {&plain, &tls}) {
            s->script(wire::fnInternetStatus, r.ack(wire::fnInternetStatus), r.status());
            s->script(wire::fnPrepaid, r.ack(wire::fnPrepaid), reportBytes);
        }
        reportReply = r.ack(wire::fnPrepaid).size() + reportBytes.size();
        reportPackets = r.reportPackets;
        ZEL::RPCCtx ready(0); // the client's contexts, as the session makes them
    }
    bool start() { return serverCtx && plain.start() && tls.start(); }

    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> serverCtx{ZEL::RPCCtx::new_server_adh_ctx(1), SSL_CTX_free};
    wire::WireServer plain, tls;
    std::string reportBytes;
    std::size_t reportReply = 0;
    int reportPackets = 0;
};
Setup* setup = nullptr;

// ---- the tray's client -------------------------------------------------------

// A client configured as the tray configures it; it always asks for
// protection, the server decides.
void configure(MiniClient& mc, int port)
{
    mc.address = "127.0.0.1";
    mc.port = port;
    mc.login = "bench";
    mc.password = "secret";
}

void callStatus(State& state, int port)
{
    MiniClient mc;
    configure(mc, port);
    if (mc.connect() != MiniClient::rcOk)
        return state.SkipWithError("login failed");
    for (auto _ : state) {
        if (mc.refreshInternetStatus() != MiniClient::rcOk || mc.internetStatus != 1 || mc.balance != -12.25)
            return state.SkipWithError("call failed");
    }
}

void BM_Call_Plain(State& state) { callStatus(state, setup->plain.port()); }
void BM_Call_Tls(State& state) { callStatus(state, setup->tls.port()); }

void BM_Login_Tls(State& state)
{
    MiniClient mc;
    configure(mc, setup->tls.port());
    for (auto _ : state) {
        if (mc.connect() != MiniClient::rcOk)
            return state.SkipWithError("login failed");
        mc.disconnect();
    }
}

// Every report must read whole: 100 services of three lists of 100 classes.
bool wholeReport(const MiniClient& mc)
{
    if (mc.services->size() != reportServices)
        return false;
    for (const MiniClient::ServiceReport& s : *mc.services)
        if (s.oldPrepaid.size() != reportClasses || s.prepaid.size() != reportClasses
            || s.downloaded.size() != reportClasses)
            return false;
    return true;
}

void BM_Report_Decode(State& state)
{
    MiniClient mc;
    configure(mc, setup->plain.port());
    if (mc.connect() != MiniClient::rcOk)
        return state.SkipWithError("login failed");
    for (auto _ : state) {
        if (mc.refreshPrepaid() != MiniClient::rcOk)
            return state.SkipWithError("report failed");
    }
    if (!wholeReport(mc))
        state.SkipWithError("report incomplete");
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(setup->reportReply));
    state.counters["packets"] = setup->reportPackets;
}

// ---- the floors: the same bytes by hand --------------------------------------

bool handLogin(wire::HandClient& c, int port)
{
    // The tray's client asks for protection 2; the server grants what it has.
    return c.connectTo(port) && c.login("bench", "secret", 2, ZEL::RPCCtx::tls1());
}

void callFloor(State& state, int port)
{
    wire::HandClient c;
    if (!handLogin(c, port))
        return state.SkipWithError("login failed");
    int i = 0;
    double d = 0;
    for (auto _ : state) {
        if (!c.callIntDouble(wire::fnInternetStatus, i, d) || i != 1 || d != -12.25)
            return state.SkipWithError("call failed");
    }
    c.leave();
}

void BM_Call_Plain_Floor(State& state) { callFloor(state, setup->plain.port()); }
void BM_Call_Tls_Floor(State& state) { callFloor(state, setup->tls.port()); }

void BM_Login_Tls_Floor(State& state)
{
    for (auto _ : state) {
        wire::HandClient c;
        if (!handLogin(c, setup->tls.port()))
            return state.SkipWithError("login failed");
        c.leave();
    }
}

void BM_Report_Decode_Floor(State& state)
{
    wire::HandClient c;
    if (!handLogin(c, setup->plain.port()))
        return state.SkipWithError("login failed");
    for (auto _ : state) {
        if (!c.callRaw(wire::fnPrepaid, setup->reportReply))
            return state.SkipWithError("report failed");
    }
    c.leave();
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(setup->reportReply));
    state.counters["packets"] = setup->reportPackets;
}

BENCHMARK(BM_Call_Plain)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Call_Plain_Floor)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Call_Tls)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Call_Tls_Floor)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Login_Tls)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Login_Tls_Floor)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Report_Decode)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();
BENCHMARK(BM_Report_Decode_Floor)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const int cpu = wire::pinCallerToFirstCpu();
    benchmark::AddCustomContext("pinned_cpu", std::to_string(cpu));
    Setup s(cpu);
    if (!s.start()) {
        std::fprintf(stderr, "bench_wire: the scripted servers did not start\n");
        return 1;
    }
    setup = &s;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
