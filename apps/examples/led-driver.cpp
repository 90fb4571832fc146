// SPDX-License-Identifier: Apache-2.0
// led-driver FOLDER: shows the two connected-services LEDs. FOLDER holds one folder a LED, "green" and "yellow", as the
// kernel has them in /sys/class/leds. The wanted state is retained by the broker, so it is shown from the start.
// It is no application of the stack: it uses the platform's broker connection alone. The access list knows it as
// orv-led.
#include <CommonUtils/Logger.h>
#include <QuilMqtt/QueueOwner.h>

#include <fstream>
#include <iostream>
#include <string>

#include <csignal>
#include <ctime>
#include <pthread.h>

namespace {

const std::string TOPICS = "/orv/led/connected_services_";

class LedDriver : public QUILMQTT::QueueOwner {
public:
    explicit LedDriver(std::string ledFolder) : QueueOwner("orv-led"), folder(std::move(ledFolder)) {}
    ~LedDriver() override { StopDelivery(); } // first of all: a message must not find the members gone
    LedDriver(const LedDriver&) = delete;
    LedDriver& operator=(const LedDriver&) = delete;

    bool Begin() { return Connect() && Subscribe(TOPICS + "green", 1) && Subscribe(TOPICS + "yellow", 1); }

private:
    void OnPublish(const std::string& topic, const std::string& word) override {
        const std::string led = topic.substr(TOPICS.size());
        if (word == "Blink")
            Write(led, "trigger", "timer");
        else if (word == "On" || word == "Off")
            Write(led, "trigger", "none") && Write(led, "brightness", word == "On" ? "1" : "0");
        else
            logger.Warning() << led << ": no such state: " << word;
    }

    bool Write(const std::string& led, const std::string& attribute, const std::string& value) {
        const std::string path = folder + "/" + led + "/" + attribute;
        // No file is made where there is none: a LED that is not there is a mistake in the folder's name.
        std::ofstream file(path, std::ios::in | std::ios::out);
        if (!(file << value << std::flush))
            logger.Error() << "cannot write " << value << " to " << path;
        return file.good();
    }

    const std::string folder;
    CommonUtils::Logger logger{"led-driver", 0}; // 0: trace; gateway.ini may ask for less
};

} // namespace

int main(int count, char** words) {
    if (count != 2 || words[1][0] == '-') {
        std::cerr << "usage: led-driver FOLDER, such as /sys/class/leds" << std::endl;
        return 2;
    }
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigaddset(&end, SIGINT);
    pthread_sigmask(SIG_BLOCK, &end, nullptr); // before the connection has a thread, which inherits it
    LedDriver driver(words[1]);
    // A connection that was made once comes back by itself; the first one has to be tried.
    const timespec pause{1, 0};
    while (!driver.Begin())
        if (sigtimedwait(&end, nullptr, &pause) > 0)
            return 0;
    int received = 0;
    sigwait(&end, &received);
    driver.Disconnect();
    return 0;
}
