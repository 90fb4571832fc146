// SPDX-License-Identifier: Apache-2.0
// name-server-guard NORMAL ACTIVE [COMMAND]: keeps the gateway's own name service off Cellular while the route
// supervision says "inhibit". ACTIVE is the servers file of a forwarder (dnsmasq --servers-file=ACTIVE): it is a copy
// of NORMAL while names may be looked up for others, and empty while they may not. COMMAND then has the forwarder read
// it. What is to be inhibited is a gateway's own decision; this is the simplest one. The access list knows it as
// orv-network.
#include <CommonUtils/Logger.h>
#include <QuilMqtt/QueueOwner.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <pthread.h>

namespace {

const std::string TOPIC = "/orv/network/wan/inhibit_dns";

class NameServerGuard : public QUILMQTT::QueueOwner {
public:
    NameServerGuard(std::string normalFile, std::string activeFile, std::string reloadCommand)
        : QueueOwner("orv-network"),
          normal(std::move(normalFile)),
          active(std::move(activeFile)),
          command(std::move(reloadCommand)) {}
    ~NameServerGuard() override { StopDelivery(); } // first of all: a message must not find the members gone
    NameServerGuard(const NameServerGuard&) = delete;
    NameServerGuard& operator=(const NameServerGuard&) = delete;

    bool Begin() { return Connect() && Subscribe(TOPIC, 1); }

private:
    void OnPublish(const std::string&, const std::string& word) override {
        // A word that is not known inhibits nothing: a gateway without names is worse than a few more bytes.
        if (word != "inhibit" && word != "permit")
            logger.Warning() << "no such word: " << word;
        std::ostringstream servers;
        if (word != "inhibit")
            servers << std::ifstream(normal).rdbuf();
        // In one piece: the forwarder may be reading.
        const std::string fresh = active + ".new";
        std::ofstream file(fresh);
        if (!(file << servers.str() << std::flush) || std::rename(fresh.c_str(), active.c_str()) != 0) {
            logger.Error() << "cannot write " << active;
            return;
        }
        logger.Info() << "name servers: " << word;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else waits for children here
        if (!command.empty() && std::system(command.c_str()) != 0)
            logger.Error() << "failed: " << command;
    }

    const std::string normal;
    const std::string active;
    const std::string command;
    CommonUtils::Logger logger{"name-server-guard", 0}; // 0: trace; gateway.ini may ask for less
};

} // namespace

int main(int count, char** words) {
    if (count < 3 || count > 4) {
        std::cerr << "usage: name-server-guard NORMAL ACTIVE [COMMAND]" << std::endl;
        return 2;
    }
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigaddset(&end, SIGINT);
    pthread_sigmask(SIG_BLOCK, &end, nullptr); // before the connection has a thread, which inherits it
    NameServerGuard guard(words[1], words[2], count == 4 ? words[3] : "");
    // A connection that was made once comes back by itself; the first one has to be tried.
    const timespec pause{1, 0};
    while (!guard.Begin())
        if (sigtimedwait(&end, nullptr, &pause) > 0)
            return 0;
    int received = 0;
    sigwait(&end, &received);
    guard.Disconnect();
    return 0;
}
