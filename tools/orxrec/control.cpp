#include "control.h"

#include <cstdio>

#include "client/rtspclient.h"

namespace orx {

static int Fail(int nExit, const std::string &text)
{
    fprintf(stderr, "orxrec: %s\n", text.c_str());
    return nExit;
}

static int FailUnreachable(const RtspClient &client)
{
    return Fail(REC_UNREACHABLE,
                (client.fd < 0 ? client.error : "no answer from " + client.url.host) +
                    ": is the server running, and is the URL's port its ListenPort (without one it is 554)?");
}

static int FailUnknown(const RtspClient &client)
{
    return Fail(REC_NOT_FOUND, "the server has no program " + client.url.path +
                                   ": its camera must push before it can be recorded; \"stat\" on the "
                                   "server's console lists who is there");
}

// What stands behind an answer that is no 200.
static int FailRefused(const RtspClient &client, const RtspMessage &reply)
{
    std::string status = std::to_string(reply.nStatus) + " " + reply.reason;
    switch (reply.nStatus) {
        case 400:  // the connection came to no program
            if (reply.reason.find("no RECORDEX yet") != std::string::npos)
                return FailUnknown(client);
            break;
        case 401:
            return Fail(REC_REFUSED,
                        client.user.empty()
                            ? "the server asks for a password: give --user and --password, or run this on "
                              "the box itself, where none is needed"
                            : "the server does not take this name and password (" + status + ")");
        case 403:
            return Fail(REC_REFUSED,
                        "this user may not record: a level below 2 is needed (UserLevel in the "
                        "server's configuration)");
        case 404:
            return FailUnknown(client);
        case 405:
            return Fail(REC_REFUSED,
                        "recording is off: set RecordEnable=1 in [STORAGE] of the server's "
                        "configuration and start it anew");
        default:
            break;
    }
    return Fail(REC_REFUSED, "the server refused: " + status);
}

static std::string Parameters(const RecOptions &options)
{
    if (options.eCommand == REC_STOP)
        return "Cmd=stop";
    std::string text =
        "EventType=" + std::to_string(options.nEvent) + "&LimitLen=" + std::to_string(options.nLimit);
    return options.file.empty() ? text : text + "&FileName=" + options.file;
}

static int Say(const RecOptions &options, const std::string &path)
{
    if (options.eCommand == REC_STOP)
        printf("%s: the manual recording has ended, if there was one\n", path.c_str());
    else
        printf("%s: is being recorded\n", path.c_str());
    return REC_OK;
}

int RecControl(const RecOptions &options)
{
    RtspClient client;
    RtspMessage reply;
    client.user = options.user;
    client.password = options.password;
    if (!RtspConnect(&client, options.url.c_str()))
        return FailUnreachable(client);
    if (!RtspRequest(&client, "DESCRIBE", nullptr, "Accept: application/sdp\r\n", "", &reply))
        return FailUnreachable(client);
    // on the box itself RECORDEX needs no password, even where watching does
    if (reply.nStatus == 403)
        return Fail(REC_REFUSED,
                    "the server does not let this user in: name and password are wrong, or the "
                    "program is not in the user's list (UserDevList)");
    if (reply.nStatus != 200 && reply.nStatus != 401)
        return FailRefused(client, reply);
    std::string headers = "ActionParam: " + Parameters(options) + "\r\n";
    if (!RtspRequest(&client, "RECORDEX", nullptr, headers.c_str(), "", &reply))
        return FailUnreachable(client);
    if (reply.nStatus != 200)
        return FailRefused(client, reply);
    if (reply.reason.starts_with("NOT enough"))
        return Fail(REC_NO_SPACE,
                    "there is no space for a recording, or its file cannot be made: free some, or set "
                    "AutoDelOldFile=1 or a smaller ReserveMegabytes; see the server's RecordPath and log");
    return Say(options, client.url.path);
}

}  // namespace orx
