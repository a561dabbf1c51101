// A camera for tests, served by the loop under test: answers each request by a script.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "base/base64.h"
#include "client/rtspmessage.h"
#include "shared/loop.h"

namespace orx {

struct ScriptedCamera {
    struct Connection {
        ScriptedCamera *pCamera = nullptr;
        LoopWatch watch;
        std::string received;
        std::string posted;  // of a tunnel's POST: what was received, not yet decoded
        int bPost = 0;
        void DecodePosted()
        {
            for (; posted.size() >= 4; posted.erase(0, 4)) {
                char group[8];
                received.append(group, static_cast<size_t>(Base64Decode(posted.data(), group, 4) - group));
            }
        }
    };
    // Gives what to answer to a request, as it goes on the wire; "close" behind it ends the connection.
    using Script = std::function<std::string(const RtspMessage &request)>;

    Loop *pLoop;
    Script script;
    LoopWatch listening;
    int nPort = 0;
    std::list<Connection> connections;
    Connection *pTunnel = nullptr;
    std::vector<std::string> seen;  // "METHOD url", the camera's own address being "@"

    ScriptedCamera(Loop *pL, Script s) : pLoop(pL), script(std::move(s))
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nSize = sizeof addr;
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), nSize));
        EXPECT_EQ(0, listen(fd, 16));
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &nSize);
        nPort = ntohs(addr.sin_port);
        listening = LoopWatch{fd, OnConnection, this};
        LoopSetWatch(pLoop, &listening, EPOLLIN);
    }
    ~ScriptedCamera()
    {
        while (!connections.empty())
            Close(&connections.front());
        LoopSetWatch(pLoop, &listening, 0);
        close(listening.fd);
    }
    ScriptedCamera(const ScriptedCamera &) = delete;
    ScriptedCamera &operator=(const ScriptedCamera &) = delete;

    std::string Host() const { return "127.0.0.1:" + std::to_string(nPort); }
    // Puts the camera's address in for every "@" that a path follows.
    std::string Filled(std::string text) const { return Replaced(std::move(text), "@/", Host() + "/"); }

    static std::string Replaced(std::string text, const std::string &from, const std::string &to)
    {
        for (size_t n = 0; (n = text.find(from, n)) != std::string::npos; n += to.size())
            text.replace(n, from.size(), to);
        return text;
    }
    void Close(Connection *pConnection)
    {
        pTunnel = pTunnel == pConnection ? nullptr : pTunnel;
        LoopSetWatch(pLoop, &pConnection->watch, 0);
        close(pConnection->watch.fd);
        connections.remove_if([pConnection](const Connection &c) { return &c == pConnection; });
    }
    static void OnConnection(void *pUser, uint32_t)
    {
        auto *pCamera = static_cast<ScriptedCamera *>(pUser);
        pCamera->connections.emplace_back();
        Connection *pNew = &pCamera->connections.back();
        pNew->pCamera = pCamera;
        pNew->watch = LoopWatch{accept(pCamera->listening.fd, nullptr, nullptr), OnBytes, pNew};
        LoopSetWatch(pCamera->pLoop, &pNew->watch, EPOLLIN);
    }
    static void OnBytes(void *pUser, uint32_t)
    {
        auto *pConnection = static_cast<Connection *>(pUser);
        ScriptedCamera *pCamera = pConnection->pCamera;
        char bytes[4096];
        ssize_t n = recv(pConnection->watch.fd, bytes, sizeof bytes, MSG_DONTWAIT);
        std::string *pInto = pConnection->bPost ? &pConnection->posted : &pConnection->received;
        pInto->append(bytes, n > 0 ? static_cast<size_t>(n) : 0);
        pConnection->DecodePosted();
        int bOpen = n > 0;
        RtspMessage request;
        long nUsed;
        size_t nHead = pConnection->received.find("\r\n\r\n");
        if (bOpen && pConnection->received.rfind("POST ", 0) == 0 && nHead != std::string::npos) {
            pConnection->bPost = 1;
            pConnection->posted = pConnection->received.substr(nHead + 4);
            pConnection->received.clear();
            pConnection->DecodePosted();
            pCamera->seen.push_back("POST");
        }
        while (bOpen && (nUsed = RtspParse(pConnection->received.data(), pConnection->received.size(), &request)) > 0) {
            pConnection->received.erase(0, static_cast<size_t>(nUsed));
            bOpen = pCamera->Answer(pConnection, request);
        }
        if (!bOpen)
            pCamera->Close(pConnection);
    }
    int Answer(Connection *pConnection, RtspMessage request)
    {
        if (request.raw.rfind("GET /", 0) == 0) {  // answers to what the POST brings go there
            request.method = "GET";
            pTunnel = pConnection;
        }
        if (request.kind == RTSP_REQUEST)
            seen.push_back(request.method + " " + Replaced(request.uri, Host(), "@"));
        else if (request.kind != RTSP_FRAME)
            seen.push_back(request.raw.substr(0, request.raw.find("\r\n")));
        std::string answer = request.kind == RTSP_FRAME ? "" : script(request);
        int bClose = answer.size() >= 5 && answer.compare(answer.size() - 5, 5, "close") == 0;
        answer.resize(answer.size() - (bClose ? 5 : 0));
        const Connection *pTo = pConnection->bPost ? pTunnel : pConnection;
        if (pTo) {
            ssize_t n = send(pTo->watch.fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            EXPECT_EQ(static_cast<ssize_t>(answer.size()), n);
        }
        return !bClose;
    }
};

}  // namespace orx
