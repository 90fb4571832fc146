// SPDX-License-Identifier: Apache-2.0
#include "RouteModel.h"

#include "FakeCurl.h"

namespace OrvStackSdk::Testing {

using OrvPlatformFake::Entries;
using namespace std::chrono_literals;

namespace {

/// One tick under way: the facts that conditions look at, the actions that rows are made of.
struct Turn {
    RouteModel& m;
    RouteModel::Process& process;
    const RouteModel::Surroundings& around;
    bool pokeResult = false;
    Entries journal;

    RouteModel::nanoseconds Elapsed() const { return around.now - m.stateSince; }

    void Add(const Entries& entries) { journal.insert(journal.end(), entries.begin(), entries.end()); }
    void Log(const std::string& text) { journal.push_back("log debug OrvRoute <Tick> \"" + text + "\""); }
    void Error(const std::string& text) { journal.push_back("log error OrvRoute \"" + text + "\""); }
    void Publish(const std::string& word) {
        journal.push_back("publish retained assured OrvRoute \"/orv/network/wan/inhibit_dns\" \"" + word + "\"");
    }
    void Top(const std::string& name) { journal.push_back("connman top " + name); }
    void CellularDns(const std::string& first) { journal.push_back("connman dns wwan0 \"" + first + "\" \"\""); }
    void Stamp() { m.stateSince = around.now; }

    void Report(const std::string& path) {
        process.path = path;
        Log(" Cloud connected with " + path + " interface");
        process.reported = true;
    }

    void Clean() {
        Add(m.pokeSetUp ? FakeCurl::CleanLines() : FakeCurl::IdleCleanLines());
        m.pokeSetUp = false;
    }

    bool SetUp() {
        const auto lines = FakeCurl::SetUpLines("https://cloud.example", m.pokeInterface);
        switch (around.poke) {
        case PokeOutcome::NO_MULTI_HANDLE:
            Add({"curl multi_init"});
            return false;
        case PokeOutcome::NO_EASY_HANDLE:
            Add({"curl multi_init", "curl easy_init", "curl multi_cleanup"});
            return false;
        case PokeOutcome::NOT_ADDED:
            Add(lines);
            Add({"curl easy_cleanup", "curl multi_cleanup"});
            return false;
        default:
            Add(lines);
            m.pokeSetUp = true;
            return true;
        }
    }

    bool Poke() {
        if (!m.pokeSetUp && !SetUp()) {
            Error("ERROR Setup Poke");
            return false;
        }
        Add({"curl perform"});
        switch (around.poke) {
        case PokeOutcome::SUCCEEDED:
            Add({"curl info_read"});
            Clean();
            return true;
        case PokeOutcome::FAILED:
            Add({"curl info_read"});
            Error("poke error 7");
            Clean();
            return false;
        case PokeOutcome::ENDED_SILENTLY:
            Add({"curl info_read"});
            return false;
        case PokeOutcome::CANNOT_BE_DRIVEN:
            Error("curl multi perform error");
            Clean();
            return false;
        default:
            return false;
        }
    }
};

std::set<std::string> usedRows;

struct Row {
    int state;
    const char* condition;
    bool (*holds)(const Turn&);
    void (*act)(Turn&);
    int next;
};

void Nothing(Turn&) {}

bool Otherwise(const Turn&) {
    return true;
}

// The rows of a state in order: the first whose condition holds decides.
const Row ROWS[] = {
    {0, "not cloudConnected", [](const Turn& t) { return !t.m.cloudConnected; },
     [](Turn& t) {
         t.Stamp();
         t.Log("eth cloud lost, start delay to cell");
         t.process.reported = false;
     },
     1},
    {0, "cloudConnected and not reported", [](const Turn& t) { return !t.process.reported; },
     [](Turn& t) { t.Report("Ethernet"); }, 0},
    {0, "otherwise", Otherwise, Nothing, 0},

    {1, "cloudConnected, not ethernetIpUp, cellularIpUp",
     [](const Turn& t) { return t.m.cloudConnected && !t.m.ethernetIpUp && t.m.cellularIpUp; },
     [](Turn& t) {
         t.Publish("inhibit");
         t.Log("cell cloud reconnected by itself");
     },
     4},
    {1, "cloudConnected", [](const Turn& t) { return t.m.cloudConnected; },
     [](Turn& t) { t.Log("eth cloud reconnected by itself"); }, 0},
    {1, "below 10 s", [](const Turn& t) { return t.Elapsed() < 10s; }, Nothing, 1},
    {1, "not cellularIpUp", [](const Turn& t) { return !t.m.cellularIpUp; }, Nothing, 1},
    {1, "otherwise", Otherwise,
     [](Turn& t) {
         t.m.pokeRunning = true;
         t.m.pokeInterface = "wwan0";
         t.Stamp();
         t.Publish("inhibit");
         t.Log("Started Poke to cell if wwan0");
     },
     2},

    {2, "poke succeeded", [](const Turn& t) { return t.pokeResult; },
     [](Turn& t) {
         t.Top("wwan0");
         t.m.pokeRunning = false;
         t.Stamp();
         t.Log("poke success, route to Cell");
     },
     3},
    {2, "not cloudConnected, cellularIpUp, below 20 s",
     [](const Turn& t) { return !t.m.cloudConnected && t.m.cellularIpUp && t.Elapsed() < 20s; }, Nothing, 2},
    {2, "otherwise", Otherwise,
     [](Turn& t) {
         t.m.pokeRunning = false;
         t.Clean();
         t.Publish("permit");
         t.Log("poke cell aborted");
     },
     0},

    {3, "Cellular on top, not reported", [](const Turn& t) { return t.around.top == "wwan0" && !t.process.reported; },
     [](Turn& t) {
         t.m.reconnectNeeded = true;
         t.Log("route is Cell, reconnecting");
         t.Report("Cellular");
     },
     4},
    {3, "Cellular on top, reported", [](const Turn& t) { return t.around.top == "wwan0"; },
     [](Turn& t) {
         t.m.reconnectNeeded = true;
         t.Log("route is Cell, reconnecting");
     },
     4},
    {3, "below 3 s", [](const Turn& t) { return t.Elapsed() < 3s; }, Nothing, 3},
    {3, "otherwise", Otherwise,
     [](Turn& t) {
         t.Publish("permit");
         t.Top("eth0");
         t.Error("Failed to set wwan0 as top interface, restarting SM");
     },
     0},

    {5, "Ethernet on top", [](const Turn& t) { return t.around.top == "eth0"; },
     [](Turn& t) {
         t.m.reconnectNeeded = true;
         t.m.cloudLostSinceSwitch = false;
         t.Stamp();
         t.Log("route is eth, reconnecting");
     },
     6},
    {5, "below 3 s", [](const Turn& t) { return t.Elapsed() < 3s; }, Nothing, 5},
    {5, "otherwise", Otherwise,
     [](Turn& t) {
         t.Top("eth0");
         t.CellularDns("");
         t.Error("Failed to set eth0 as top interface, restarting SM");
     },
     0},

    {6, "not cloudLostSinceSwitch, below 5 s",
     [](const Turn& t) { return !t.m.cloudLostSinceSwitch && t.Elapsed() < 5s; }, Nothing, 6},
    {6, "otherwise", Otherwise,
     [](Turn& t) {
         t.CellularDns("");
         t.Log("cell to eth delay done");
     },
     0},
};

// State 4 is no list of alternatives: its steps run one after the other until one ends the tick.
struct Stage {
    const char* condition;
    bool (*holds)(const Turn&);
    void (*act)(Turn&);
    bool endsTick;
};

const Stage STAGES[] = {
    {"start: ethernetIpUp, no poke", [](const Turn& t) { return t.m.ethernetIpUp && !t.m.pokeRunning; },
     [](Turn& t) {
         t.m.pokeRunning = true;
         t.m.pokeInterface = "eth0";
         t.m.dnsInhibited = true;
         t.Stamp();
         t.Log("Started Poke eth if eth0");
     },
     false},
    {"end: no poke", [](const Turn& t) { return !t.m.pokeRunning; }, Nothing, true},
    {"stop: not ethernetIpUp, 2 s", [](const Turn& t) { return !t.m.ethernetIpUp && t.Elapsed() >= 2s; },
     [](Turn& t) { t.m.pokeRunning = false; }, false},
    {"mirror: Cellular is up", [](const Turn& t) { return t.m.cellularIpUp && !t.m.dnsInhibited; },
     [](Turn& t) {
         t.Publish("inhibit");
         t.m.dnsInhibited = true;
     },
     false},
    {"mirror: Cellular is down", [](const Turn& t) { return !t.m.cellularIpUp && t.m.dnsInhibited; },
     [](Turn& t) {
         t.Publish("permit");
         t.m.dnsInhibited = false;
     },
     false},
    {"end: no success", [](const Turn& t) { return !t.m.pokeRunning || !t.pokeResult; }, Nothing, true},
    {"success", Otherwise,
     [](Turn& t) {
         t.CellularDns("0.0.0.0");
         t.Publish("permit");
         t.m.pokeRunning = false;
         t.Top("eth0");
         t.Stamp();
         t.Log("poke success, route to ETH");
         t.process.reported = false;
         t.m.state = 5;
     },
     true},
};

std::string NameOf(int state, const char* condition) {
    return std::to_string(state) + ": " + condition;
}

void RunStages(Turn& turn) {
    for (const auto& stage : STAGES) {
        if (!stage.holds(turn))
            continue;
        usedRows.insert(NameOf(4, stage.condition));
        stage.act(turn);
        if (stage.endsTick)
            return;
    }
}

void RunRow(Turn& turn) {
    for (const auto& row : ROWS) {
        if (row.state != turn.m.state || !row.holds(turn))
            continue;
        usedRows.insert(NameOf(row.state, row.condition));
        row.act(turn);
        turn.m.state = row.next;
        return;
    }
}

} // namespace

Entries RouteModel::Update(bool cloud, bool ethernet, bool cellular) {
    cloudConnected = cloud;
    ethernetIpUp = ethernet;
    cellularIpUp = cellular;
    cloudLostSinceSwitch = cloudLostSinceSwitch || !cloud;
    return {state == 3 || state == 4 ? "connman top wwan0" : "connman top eth0"};
}

Entries RouteModel::Tick(Process& process, const Surroundings& surroundings) {
    Turn turn{*this, process, surroundings, false, {}};
    turn.pokeResult = pokeRunning && turn.Poke();
    if (state == 4)
        RunStages(turn);
    else
        RunRow(turn);
    return turn.journal;
}

bool RouteModel::TakeReconnect() {
    const bool taken = reconnectNeeded;
    reconnectNeeded = false;
    return taken;
}

std::uint32_t RouteModel::Key(const Process& process) const {
    std::uint32_t key = static_cast<std::uint32_t>(state);
    for (const bool flag : {cloudConnected, ethernetIpUp, cellularIpUp, pokeRunning, reconnectNeeded,
                            cloudLostSinceSwitch, dnsInhibited, pokeSetUp, process.reported})
        key = 2 * key + (flag ? 1 : 0);
    return key;
}

const std::set<std::string>& RouteModel::UsedRows() {
    return usedRows;
}

std::set<std::string> RouteModel::AllRows() {
    std::set<std::string> names;
    for (const auto& row : ROWS)
        names.insert(NameOf(row.state, row.condition));
    for (const auto& stage : STAGES)
        names.insert(NameOf(4, stage.condition));
    return names;
}

} // namespace OrvStackSdk::Testing
