// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/ApplicationModel.h"
#include "gateway/ConnectionManager.h"
#include "gateway/FakeFiles.h"
#include "gateway/KernelWeather.h"
#include "gateway/StackLibrary.h"
#include "gateway/World.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

/// The whole of gateway-app on its event loop, between the kernel, the cloud, the connection manager, the client
/// library, its files and the service manager, while all of them have moods. At the end it is told to end.
class ApplicationProgram {
public:
    ApplicationProgram(Simulation& simulation, std::uint64_t seed);
    ~ApplicationProgram();
    ApplicationProgram(const ApplicationProgram&) = delete;
    ApplicationProgram& operator=(const ApplicationProgram&) = delete;

    void Run();

private:
    void RunApplication();
    void Weather();
    void Act();
    void ActOnCloud();
    void ActOnLibrary();
    void ActOnFiles();
    void SetFull(bool full);
    void Outage();
    void Signal();
    void SendMessage();
    void StartSecond();
    void Collect();
    void FailOver();
    void Rest();
    void End();
    void Follow();
    void WriteOptions(bool mayBeWrong);
    std::string SourceOf(const std::string& interface, bool six) const;
    std::string DefaultSource(bool six) const;
    bool IsDead(const std::string& source) const;
    World::Proof Prove(const std::string& interface);

    Simulation& sim;
    Random random;
    World world;
    KernelWeather weather;
    FakeFiles files;
    ConnectionManager manager;
    int mainThread = 1;
    ApplicationModel model;
    StackLibrary library;

    int optionsFile;
    ApplicationModel::Options options; // as the options file has them
    bool wrongFile = false;            // it cannot be read
    bool reloading = false;            // it is being read
    bool dead[2] = {false, false};     // the provider of Ethernet, of Cellular
    unsigned refusals = 0;             // of threads, one in so many
    bool quiet = false;
    bool over = false; // the application has ended
};

} // namespace OrvLab
