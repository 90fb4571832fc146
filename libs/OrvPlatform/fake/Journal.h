// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

/// Fakes of the platform contract for tests: they behave like the real parts and write down what happened, in one
/// order.
namespace OrvPlatformFake {

using Entries = std::vector<std::string>;

/// What happened, in order, over all fakes: one line of text an event. Callable from any thread.
class Journal {
public:
    static void Add(const std::string& entry);

    /// All entries since the last Take or Clear; the journal is empty afterwards.
    static Entries Take();
    static void Clear();

    /// Calls `observer` with each entry before it is written down, on the thread that adds it; an empty one ends that.
    static void Observe(std::function<void(const std::string&)> observer);
};

/// The entries that begin with one of `beginnings`, in their order.
Entries Only(const Entries& entries, const std::vector<std::string>& beginnings);

/// @name The journal's lines
/// Tests build the expected lines with the same functions that the fakes use.
/// @{
namespace Entry {

std::string Trace(const std::string& logger, const std::string& tag, const std::string& text = "");
std::string Debug(const std::string& logger, const std::string& tag, const std::string& text);
std::string Info(const std::string& logger, const std::string& text);
std::string Warning(const std::string& logger, const std::string& text);
std::string Error(const std::string& logger, const std::string& text);
std::string Log(const std::string& logger, int level, const char* tag, const std::string& text);
std::string Wrapper(int level, bool flag, const std::string& file, int line, const std::string& function,
                    const std::string& text);

std::string Connect(const std::string& client, bool accepted = true);
std::string ConnectWithWill(const std::string& client, const std::string& topic, const std::string& message,
                            bool retained, bool accepted = true);
std::string Subscribe(const std::string& client, const std::string& filter, int qos);
/// A publication that the client was asked for, whatever became of it.
std::string Publish(const std::string& client, const std::string& topic, const std::string& payload,
                    bool assured = false);
std::string PublishRetained(const std::string& client, const std::string& topic, const std::string& payload,
                            bool assured = false);
std::string Disconnect(const std::string& client);
std::string StopDelivery(const std::string& client);
/// The broker speaks a last will.
std::string Will(const std::string& client, const std::string& topic, const std::string& message);

std::string TopPriority(const std::string& interfaceName);
std::string Dns(const std::string& interfaceName, const std::string& first, const std::string& second);

} // namespace Entry
/// @}

} // namespace OrvPlatformFake
