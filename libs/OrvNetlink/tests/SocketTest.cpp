// SPDX-License-Identifier: Apache-2.0
#include <OrvNetlink/Messages.h>
#include <OrvNetlink/Socket.h>

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

/// How many dumps from now on the kernel's state changes in.
int interrupted = 0;

} // namespace

extern "C" ssize_t __real_mnl_socket_recvfrom(const mnl_socket* socket, void* room, size_t size);  // NOLINT
extern "C" ssize_t __wrap_mnl_socket_recvfrom(const mnl_socket* socket, void* room, size_t size) { // NOLINT
    const ssize_t received = __real_mnl_socket_recvfrom(socket, room, size);
    int left = static_cast<int>(received);
    for (auto* message = static_cast<nlmsghdr*>(room); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
        if (interrupted > 0 && message->nlmsg_type == NLMSG_DONE) {
            message->nlmsg_flags |= NLM_F_DUMP_INTR;
            --interrupted;
        }
    }
    return received;
}

namespace OrvNetlink {
namespace {

class ADumpOfTheLinks : public testing::Test {
protected:
    ~ADumpOfTheLinks() override { interrupted = 0; }

    bool Dump() {
        links.clear();
        return socket.Dump(RTM_GETLINK, AF_UNSPEC, [this](const nlmsghdr& message) {
            if (const std::optional<Link> link = ReadLink(message))
                links.push_back(link->name);
        });
    }

    Socket socket;
    std::vector<std::string> links;
};

TEST_F(ADumpOfTheLinks, HasEachLinkOnce) {
    EXPECT_TRUE(Dump());
    EXPECT_EQ(std::count(links.begin(), links.end(), "lo"), 1);
}

TEST_F(ADumpOfTheLinks, IsTakenAgainWhenTheyChangeMeanwhile) {
    interrupted = 4;
    EXPECT_TRUE(Dump());
    EXPECT_EQ(interrupted, 0);
    EXPECT_EQ(std::count(links.begin(), links.end(), "lo"), 1);
}

TEST_F(ADumpOfTheLinks, IsNotUsedWhenTheyChangeAllTheTime) {
    interrupted = 1000;
    EXPECT_FALSE(Dump());
    EXPECT_TRUE(links.empty());
    interrupted = 0;
    EXPECT_TRUE(Dump());
    EXPECT_FALSE(links.empty());
}

} // namespace
} // namespace OrvNetlink
