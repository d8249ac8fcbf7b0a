#include "simbilling.h"

#include "simcall.h"
#include "simfunctions.h"
#include "simstate.h"

#include <algorithm>
#include <ctime>

namespace zel5sim {

void SimBilling::registerAll(SimFunctions& functions)
{
    functions.add(fnVersion, 0, &SimBilling::version);
    functions.add(fnSwitchInternet, 1, &SimBilling::switchInternet);
    functions.add(fnInternetStatus, 0, &SimBilling::internetStatus);
    functions.add(fnReport, 0, &SimBilling::report);
    functions.add(fnMessages, 1, &SimBilling::messages);
}

bool SimBilling::version(SimCall& call)
{
    call.reply.putBytes(call.state.options().serverVersion);
    return true;
}

bool SimBilling::switchInternet(SimCall& call)
{
    // The argument carries no meaning for this server: every call toggles.
    call.state.recordArgument(call.function, call.args.at(0));
    return call.state.withAccount(call.login, [](Account& a) { a.internetStatus = a.internetStatus ? 0 : 1; });
}

bool SimBilling::internetStatus(SimCall& call)
{
    Account a;
    if (!call.state.getAccount(call.login, a))
        return false;
    call.reply.putInt(a.internetStatus);
    call.reply.putDouble(a.balance);
    return true;
}

static void putClassList(SimReply& reply, const std::vector<TrafficClass>& list)
{
    for (const TrafficClass& c : list) {
        reply.putInt(1);
        reply.putInt(c.id);
        reply.putBytes(c.name);
        reply.putInt64(c.size);
    }
    reply.putInt(0);
}

bool SimBilling::report(SimCall& call)
{
    Account a;
    if (!call.state.getAccount(call.login, a))
        return false;
    call.reply.putInt(a.sizeDivisor);
    for (const Service& s : a.services) {
        call.reply.putInt(1);
        call.reply.putBytes(s.name);
        putClassList(call.reply, s.oldPrepaid);
        putClassList(call.reply, s.prepaid);
        putClassList(call.reply, s.downloaded);
    }
    call.reply.putInt(0);
    return true;
}

bool SimBilling::messages(SimCall& call)
{
    const std::int32_t from = call.args.at(0);
    call.state.recordArgument(call.function, from);
    Account a;
    if (!call.state.getAccount(call.login, a))
        return false;
    std::vector<Message> fresh;
    for (const Message& m : a.messages)
        if (m.time >= from)
            fresh.push_back(m);
    std::stable_sort(fresh.begin(), fresh.end(), [](const Message& x, const Message& y) { return x.time < y.time; });

    // The client asks next from this time plus one. Without messages it is
    // the second before now, so that a message arriving later within the
    // current second is still delivered; never below from - 1, so that the
    // client does not fetch again what it has.
    std::int64_t last = fresh.empty() ? static_cast<std::int64_t>(std::time(nullptr)) - 1 : fresh.back().time;
    last = std::max<std::int64_t>(last, static_cast<std::int64_t>(from) - 1);
    last = std::min<std::int64_t>(last, INT32_MAX);
    call.reply.putInt(static_cast<std::int32_t>(last));

    if (call.fault.kind == Fault::Kind::HugeCount) {
        call.reply.putUInt(0xFFFFFFFFu);
        call.reply.omitTermination();
        return true;
    }
    call.reply.putUInt(static_cast<std::uint32_t>(fresh.size()));
    for (const Message& m : fresh) {
        call.reply.putInt(m.time);
        call.reply.putInt(0);
        call.reply.putBytes(m.subject);
        call.reply.putBytes(m.body);
    }
    return true;
}

} // namespace zel5sim
