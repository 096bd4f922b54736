// SPDX-License-Identifier: Apache-2.0
//
// Owner of a libmnl socket.
#ifndef HANDLES_MNL_H
#define HANDLES_MNL_H

#include <libmnl/libmnl.h>

#include <memory>

struct MnlSocketCloser {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using MnlSocketPtr = std::unique_ptr<mnl_socket, MnlSocketCloser>;

#endif
