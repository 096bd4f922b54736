// SPDX-License-Identifier: Apache-2.0
//
// The UNIX socket on which `run` takes requests of the programs that it started: one connection is one request, a line
// of JSON in each direction. Only root and the user of this process are listened to.
#ifndef VPNOALCTL_REQUESTSOCKET_H
#define VPNOALCTL_REQUESTSOCKET_H

#include <poll.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class RequestSocket {
public:
    /// Makes the answer to a line.
    using Answerer = std::function<std::string(const std::string& line)>;

    /// Listens in a folder of its own, which only its user may enter. Throws CommandError.
    explicit RequestSocket(Answerer answerer);
    RequestSocket(const RequestSocket&) = delete;
    RequestSocket& operator=(const RequestSocket&) = delete;
    ~RequestSocket();

    const std::string& path() const { return mPath; }

    /// Adds what is to be waited for.
    void addDescriptors(std::vector<pollfd>& watched) const;
    /// Reads and answers what has arrived. Waits for nobody.
    void dispatch();

private:
    struct Connection {
        UniqueFd socket;
        std::string received;
        std::string answer;  // what is not sent yet
        bool isAnswered = false;
    };

    void accept();
    bool serve(Connection& connection);
    bool receive(Connection& connection);

    Answerer mAnswerer;
    std::string mPath;
    UniqueFd mListener;
    std::list<Connection> mConnections;
};

}  // namespace vpnoalctl

#endif
