// A network namespace with an Ethernet interface in it, one end of a pair, made by the kernel alone.
#pragma once

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/namespaces.h"

namespace orx {

// Makes cam0 and brings it up.
inline bool MakeVethPair()
{
    struct {
        nlmsghdr head{sizeof(*this), RTM_NEWLINK, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, 0,
                      0};
        ifinfomsg info{AF_UNSPEC, 0, 0, 0, IFF_UP, IFF_UP};
        rtattr name{sizeof(rtattr) + sizeof(szName), IFLA_IFNAME};
        char szName[8] = "cam0";
        rtattr link{sizeof(rtattr) + sizeof(kind) + sizeof(aKind), IFLA_LINKINFO};
        rtattr kind{sizeof(rtattr) + sizeof(aKind), IFLA_INFO_KIND};
        char aKind[4] = {'v', 'e', 't', 'h'};
    } request;
    struct {
        nlmsghdr head;
        nlmsgerr error;
        char rest[512];
    } answer{};
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    bool bMade = fd >= 0 && send(fd, &request, sizeof(request), 0) > 0 &&
                 recv(fd, &answer, sizeof(answer), 0) > 0 && answer.head.nlmsg_type == NLMSG_ERROR &&
                 answer.error.error == 0;
    if (fd >= 0)
        close(fd);
    return bMade;
}

// cam0 in a network of its own. The test is skipped where that is not allowed.
struct VethTest : testing::Test {
    void SetUp() override
    {
        if (!EnterNamespaces(CLONE_NEWNET) || !MakeVethPair())
            GTEST_SKIP() << "needs the right to make a network namespace and a veth pair in it";
    }
};

}  // namespace orx
