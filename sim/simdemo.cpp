#include "simdemo.h"

#include "billingsim.h"
#include "simstate.h"

#include <cstdio>
#include <ctime>

namespace zel5sim {

namespace {

const long long KiB = 1024;
const long long MiB = 1024 * KiB;
const long long GiB = 1024 * MiB;

std::int32_t hoursAgo(int hours)
{
    return static_cast<std::int32_t>(std::time(nullptr) - hours * 3600L);
}

Service internetService()
{
    Service s;
    s.name = "Internet \"Home 100\"";
    s.oldPrepaid = {{1, "Internet", 512 * MiB}, {2, "Night internet", 3 * GiB}};
    s.prepaid = {{1, "Internet", 20 * GiB}, {2, "Night internet", 10 * GiB}};
    s.downloaded = {{1, "Internet", 7 * GiB + 318 * MiB}, {2, "Night internet", 2 * GiB + 45 * MiB},
                    {4, "Foreign traffic", 96 * KiB}};
    return s;
}

Service cityService()
{
    Service s;
    s.name = "City network";
    s.prepaid = {{3, "City exchange", 50 * GiB}};
    s.downloaded = {{3, "City exchange", 1 * GiB + 200 * MiB}, {5, "Game servers", 734 * MiB}};
    return s;
}

Service tvService()
{
    Service s;
    s.name = "IPTV";
    s.downloaded = {{6, "Television", 14 * GiB + 600 * MiB}, {7, "Video on demand", 48 * KiB}};
    return s;
}

Message maintenanceMessage()
{
    Message m;
    m.time = hoursAgo(50);
    m.subject = "Planned maintenance on Saturday";
    m.body = "<p>Dear subscriber,</p>"
             "<p>on Saturday from 02:00 to 04:00 we upgrade the equipment of your district. "
             "The connection may drop for a few minutes.</p>"
             "<p>Details are on our <a href=\"https://billing.example.net/news/maintenance\">news page</a>.</p>";
    return m;
}

Message tariffMessage()
{
    Message m;
    m.time = hoursAgo(5);
    m.subject = "New tariffs from next month";
    m.body = "<p>From next month the following tariffs apply:</p>"
             "<table border=\"1\" cellpadding=\"4\">"
             "<tr><th>Tariff</th><th>Speed</th><th>Price per month</th></tr>"
             "<tr><td>Home 50</td><td>50 Mbit/s</td><td>9.90</td></tr>"
             "<tr><td>Home 100</td><td>100 Mbit/s</td><td>14.90</td></tr>"
             "<tr><td>Home 500</td><td>500 Mbit/s</td><td>24.90</td></tr>"
             "</table>"
             "<ul><li>Night traffic stays free.</li><li>The city network stays unmetered.</li></ul>";
    return m;
}

std::string money(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", v);
    return text;
}

} // namespace

Account Account::demo()
{
    Account a;
    a.login = "demo";
    a.password = "demo";
    a.balance = 127.45;
    a.internetStatus = 1;
    a.sizeDivisor = 1048576;
    a.services = {internetService(), cityService(), tvService()};
    a.messages = {maintenanceMessage(), tariffMessage()};
    return a;
}

void SimDemo::activity(SimState& state, int tick)
{
    // Every fifth round is a payment; the others are small charges of
    // varying size.
    const bool payment = tick % 5 == 0;
    const double amount = payment ? 150.0 : 0.75 + (tick % 4) * 0.6;
    const std::int32_t now = static_cast<std::int32_t>(std::time(nullptr));
    state.forEachAccount([&](Account& a) {
        a.balance += payment ? amount : -amount;
        Message m;
        m.time = now;
        if (payment) {
            m.subject = "Payment received";
            m.body = "<p>Thank you! A payment of <b>" + money(amount) + "</b> was credited to your account.</p>";
        } else {
            m.subject = "Account notice #" + std::to_string(tick);
            m.body = "<p>A charge of <b>" + money(amount) + "</b> was made for your services.</p>";
        }
        m.body += "<p>Your balance is now " + money(a.balance) + ".</p>";
        a.messages.push_back(m);
    });
}

} // namespace zel5sim
