// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/FakeFiles.h"
#include "gateway/NetworkModel.h"
#include "gateway/StackLibrary.h"
#include "gateway/World.h"
#include "sim/LabLog.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace OrvLab {

/// What gateway-app has to tell the client library, the service manager and the readers of its status file, as its
/// manual and docs/status.md say, without a look at how it does it.
class ApplicationModel final : public StackListener {
public:
    ApplicationModel(World& its, FakeFiles& itsFiles, int applicationThread);
    ~ApplicationModel();

    /// The client library's own part: what its status file has to hold, and where its supervision is.
    std::function<std::string()> csv;
    std::function<StackLibrary::State()> where;
    /// The cloud has IPv4 only.
    bool fourOnly = false;
    ApplicationModel(const ApplicationModel&) = delete;
    ApplicationModel& operator=(const ApplicationModel&) = delete;

    /// What its options say.
    struct Options {
        std::string host{};
        int keepAliveEthernet = 1; // in seconds
        int keepAliveCellular = 30;
        int tick = 0; // in milliseconds; 0: by the situation
    };
    /// How often it has done what costs something.
    struct Efforts {
        int events = 0;
        int records = 0;
        int statusWrites = 0;
    };

    /// @name What is done to it
    /// @{
    void OptionsAre(const Options& those);
    /// It is told to end.
    void Terminated();
    /// It is told to read its options anew.
    void Reloaded();
    /// Another program has touched the library's status file, or there may be no room for it.
    void CsvIsTouched() { csvTouched = true; }
    /// What an event may wait for the disk.
    void DiskTakes(Time longest) { disk = longest; }
    /// Its function has come back.
    void Returns();
    /// The clock jumps while the loop waits for events.
    void TimeHasAdvanced(Time by);
    /// @}

    /// @name What it tells the client library
    /// @{
    void Created(bool made) override;
    void HandlerSet() override;
    void Inits(const std::string& name) override;
    void Confirmed(bool accepted) override;
    void Starts() override;
    void Ticks() override;
    void Reports(OrvStackSdk::OrvEvent event) override;
    void Says(OrvStackSdk::AppStatus status) override;
    void AsksWhetherMoved(bool moved, bool toCellular) override;
    void Stops() override;
    void DeInits() override;
    void Released() override;
    /// @}

    /// @name What is seen of it from outside
    /// @{
    void ConnackRead(CloudSocket& socket);
    void Closed(const CloudSocket& socket);
    void SendsDisconnect() { sentDisconnect = true; }
    void TakesSignal(int number);
    void Notified(const std::string& message);
    void Logged(const LabLog::Record& record);
    void Replaced(const std::string& path);
    /// Something may have changed in the kernel.
    void NoteKernel();
    /// There may be room for files, or none any more; the application may be held up meanwhile.
    void NoteRoom();
    /// @}

    bool IsReady() const { return ready; }
    bool WantsCloud() const { return !options.host.empty(); }
    bool IsConnected() const { return open.has_value(); }
    /// The interface of the connection; empty: none.
    std::string Connected() const { return open ? Network().OwnerOf(open->source) : std::string(); }
    const std::string& Route() const { return route; }
    bool OnProbation() const { return probation; }
    Time MovedAt() const { return movedAt; }
    int Probations() const { return probations; }
    bool TicksByTheSituation() const { return options.tick == 0; }
    const Efforts& Done() const { return efforts; }
    /// The status file holds an object of which one value is asked for; nothing when it is not there.
    static std::optional<std::string> Value(const std::string& json, const std::string& section,
                                            const std::string& name);

private:
    enum class Life { NONE, CREATED, WITH_HANDLER, CONFIRMED, STARTED, STOPPED, ENDED, RELEASED };
    struct Connection {
        std::string source;
        const CloudSocket* socket;
    };
    struct Closing {
        bool mayBeOwn = false;
        bool mayBeLoss = false;
    };

    void OnItsThread(const char* call);
    void Require(bool right, const char* call);
    void TakeCloud(bool connected);
    void Take(std::optional<bool>& told, bool now, const char* what);
    void CheckTold();
    void CheckStatus();
    void CheckField(const std::string& text, const char* section, const char* name, const std::string& wanted);
    void CheckShown();
    void CheckCsv();
    void CheckTicks(Time next);
    void CheckPath();
    void CheckProbation();
    void NoteMove(const std::string& line);
    /// The longest time between two ticks now, by the table in docs/route.md.
    Time LongestPause() const;
    Time Allowance() const;
    [[noreturn]] void Fail(const std::string& what);
    NetworkModel Network() const { return {world.kernel, world.sim.Now()}; }

    World& world;
    FakeFiles& files;
    const int thread;

    Options options;
    bool hostChanged = false; // and the library has not been told that the cloud is enabled or not
    Time terminatedAt = NEVER;
    Time stalledBefore = 0; // that
    Time disk = 0;
    Time reloadedAt = 0;
    Time optionsAt = 0;
    bool otherOptions = false; // since it was last ready
    bool owesBooting = false;
    bool booting = false;
    Efforts efforts;
    std::string route;
    Time routeChangedAt = 0;
    Time routeHeardAt = 0;
    Time homelessAt = 0; // when the address of the connection was last seen to be gone
    int failuresOwed = 0;
    bool failedBefore = false; // there was a client

    Life life = Life::NONE;
    bool ready = false; // it was once
    bool initial = false;
    std::optional<bool> enabled, cloud, link[2], address[2];
    std::deque<bool> owed;     // of the cloud
    std::optional<bool> asked; // whether the route has moved, since the last tick
    Time movedAt = 0;
    std::string movedTo;
    bool routeHasLeft = false;   // where the library has moved it, since then
    bool toldOfCellular = false; // the library also gets there when the cloud comes back by itself, and does not say so
    int moves[2] = {0, 0};       // that were said, to Ethernet and to Cellular
    std::string settled;         // whereto the last one led, or where the route has stood before there was one
    bool followed = true;
    std::vector<Time> fails; // the moves to Cellular

    std::optional<Connection> open;
    bool saidConnected = false; // of that one
    Time changedAt;
    Time changedBefore = 0;
    std::optional<Closing> closing;
    int losses = 0;
    std::string reason;
    bool sentDisconnect = false;
    bool probation = false;
    bool owesProbation = false;
    Time probationAt = 0; // began or ended
    int probations = 0;
    bool csvTouched = false; // by others, or not written, since the last event
    Time csvWrongSince = NEVER;
    bool hadNoRoom = false;
    Time roomSince = 0;
    int repairs = 0;

    Time readyAt = 0;
    Time tickedAt = 0;
    Time restlessAt = 0; // when something happened that may make the ticks quick
    Time pingedAt = NEVER;
    bool statusWritten = false;
    bool statusStale = false; // there was no room
    Time statusAt = 0;        // when it was written, or there was last no room

    int readies = 0;
    int stoppings = 0;
    std::string shown;
};

} // namespace OrvLab
